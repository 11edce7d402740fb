// How unconfirmed changes are reverted: when, in what order, and what happens if that fails.
#include "support/confirm_fixture.h"

#include "protocol/limits.h"

using namespace tav;
using namespace tavtest;
using namespace std::chrono_literals;

namespace {

class ReversalTest : public ConfirmTest {
protected:
    // Writes leaves PATH0, PATH1, ...
    void fill(const std::string &path, std::size_t from, std::size_t to) {
        Items items;
        for (std::size_t i = from; i < to; ++i) {
            items.push_back(set_item(path + std::to_string(i), "1"));
        }
        EXPECT_EQ(write(*owner, items), Statuses(items.size(), api_status_ok));
    }
    // A part of what is due.
    void pass_a_part(std::chrono::milliseconds time) {
        now += time;
        service->revert();
    }
};

} // namespace

TEST_F(ReversalTest, AReversionThatCannotBeStoredIsTriedAgain) {
    FailingStorage &storage = open_in_memory();
    change(*owner, {set_item("/a", "1")});
    storage.fails = true;
    EXPECT_EQ(confirm(*owner).first, api_status_failed);
    pass(10s);
    EXPECT_EQ(text("/a"), "1");
    EXPECT_EQ(pending().size(), 1U);
    storage.fails = false;
    pass(0s);
    EXPECT_EQ(text("/a"), "1") << "not at once";
    EXPECT_EQ(service->next_end(), now + 5s);
    EXPECT_EQ(write(*other, {set_item("/a", "2")}), Statuses{api_status_pending});
    pass(5s);
    EXPECT_EQ(text("/a"), absent);
    EXPECT_FALSE(service->next_end());
}

TEST_F(ReversalTest, AReversionNeedsNoRoomInTheTree) {
    write(*owner, {set_item("/a", std::string(5000, 'x'))});
    change(*owner, {step(ItemKind::remove, "/a")});
    store->byte_limit = store->tree().extent().bytes;
    pass(10s);
    EXPECT_EQ(text("/a"), std::string(5000, 'x'));
}

TEST_F(ReversalTest, AReversionWaitsForATransactionAndComesBeforeTheNext) {
    change(*owner, {set_item("/a", "1")});
    ASSERT_TRUE(service->take_turn(owner->id()));
    pass(10s);
    EXPECT_EQ(text("/a"), "1");
    EXPECT_FALSE(service->next_end()) << "the loop must not spin";
    service->end_turn();
    EXPECT_FALSE(service->take_turn(owner->id()));
    EXPECT_EQ(service->next_end(), now);
    const std::uint64_t releases = service->releases();
    pass(0s);
    EXPECT_GT(service->releases(), releases);
    EXPECT_EQ(text("/a"), absent);
    EXPECT_TRUE(service->take_turn(owner->id()));
    service->end_turn();
}

TEST_F(ReversalTest, NobodyWaitsForAReversionThatIsNoLongerNeeded) {
    const std::uint64_t number = change(*owner, {set_item("/a", "1")});
    ASSERT_TRUE(service->take_turn(owner->id()));
    pass(10s);
    service->end_turn();
    now -= 1s; // as if the confirmation had come before
    EXPECT_EQ(confirm(*owner, number).first, api_status_ok);
    EXPECT_TRUE(service->next_end());
    pass(0s);
    EXPECT_TRUE(service->take_turn(owner->id()));
    service->end_turn();
}

// One that failed once kept back all that came after it, of any user.
TEST_F(ReversalTest, OneThatFailsDelaysNoOther) {
    open_in_memory();
    write(*owner, {set_item("/p/x", "1"), set_item("/b", "1")});
    change(*owner, {step(ItemKind::remove, "/p/x")});
    change(*other, {set_item("/b", "2")});
    change(*other, {set_item("/c", "2")}, 12000);
    fill("/p/", 0, limits::paths_per_request);
    fill("/p/", limits::paths_per_request, limits::children_per_node);
    pass(10s);
    EXPECT_EQ(text("/p/x"), absent);
    EXPECT_EQ(text("/b"), "1");
    EXPECT_EQ(service->next_end(), now + 2s);
    pass(2s);
    EXPECT_EQ(text("/c"), absent);
    EXPECT_EQ(service->next_end(), now + 3s);
    write(*owner, {step(ItemKind::remove, "/p/0")});
    pass(2999ms);
    EXPECT_EQ(text("/p/x"), absent);
    pass(1ms);
    EXPECT_EQ(text("/p/x"), "1");
    EXPECT_FALSE(service->next_end());
}

