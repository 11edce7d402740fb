// The store's transactions, in memory.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>

#include "protocol/limits.h"
#include "service/session.h"
#include "support/store_unit.h"

using namespace tav;
using tavtest::step;
using tavtest::text_at;

namespace {

// Counts the commits.
class TestStorage : public Storage {
public:
    bool commit(const Edit::Changes &changes) override {
        ++commits;
        last.assign(changes.begin(), changes.end());
        return true;
    }

    int commits = 0;
    std::vector<Change> last;
};

Item set_item(const std::string &path, const std::string &text, std::int64_t time = no_time) {
    return Item{ItemKind::set, path, Value{element_type_string, text, time}};
}

class StoreUnit : public ::testing::Test {
protected:
    StoreUnit() {
        auto owned = std::make_unique<TestStorage>();
        storage = owned.get();
        store = std::make_unique<Store>(std::move(owned));
        storage->commits = 0;
    }

    struct Outcome {
        std::vector<api_status_t> statuses;
        std::vector<std::string> events; // that another client gets
    };
    Outcome write(const std::vector<Item> &items, const std::string &unseen_path = "") {
        Session other(Ticket{1, 2}, Credentials{}, false, store->events());
        other.register_events(Registration{"/", api_event_change, false}, Time{});
        Outcome outcome;
        outcome.statuses = store->transact(
            items, [&unseen_path](const std::string &path) { return path == unseen_path; });
        outcome.events = tavtest::fetched(other);
        outcome.events.erase(outcome.events.begin()); // the notice
        return outcome;
    }
    std::vector<std::string> events(const std::vector<Item> &items) { return write(items).events; }

    std::vector<std::string> names(const std::string &path) {
        std::vector<std::string> result;
        Walker walker(store->tree().find(path), store->tree(), path, false);
        for (walker.next(); walker.next();) {
            result.push_back(walker.element().content->name.text());
        }
        return result;
    }

    LeafAnswer read(const std::string &path) {
        const Value *value = nullptr;
        const api_status_t status = read_leaf(store->tree(), path, value);
        EXPECT_EQ(value != nullptr, status == api_status_ok);
        return {status, value != nullptr ? *value : Value()};
    }

    std::string text(const std::string &path) { return text_at(store->tree(), path); }

    // The complete content of the tree, to compare before and after.
    std::string picture() {
        return tavtest::picture(store->tree()) + std::to_string(store->tree().extent().nodes) +
               "/" + std::to_string(store->tree().extent().leaves);
    }

    TestStorage *storage = nullptr;
    std::unique_ptr<Store> store;
};

using Statuses = std::vector<api_status_t>;
using Names = std::vector<std::string>;

} // namespace

TEST_F(StoreUnit, AStoreInMemoryBeginsWithItsInitialNodes) {
    store = std::make_unique<Store>(Store::Nodes{"/a/b", "/c"});
    EXPECT_EQ(picture(), "/=2:@-1\n/a=2:@-1\n/a/b=2:@-1\n/c=2:@-1\n4/0");
    store = std::make_unique<Store>();
    EXPECT_EQ(picture(), "/=2:@-1\n1/0");
}

TEST_F(StoreUnit, ALeafWrittenTwiceInOneTransactionIsOneEvent) {
    EXPECT_EQ(events({set_item("/a", "1"), set_item("/b", "1"), set_item("/a", "2")}),
              (Names{"2 /b", "2 /a"}));
    EXPECT_EQ(text("/a"), "2");
}

TEST_F(StoreUnit, ALeafSetAndSetBackIsNoChange) {
    write({set_item("/a", "1", 1000)});
    storage->commits = 0;
    EXPECT_EQ(events({set_item("/b", "1"), step(ItemKind::remove, "/b")}), Names{});
    EXPECT_EQ(storage->commits, 0);
}

TEST_F(StoreUnit, AnotherTypeWithTheSameTextIsAChange) {
    write({set_item("/a", "1")});
    const Item other{ItemKind::set, "/a", Value{element_type_integer, "1", no_time}};
    EXPECT_EQ(events({other}), Names{"2 /a"});
    EXPECT_EQ(read("/a").value.type, element_type_integer);
}

