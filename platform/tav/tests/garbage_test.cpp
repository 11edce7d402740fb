// Memory that is given back a part at a time.
#include <gtest/gtest.h>

#include "service/garbage.h"

using namespace tav;

namespace {

constexpr int many = 10000;

class GarbageTest : public ::testing::Test {
protected:
    GarbageTest() {
        parts(); // those of other tests
    }
    // How often a part was given back.
    static int parts() {
        int number = 0;
        while (garbage::give_back()) {
            ++number;
        }
        return number;
    }
    static Tree large() {
        Tree tree;
        tree.add("/n", Value{element_type_node, {}, no_time});
        for (int i = 0; i < many; ++i) {
            tree.add("/n/" + std::to_string(i), Value{element_type_string, "v", no_time});
        }
        return tree;
    }
    static std::weak_ptr<const Content> leaf(const Tree &tree, int number) {
        return tree.find("/n/" + std::to_string(number))->content;
    }
};

} // namespace

TEST_F(GarbageTest, ALargeTreeIsGivenBackInParts) {
    auto tree = std::make_unique<Tree>(large());
    const auto first = leaf(*tree, 0);
    const auto last = leaf(*tree, many - 1);
    tree.reset();
    EXPECT_FALSE(garbage::empty());
    EXPECT_FALSE(first.expired());
    EXPECT_GT(parts(), 1);
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(last.expired());
    EXPECT_TRUE(garbage::empty());
}

TEST_F(GarbageTest, WhatAnotherTreeSharesStays) {
    auto tree = std::make_unique<Tree>(large());
    Tree other = *tree;
    other.remove("/n/1", Extent{0, 1, 0});
    const auto removed = leaf(*tree, 1);
    tree.reset();
    parts();
    EXPECT_TRUE(removed.expired());
    EXPECT_EQ(other.find("/n/1"), nullptr);
    for (const int number : {0, 2, many - 1}) {
        ASSERT_NE(other.find("/n/" + std::to_string(number)), nullptr);
        EXPECT_EQ(other.find("/n/" + std::to_string(number))->value().text, "v");
    }
}

TEST_F(GarbageTest, ARemovedSubtreeIsGivenBackInParts) {
    Tree tree = large();
    const auto first = leaf(tree, 0);
    tree.remove("/n", Extent{1, many, 0});
    EXPECT_FALSE(first.expired());
    EXPECT_GT(parts(), 1);
    EXPECT_TRUE(first.expired());
}

TEST_F(GarbageTest, ALargeEditIsGivenBackInParts) {
    const Tree tree = large();
    auto edit = std::make_unique<Edit>(tree, 0);
    EXPECT_EQ(edit->apply({ItemKind::touch, "/", {}}), api_status_ok);
    const std::weak_ptr<const Value> value = edit->changes().back().before;
    const auto uses = value.use_count();
    edit.reset();
    EXPECT_EQ(value.use_count(), uses);
    EXPECT_GT(parts(), many / 4096) << "the index, too";
    EXPECT_LT(value.use_count(), uses);
}

TEST_F(GarbageTest, EventsThatAreNotPublishedAreGivenBackInParts) {
    const auto fill = [](EventLog::Staged &staged) {
        for (int i = 0; i < many; ++i) {
            const Event event{mlr_event_set, "/n/" + std::to_string(i)};
            staged.batch.add(LoggedEvent{event, 0, 0, 0});
        }
    };
    constexpr int least = 2 * many / 4096; // each event is in two containers
    {
        EventLog::Staged staged;
        fill(staged);
        staged = {};
        EXPECT_GE(parts(), least);
        fill(staged);
        EXPECT_TRUE(garbage::empty());
    }
    EXPECT_GE(parts(), least);
    EventLog log;
    EventLog::Staged staged;
    fill(staged);
    log.stage(staged);
    log.drop_staged();
    EXPECT_GE(parts(), least);
}

// A large touch that began again and again for others once made the service larger and larger.
TEST_F(GarbageTest, MuchIsGivenBackFasterThanItIsMade) {
    for (int turn = 0; turn < 100; ++turn) {
        Edit::Changes changes(many);
        garbage::add(changes);
        garbage::give_back();
    }
    EXPECT_LT(parts(), 60); // of 4,096 at least
}