TEST_F(ReversalTest, OneOfTooManyBytesIsTriedAgain) {
    open_in_memory();
    const std::string before = picture();
    std::string deep;
    for (int i = 0; i < 15; ++i) {
        deep += "/" + std::string(limits::name_bytes, 'd');
    }
    change(*owner, {step(ItemKind::make_node, deep)});
    fill(deep + "/", 0, 5000);
    fill(deep + "/", 5000, 10000);
    pass(10s);
    EXPECT_EQ(text(deep + "/0"), "1");
    EXPECT_EQ(service->next_end(), now + 5s);
    Items items;
    for (int i = 0; i < 5000; ++i) {
        items.push_back(step(ItemKind::remove, deep + "/" + std::to_string(i)));
    }
    write(*owner, items);
    pass(5s);
    EXPECT_EQ(picture(), before);
}

TEST_F(ReversalTest, ALargeOneIsDividedIntoParts) {
    open_in_memory();
    change(*owner, {step(ItemKind::make_node, "/n")});
    fill("/n/", 0, 5000);
    pass_a_part(10s);
    int parts = 1;
    service->registering(1); // waits until it is stored
    for (; !store->has_group(); ++parts) {
        EXPECT_EQ(text("/n/0"), "1");
        EXPECT_FALSE(service->between_groups());
        EXPECT_FALSE(service->take_turn(other->id()));
        EXPECT_EQ(service->next_end(), now);
        pass_a_part(0s);
    }
    EXPECT_GT(parts, 5);
    EXPECT_LT(parts, 100);
    service->commit();
    EXPECT_TRUE(service->between_groups());
    service->registering(-1);
    EXPECT_EQ(text("/n/0"), absent);
    EXPECT_TRUE(service->take_turn(other->id()));
    service->end_turn();
}

TEST_F(ReversalTest, OneWhoseBaseIsNotStoredBeginsAgain) {
    FailingStorage &storage = open_in_memory();
    change(*owner, {step(ItemKind::make_node, "/n")});
    fill("/n/", 0, 5000);
    Writer out;
    put(out, RequestHeader{Op::transact, 1});
    put_all(out, Items{set_item("/base", "1")});
    const std::string request = out.finish();
    std::string reply;
    std::unique_ptr<Task> task;
    service->begin(*other, std::string_view(request).substr(length_bytes), reply, task);
    EXPECT_EQ(task->step(), Task::State::blocked);
    pass_a_part(10s);
    EXPECT_TRUE(service->busy());
    storage.fails = true;
    service->commit();
    storage.fails = false;
    service->registering(1);
    const std::uint64_t releases = service->releases();
    pass_a_part(0s);
    EXPECT_GT(service->releases(), releases) << "or the registration would wait for ever";
    EXPECT_TRUE(service->between_groups());
    service->registering(-1);
    pass(0s);
    EXPECT_EQ(text("/n/0"), absent);
    EXPECT_EQ(text("/base"), absent);
}

TEST_F(ReversalTest, ARegistrationContinuesWhenOneFails) {
    open_in_memory();
    write(*owner, {set_item("/p/x", "1")});
    change(*owner, {step(ItemKind::make_node, "/n"), step(ItemKind::remove, "/p/x")});
    change(*other, {set_item("/b", "1")});
    fill("/n/", 0, 5000);
    fill("/p/", 0, limits::paths_per_request);
    fill("/p/", limits::paths_per_request, limits::children_per_node);
    pass_a_part(10s);
    service->registering(1);
    const std::uint64_t releases = service->releases();
    while (service->busy()) {
        pass_a_part(0s);
    }
    EXPECT_GT(service->releases(), releases);
    EXPECT_TRUE(service->between_groups());
    EXPECT_FALSE(service->next_end());
    service->registering(-1);
    pass(0s);
    EXPECT_EQ(text("/n/0"), "1");
    EXPECT_EQ(text("/b"), absent);
}

// The second one once waited for the first commit after the start.
TEST_F(ReversalTest, AllThatAreDueAreRevertedBeforeTheFirstRequest) {
    change(*owner, {step(ItemKind::make_node, "/n")});
    change(*owner, {set_item("/b", "1")});
    fill("/n/", 0, limits::paths_per_request);
    open(1000, 10001);
    EXPECT_EQ(text("/n/0"), absent);
    EXPECT_EQ(text("/b"), absent);
    EXPECT_TRUE(pending().empty());
}