TEST_F(StoreUnit, EachFaultHasItsStatus) {
    write({set_item("/a/leaf", "1")});
    const auto status = [this](const Item &one) { return write({one}).statuses.front(); };
    EXPECT_EQ(status(set_item("/a/leaf/x", "1")), api_status_wrong_kind);
    EXPECT_EQ(status(set_item("/a", "1")), api_status_wrong_kind);
    EXPECT_EQ(status(set_item("/", "1")), api_status_wrong_kind);
    EXPECT_EQ(status(set_item("a", "1")), api_status_bad_path);
    EXPECT_EQ(status(set_item("/x", std::string("\0", 1))), api_status_bad_value);
    EXPECT_EQ(status(set_item("/x", std::string(limits::value_bytes + 1, 'v'))),
              api_status_value_too_long);
    EXPECT_EQ(status(set_item("/" + std::string(limits::name_bytes + 1, 'n'), "1")),
              api_status_name_too_long);
    EXPECT_EQ(status(step(ItemKind::make_node, "/a/leaf")), api_status_wrong_kind);
    EXPECT_EQ(status(step(ItemKind::remove_node, "/")), api_status_refused);
    EXPECT_EQ(status(step(ItemKind::remove, "/")), api_status_refused);
    EXPECT_EQ(status(step(ItemKind::remove_node, "/none")), api_status_absent);
    EXPECT_EQ(status(step(ItemKind::remove_node, "/a/leaf")), api_status_wrong_kind);
    EXPECT_EQ(status(step(ItemKind::touch, "/none")), api_status_absent);
    EXPECT_EQ(read("/a").status, api_status_wrong_kind);
    EXPECT_EQ(read("/a/leaf/x").status, api_status_absent);
    EXPECT_EQ(read("x").status, api_status_bad_path);
}

TEST_F(StoreUnit, TouchMakesEventsWithoutAChange) {
    write({set_item("/a/1", "x", 7), set_item("/a/2", "x", 7)});
    const std::string before = picture();
    storage->commits = 0;
    EXPECT_EQ(events({step(ItemKind::touch, "/a/2")}), Names{"2 /a/2"});
    EXPECT_EQ(events({step(ItemKind::touch, "/a")}), (Names{"2 /a/1", "2 /a/2"}));
    EXPECT_EQ(storage->commits, 0);
    EXPECT_EQ(picture(), before);
}

TEST_F(StoreUnit, AWriteThatChangesNothingIsNeverStale) {
    write({set_item("/a/1", "x")});
    EXPECT_EQ(write({set_item("/a/1", "x")}, "/a/1").statuses, Statuses{api_status_ok});
    EXPECT_EQ(write({step(ItemKind::touch, "/a/1")}, "/a/1").statuses, Statuses{api_status_ok});
    EXPECT_EQ(write({set_item("/a/2", "y")}, "/a/1").statuses, Statuses{api_status_ok});
}

TEST_F(StoreUnit, AReplacedSubtreeKeepsTheGivenTimesAndReportsOnlyContent) {
    write({set_item("/a/1", "x", 10), set_item("/a/2", "x", 10)});
    storage->commits = 0;
    EXPECT_EQ(events({step(ItemKind::remove, "/a"), set_item("/a/1", "x", 20),
                      set_item("/a/2", "y", 20)}),
              Names{"2 /a/2"});
    EXPECT_EQ(read("/a/1").value.time, 20);
    EXPECT_EQ(storage->commits, 1);
    // The committed content is the content in memory.
    for (const Change &change : storage->last) {
        if (change.path == "/a/1") {
            EXPECT_EQ(change.after->time, 20);
        }
    }
}

TEST_F(StoreUnit, AGivenTimeIsStoredForEqualContentWithoutAnEvent) {
    write({set_item("/a", "x", 10)});
    EXPECT_EQ(events({set_item("/a", "x", 20)}), Names{});
    EXPECT_EQ(read("/a").value.time, 20);
    EXPECT_EQ(storage->last.size(), 1U);
    EXPECT_EQ(events({set_item("/a", "x")}), Names{});
    EXPECT_EQ(read("/a").value.time, 20);
}

