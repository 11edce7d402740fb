// A short transaction precedes a long one that is at work.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>

#include "service/service.h"
#include "support/store_unit.h"

using namespace tav;
using tavtest::nothing_unseen;
using tavtest::picture;
using tavtest::set_item;
using tavtest::step;
using tavtest::text_at;
using State = Task::State;

namespace {

class PrecedeRandomly : public ::testing::Test {
protected:
    using Net = std::map<std::string, std::pair<std::string, std::string>>;

    std::size_t choose(std::size_t number) { return random() % number; }
    std::string path() {
        std::string result;
        for (std::size_t names = 1 + choose(3); names > 0; --names) {
            result += std::string("/") + "abc"[choose(3)];
        }
        return result;
    }
    Item item() {
        constexpr std::array<ItemKind, 8> kinds{
            ItemKind::make_node, ItemKind::remove, ItemKind::remove_node, ItemKind::remove_single,
            ItemKind::clear,     ItemKind::touch,  ItemKind::require,     ItemKind::require_absent};
        const std::size_t kind = choose(16);
        return kind < kinds.size() ? step(kinds.at(kind), choose(40) == 0 ? "/" : path())
                                   : set_item(path(), std::to_string(choose(3)));
    }
    static bool apply(Edit &edit, const std::vector<Item> &items) {
        for (const Item &item : items) {
            if (edit.apply(item) != api_status_ok) {
                return false;
            }
        }
        return true;
    }
    static std::string text_of(const Change::ValuePtr &value) {
        return value ? tavtest::shown(*value) : "-";
    }
    static Net net(Edit &edit) {
        Net result;
        for (const Change &change : edit.changes()) {
            if (change.stored() || change.touched) {
                result[change.path] = {text_of(change.before), text_of(change.after)};
            }
        }
        return result;
    }

    std::mt19937 random{1};
};

} // namespace

TEST_F(PrecedeRandomly, TheResultIsAsIfTheyHadComeFirst) {
    int preceded = 0;
    int refused = 0;
    for (int sequence = 0; sequence < 60000; ++sequence) {
        Tree base;
        Edit first(base, 7);
        for (int i = 0; i < 12; ++i) {
            first.apply(set_item(path(), "0"));
        }
        base = first.tree();
        Edit long_one(base, 7);
        std::vector<Item> items;
        bool valid = true;
        while (valid && items.size() < 8) {
            items.push_back(item());
            valid = long_one.apply(items.back()) == api_status_ok;
            Edit short_one(base, 7);
            if (!apply(short_one, {item(), item()})) {
                continue;
            }
            if (const std::optional<Tree> both = long_one.with(short_one.changes())) {
                long_one.go_on_from(*both);
                base = short_one.tree();
                ++preceded;
            } else {
                ++refused;
            }
        }
        if (!valid) {
            continue;
        }
        Edit alone(base, 7);
        ASSERT_TRUE(apply(alone, items)) << sequence;
        ASSERT_EQ(picture(long_one.tree()), picture(alone.tree())) << sequence;
        ASSERT_EQ(net(long_one), net(alone)) << sequence;
        ASSERT_EQ(long_one.tree().extent().bytes, alone.tree().extent().bytes);
        ASSERT_EQ(long_one.tree().extent().leaves, alone.tree().extent().leaves);
    }
    EXPECT_GT(preceded, 1000);
    EXPECT_GT(refused, 1000);
}