TEST_F(StoreUnit, ClearEmptiesTheWholeStoreOrASubtreeAndAcceptsAnAbsentOne) {
    write({set_item("/a/1", "x", 10), set_item("/a/2", "x", 10), set_item("/b", "x", 10)});
    EXPECT_EQ(events({step(ItemKind::clear, "/a"), set_item("/a/2", "x", 10)}), Names{"3 /a/1"});
    EXPECT_EQ(events({step(ItemKind::clear, "/none")}), Names{});
    EXPECT_EQ(events({step(ItemKind::clear, "/b")}), Names{"3 /b"});
    EXPECT_EQ(events({step(ItemKind::clear, "/")}), Names{"3 /a/2"});
    EXPECT_EQ(names("/"), Names{});
}

TEST_F(StoreUnit, AStaleClearIsRefused) {
    write({set_item("/a/x/1", "x")});
    EXPECT_EQ(write({step(ItemKind::clear, "/")}, "/a/x/1").statuses, Statuses{api_status_stale});
    EXPECT_EQ(text("/a/x/1"), "x");
}

TEST_F(StoreUnit, ALeafMayBecomeANodeInOneTransaction) {
    write({set_item("/a", "1")});
    EXPECT_EQ(events({step(ItemKind::remove, "/a"), set_item("/a/b", "1")}),
              (Names{"3 /a", "2 /a/b"}));
    EXPECT_EQ(events({step(ItemKind::remove, "/a"), set_item("/a", "1")}),
              (Names{"3 /a/b", "2 /a"}));
}

TEST_F(StoreUnit, TheChildrenOfANodeAreLimited) {
    std::vector<Item> items;
    for (std::size_t i = 0; i < limits::children_per_node; ++i) {
        items.push_back(set_item("/n/" + std::to_string(i), "x"));
    }
    EXPECT_EQ(write(items).statuses.back(), api_status_ok);
    const std::string before = picture();
    EXPECT_EQ(write({set_item("/n/more", "x")}).statuses, Statuses{api_status_too_many_children});
    EXPECT_EQ(picture(), before);
}

TEST_F(StoreUnit, TheLargestSizesAreThoseOfAnyTransactionsEnd) {
    write({set_item("/n/a", "1"), set_item("/n/b", "1"), set_item("/n/c", "1"),
           step(ItemKind::remove, "/n/a"), set_item("/n/b", "four")});
    EXPECT_EQ(store->largest().children, 2U);
    EXPECT_EQ(store->largest().value_bytes, 4U);
    EXPECT_EQ(store->largest().path_bytes, 4U);
    EXPECT_EQ(store->largest().depth, 2U);
    write({step(ItemKind::make_node, "/a-long-name"), set_item("/n/d/e/f", "1")});
    EXPECT_EQ(store->largest().children, 3U);
    EXPECT_EQ(store->largest().name_bytes, 11U);
    EXPECT_EQ(store->largest().depth, 4U);
    write({step(ItemKind::remove, "/n"), set_item("/m/a", "1")});
    EXPECT_EQ(store->largest().children, 3U); // it stays
}

TEST_F(StoreUnit, AWalkSeesNoneOfTheLaterChanges) {
    std::vector<Item> items;
    std::vector<std::string> expected{"/n"};
    for (int i = 0; i < 1000; ++i) {
        expected.push_back("/n/" + std::to_string(i));
        items.push_back(set_item(expected.back(), "old"));
    }
    write(items);
    std::vector<std::string> paths;
    Walker walker(store->tree().find("/n"), store->tree(), "/n");
    for (int i = 0; walker.next(); ++i) {
        paths.push_back(walker.path());
        if (i > 0) {
            EXPECT_EQ(walker.element().value().text, "old");
        }
        if (i == 10) {
            write({set_item("/n/999", "new"), step(ItemKind::remove, "/n/500")});
        }
        if (i == 20) {
            write({step(ItemKind::clear, "/")});
        }
    }
    EXPECT_EQ(paths, expected);
    EXPECT_EQ(names("/"), Names{});
}

TEST_F(StoreUnit, ATreeCountsTheBytesThatItHasReplacedAndRemoved) {
    const Value text{element_type_string, std::string(1000, 'x'), no_time};
    Tree tree;
    std::uint64_t last = 0;
    const auto more = [&] { return tree.replaced() - std::exchange(last, tree.replaced()); };
    tree.add("/a", text);
    EXPECT_EQ(more(), 0U);
    const Tree earlier = tree;
    tree.add("/b", text);
    EXPECT_GE(more(), sizeof(Element)) << "the root, at least";
    tree.replace("/b", text);
    EXPECT_EQ(more() / 1000, 1U);
    Extent removed;
    removed.add(*tree.find("/b")->content);
    tree.remove("/b", removed);
    EXPECT_EQ(more() / 1000, 1U);
    tree.clear();
    EXPECT_GE(more(), 1000U);
}

TEST_F(StoreUnit, AConditionHoldsForExactlyOneValue) {
    const auto allows = [this](const Item &condition) {
        return write({condition}).statuses.front();
    };
    const auto is = [](element_type_t type, const std::string &text, std::int64_t time) {
        return Item{ItemKind::require, "/a/b", Value{type, text, time}};
    };
    write({set_item("/a/b", "5", 77)});
    EXPECT_EQ(allows(is(element_type_string, "5", no_time)), api_status_ok);
    EXPECT_EQ(allows(is(element_type_string, "5", 77)), api_status_ok);
    EXPECT_EQ(allows(is(element_type_string, "5", 78)), api_status_changed);
    EXPECT_EQ(allows(is(element_type_string, "6", no_time)), api_status_changed);
    EXPECT_EQ(allows(is(element_type_integer, "5", no_time)), api_status_changed);
    EXPECT_EQ(allows(is(element_type_node, "", no_time)), api_status_changed);
    EXPECT_EQ(allows({ItemKind::require, "/a", Value{element_type_node, "", no_time}}),
              api_status_ok);
    EXPECT_EQ(allows({ItemKind::require, "/none", Value{element_type_node, "", no_time}}),
              api_status_changed);
    EXPECT_EQ(allows(step(ItemKind::require_absent, "/none/below")), api_status_ok);
    EXPECT_EQ(allows(step(ItemKind::require_absent, "/a/b")), api_status_changed);
    EXPECT_EQ(allows(step(ItemKind::require_absent, "/")), api_status_changed);
    EXPECT_EQ(allows(step(ItemKind::require_absent, "a")), api_status_bad_path);
}

TEST_F(StoreUnit, AConditionThatDoesNotHoldRefusesTheWholeTransaction) {
    write({set_item("/a", "1", 10)});
    const std::string before = picture();
    const Item is_two{ItemKind::require, "/a", Value{element_type_string, "2", no_time}};
    const Outcome refused = write({set_item("/b", "x", 10), is_two, set_item("/c", "x", 10)});
    EXPECT_EQ(refused.statuses,
              (Statuses{api_status_not_done, api_status_changed, api_status_not_done}));
    EXPECT_EQ(refused.events, Names{});
    EXPECT_EQ(picture(), before);
    // Earlier steps count.
    EXPECT_EQ(write({set_item("/a", "2", 10), is_two, set_item("/a", "3", 10)}).events,
              Names{"2 /a"});
    EXPECT_EQ(text("/a"), "3");
}

TEST_F(StoreUnit, AConditionIsNotStaleItself) {
    write({set_item("/a", "1", 10)});
    const Item is_one{ItemKind::require, "/a", Value{element_type_string, "1", no_time}};
    EXPECT_EQ(write({is_one, step(ItemKind::require_absent, "/b")}, "/a").statuses,
              (Statuses{api_status_ok, api_status_ok}));
    EXPECT_EQ(write({is_one, set_item("/a", "2", 10)}, "/a").statuses,
              (Statuses{api_status_not_done, api_status_stale}));
}

// A part of 128 items once took up to 20 ms.
TEST_F(StoreUnit, APartOfATransactionIsSmallerIfItsItemsAreLarge) {
    const auto parts = [](std::vector<Item> items, bool refused) {
        if (refused) { // not examined
            items.push_back(step(ItemKind::remove, "/absent"));
        }
        Writer out;
        put_all(out, items);
        const std::string frame = out.finish();
        Transaction transaction(Tree(), std::string_view(frame).substr(length_bytes), 0, SIZE_MAX,
                                tavtest::nothing_unseen, [](const Event & /*event*/) {});
        int number = 1;
        while (transaction.advance() == Transaction::State::working) {
            ++number;
        }
        return number;
    };
    std::string node;
    for (std::size_t i = 0; i + 2 < limits::depth; ++i) {
        node += "/d";
    }
    std::vector<Item> small;
    std::vector<Item> deep;
    std::vector<Item> levels;
    std::vector<Item> large;
    for (int i = 0; i < 100; ++i) {
        const std::string name = '/' + std::to_string(i);
        small.push_back(set_item(name, "x"));
        deep.push_back(set_item(node + name, "x"));
        levels.push_back(set_item(name + node, "x"));
        large.push_back(set_item(name, std::string(limits::value_bytes, 'x')));
    }
    EXPECT_LE(parts(small, false), 2);
    EXPECT_LE(parts(deep, true), 2);
    EXPECT_GE(parts(deep, false), 4);
    EXPECT_GE(parts(levels, true), 100 * 63 / (256 + 64));
    const int applied = parts(large, true);
    EXPECT_GE(applied, 100 * 64 / (256 + 64));
    EXPECT_GE(parts(large, false) - applied, 100 * 64 / (256 + 64));
}

TEST_F(StoreUnit, UnseenEventsAreLookedForOncePerCreatedNode) {
    Names asked;
    const auto answer = [&](const std::string &stale) {
        asked.clear();
        return store->transact({step(ItemKind::make_node, "/a/b/c"), set_item("/a/d", "1", 10),
                                set_item("/e", "1", 10), set_item("/ab", "1", 10)},
                               [&](const std::string &path) {
                                   asked.push_back(path);
                                   return path == stale;
                               });
    };
    EXPECT_EQ(answer("/a"), (Statuses{api_status_stale, api_status_stale, api_status_not_done,
                                      api_status_not_done}));
    EXPECT_EQ(asked, (Names{"/a", "/a/b", "/a/d", "/e", "/ab"}));
    EXPECT_EQ(answer("/ab").back(), api_status_stale);
    EXPECT_EQ(asked, (Names{"/a", "/e", "/ab"}));
}

TEST_F(StoreUnit, WhatOneCallRemovesAndTouchesIsLimited) {
    std::vector<Item> items;
    for (int i = 0; i < 2000; ++i) {
        items.push_back(set_item("/n/" + std::to_string(i), "x"));
    }
    write(items);
    const std::size_t most = (store->tree().extent().elements() + limits::paths_per_request) / 2001;
    EXPECT_EQ(write(std::vector<Item>(most, step(ItemKind::touch, "/n"))).statuses.back(),
              api_status_ok);
    const Outcome more = write(std::vector<Item>(most + 1, step(ItemKind::touch, "/n")));
    EXPECT_EQ(more.statuses.front(), api_status_not_done);
    EXPECT_EQ(more.statuses.back(), api_status_too_large);
    EXPECT_EQ(more.events, Names{});
}

// The path of each touched leaf is kept, and here each is much longer than what the tree has of it.
TEST_F(StoreUnit, TheBytesThatACallsChangesTakeAreLimited) {
    std::string node;
    while (node.size() + 300 < limits::path_bytes) {
        node += '/' + std::string(limits::name_bytes, 'n');
    }
    const std::size_t number = limits::change_bytes / limits::path_bytes;
    for (std::size_t part = 0; part < 16; ++part) {
        std::vector<Item> items;
        for (std::size_t i = 0; i < number / 16; ++i) {
            items.push_back(
                set_item(node + "/" + std::to_string(part) + "." + std::to_string(i), "1"));
        }
        ASSERT_EQ(write(items).statuses.back(), api_status_ok);
    }
    EXPECT_EQ(write({step(ItemKind::touch, "/")}).statuses, Statuses{api_status_too_large});
    EXPECT_EQ(write({step(ItemKind::clear, "/")}).statuses, Statuses{api_status_too_large});
    EXPECT_EQ(write({step(ItemKind::touch, node + "/0.0")}).statuses, Statuses{api_status_ok});
}

TEST_F(StoreUnit, TheBytesOfTheWholeTreeAreLimited) {
    store->byte_limit = 4000;
    EXPECT_EQ(write({set_item("/big", std::string(2000, 'x'))}).statuses.front(), api_status_ok);
    EXPECT_EQ(write({set_item("/small", "1"), set_item("/more", std::string(2000, 'x'))}).statuses,
              (Statuses{api_status_not_done, api_status_too_many_bytes}));
    EXPECT_EQ(names("/"), Names{"big"});
    // Shrinking and removing are always possible, but not adding before that.
    store->byte_limit = 1000;
    EXPECT_EQ(write({set_item("/small", "1"), step(ItemKind::remove, "/big")}).statuses,
              (Statuses{api_status_too_many_bytes, api_status_not_done}));
    EXPECT_EQ(write({set_item("/big", std::string(1500, 'x'))}).statuses.front(), api_status_ok);
    EXPECT_EQ(write({step(ItemKind::remove, "/big")}).statuses.front(), api_status_ok);
    EXPECT_EQ(store->tree().extent().bytes, Tree().extent().bytes);
}

// Many changes in random order keep the tree balanced, sorted and counted.
TEST_F(StoreUnit, TheTreeAgreesWithASortedMap) {
    std::map<std::string, std::string, NameLess> expected;
    std::uint32_t random = 1;
    for (int i = 0; i < 5000; ++i) {
        random = random * 1664525 + 1013904223;
        const std::string name = std::to_string((random >> 8) % 700);
        if (i % 3 == 0 && expected.erase(name) > 0) {
            write({step(ItemKind::remove, "/" + name)});
        } else {
            write({set_item("/" + name, std::to_string(i))});
            expected[name] = std::to_string(i);
        }
    }
    Names sorted;
    for (const auto &[name, value] : expected) {
        sorted.push_back(name);
        EXPECT_EQ(text("/" + name), value);
    }
    EXPECT_EQ(names("/"), sorted);
    EXPECT_EQ(store->tree().extent().leaves, sorted.size());
    Extent counted;
    walk(store->tree(), "/", [&counted](const std::string &, const Element &element) {
        counted.add(*element.content);
        return true;
    });
    EXPECT_EQ(store->tree().extent().bytes, counted.bytes);
}

// They were once scattered among the memory of the transactions that made them.
TEST_F(StoreUnit, TheElementsOfTheTreeNeedFewPages) {
    constexpr int leaves = 5000;
    const auto write_all = [this](const std::string &text) {
        std::vector<Item> items;
        for (int i = 0; i < leaves; ++i) {
            items.push_back(set_item("/a/" + std::to_string(i), text));
        }
        ASSERT_EQ(write(items).statuses.front(), api_status_ok);
    };
    for (const char *text : {"1", "2", "3"}) {
        write_all(text);
    }
    constexpr std::size_t page = 4096;
    std::set<std::uintptr_t> pages;
    walk(store->tree(), "/a", [&pages](const std::string &, const Element &element) {
        pages.insert(reinterpret_cast<std::uintptr_t>(&element) / page);
        pages.insert(reinterpret_cast<std::uintptr_t>(element.content.get()) / page);
        return true;
    });
    constexpr std::size_t bytes = leaves * (sizeof(Element) + sizeof(Content) + 4 * sizeof(void *));
    EXPECT_LT(pages.size() * page, bytes * 11 / 10);
}
