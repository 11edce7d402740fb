// The history of the store: what is kept, for how long, and who made it.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <random>

#include "client/admin.h"
#include "support/store_fixture.h"
#include "support/store_unit.h"
#include "tool/undo.h"

using namespace tav;
using tavtest::has;
using tavtest::set_item;
using tavtest::sql;
using tavtest::step;

namespace {

using Lines = std::vector<std::string>;

const Author operator_author{1000, 42, "tav", false};
const Author service_author{0, 7, "daemon", true};

class HistoryTest : public ::testing::Test {
protected:
    void open(std::size_t transactions = 1000, Durability durability = Durability::normal) {
        store.reset();
        store = std::make_unique<Store>(file, durability);
        store->keep_history(HistoryBounds{transactions});
    }
    std::vector<api_status_t> write(const std::vector<Item> &items,
                                    const Author &author = operator_author) {
        return store->transact(items, tavtest::nothing_unseen, 0, {}, author);
    }
    std::vector<HistoryEntry> entries() const { return tavtest::entries(*store); }
    std::vector<std::uint64_t> numbers() const {
        std::vector<std::uint64_t> all;
        for (const HistoryEntry &entry : entries()) {
            all.push_back(entry.number);
        }
        return all;
    }
    static std::string shown(bool exists, const Value &value) {
        return exists ? tavtest::shown(value) : "none";
    }
    Lines changes(std::size_t entry) const {
        Lines lines;
        const HistoryEntry of = entries().at(entry);
        for (const ChangedElement &change : of.changes) {
            lines.push_back(change.path + " " + shown(change.existed, change.before) + " -> " +
                            shown(change.exists, change.after));
        }
        return lines;
    }
    std::string picture() const { return tavtest::picture(store->tree()); }
    std::int64_t sql_number(const std::string &text) {
        store.reset();
        return std::atoll(sql(file, text).c_str());
    }

    tavtest::TempDir dir;
    const std::string file = dir.file("store.db");
    std::unique_ptr<Store> store;
};

} // namespace

TEST_F(HistoryTest, AnEntryHasEveryChangeAndItsAuthor) {
    open();
    const auto before = static_cast<std::int64_t>(std::time(nullptr));
    write({set_item("/a/b", "1"), set_item("/c", "2")});
    write({set_item("/a/b", "3"), step(ItemKind::remove, "/c"), step(ItemKind::touch, "/a")},
          service_author);
    for (int start = 0; start < 2; ++start) {
        ASSERT_EQ(numbers(), (std::vector<std::uint64_t>{1, 2}));
        EXPECT_EQ(changes(0),
                  (Lines{"/a none -> 2:@-1", "/a/b none -> 6:1@77", "/c none -> 6:2@77"}));
        EXPECT_EQ(changes(1), (Lines{"/c 6:2@77 -> none", "/a/b 6:1@77 -> 6:3@77"}));
        const HistoryEntry first = entries().front();
        EXPECT_GE(first.time, before);
        EXPECT_LE(first.time, before + 60);
        EXPECT_EQ(first.uid, 1000U);
        EXPECT_EQ(first.pid, 42U);
        EXPECT_EQ(first.program, "tav");
        EXPECT_FALSE(first.service);
        EXPECT_EQ(first.elements, 3U);
        EXPECT_EQ(entries().back().program, "daemon");
        EXPECT_TRUE(entries().back().service);
        EXPECT_EQ(store->history().oldest(), 1U);
        EXPECT_EQ(store->history().last(), 2U);
        open();
    }
}

TEST_F(HistoryTest, WhatChangesNothingOrIsRefusedHasNoEntry) {
    open();
    write({set_item("/a", "1")});
    write({set_item("/a", "1")});
    write({step(ItemKind::touch, "/a")});
    write({set_item("/b", "1"), step(ItemKind::remove, "/none")});
    EXPECT_EQ(numbers(), std::vector<std::uint64_t>{1});
}

TEST_F(HistoryTest, OperatorsAndServicesHaveBoundsOfTheirOwn) {
    open(3);
    write({set_item("/a", "0")});
    for (int i = 0; i < 200; ++i) {
        write({set_item("/b", std::to_string(i))}, service_author);
    }
    EXPECT_EQ(numbers(), (std::vector<std::uint64_t>{1, 199, 200, 201}));
    EXPECT_EQ(store->history().oldest(), 199U);
    for (int i = 0; i < 200; ++i) {
        write({set_item("/a", "x" + std::to_string(i))});
    }
    EXPECT_EQ(numbers(), (std::vector<std::uint64_t>{199, 200, 201, 399, 400, 401}));
    EXPECT_EQ(store->history().oldest(), 399U);
    open(3);
    EXPECT_EQ(numbers(), (std::vector<std::uint64_t>{199, 200, 201, 399, 400, 401}));
    EXPECT_EQ(store->history().oldest(), 399U);
    EXPECT_EQ(sql_number("SELECT count(*) FROM history"), 6);
}

TEST_F(HistoryTest, TheTableStaysSmallOverManyWrites) {
    open(100);
    for (int i = 0; i < 3000; ++i) {
        write({set_item("/a/" + std::to_string(i % 10), std::to_string(i))},
              i % 2 == 0 ? operator_author : service_author);
    }
    EXPECT_LE(sql_number("SELECT count(*) FROM history"), 2 * (100 + 64 + 1));
    EXPECT_LE(sql_number("SELECT page_count FROM pragma_page_count"), 150);
}

TEST_F(HistoryTest, TheBytesAreLimited) {
    open();
    for (int i = 0; i < 60; ++i) {
        write({set_item("/a", std::to_string(i) + std::string(60000, 'x'))});
    }
    std::size_t bytes = 0;
    for (RecordPtr record = store->history().next(0); record;
         record = store->history().next(record->number)) {
        bytes += record->entry.size();
    }
    EXPECT_LE(bytes, limits::history_bytes);
    EXPECT_GE(bytes, limits::history_bytes / 4 * 3);
    EXPECT_EQ(store->history().last(), 60U);
    EXPECT_LE(sql_number("SELECT sum(length(entry)) FROM history"),
              static_cast<std::int64_t>(limits::history_bytes + (200U << 10U)));
}

TEST_F(HistoryTest, ATransactionBeyondTheBoundHasNoValues) {
    open();
    write({set_item("/small", "1")});
    std::vector<Item> items;
    for (int i = 0; i < 20; ++i) {
        items.push_back(set_item("/n/" + std::to_string(i), std::string(60000, 'x')));
    }
    write(items);
    ASSERT_EQ(numbers(), (std::vector<std::uint64_t>{1, 2}));
    EXPECT_EQ(entries().back().elements, 21U);
    EXPECT_TRUE(entries().back().changes.empty());
    open();
    EXPECT_EQ(numbers(), (std::vector<std::uint64_t>{1, 2}));
}

TEST_F(HistoryTest, NumbersIncreaseForEver) {
    open();
    write({set_item("/a", "1")});
    write({set_item("/a", "2")});
    open(0);
    EXPECT_FALSE(store->history().on());
    write({set_item("/a", "3")});
    EXPECT_EQ(numbers(), std::vector<std::uint64_t>{});
    open();
    write({set_item("/a", "4")});
    // One number is unused, so that the missing change is noticed.
    EXPECT_EQ(numbers(), std::vector<std::uint64_t>{4});
    EXPECT_EQ(store->history().oldest(), 4U);
    EXPECT_EQ(changes(0), Lines{"/a 6:3@77 -> 6:4@77"});
}

TEST_F(HistoryTest, ALowerBoundHoldsFromTheStart) {
    open();
    for (int i = 0; i < 20; ++i) {
        write({set_item("/a", std::to_string(i))});
    }
    open(5);
    EXPECT_EQ(numbers(), (std::vector<std::uint64_t>{16, 17, 18, 19, 20}));
    EXPECT_EQ(sql_number("SELECT count(*) FROM history"), 5);
}

TEST_F(HistoryTest, DamageIsNoticed) {
    for (const char *damage : {"UPDATE history SET entry = x'00' WHERE number = 1",
                               "DELETE FROM history WHERE number = 1",
                               "UPDATE history SET number = 7 WHERE number = 1"}) {
        store.reset();
        std::filesystem::remove(file);
        std::filesystem::remove(file + "-wal");
        open(1000, Durability::full);
        write({set_item("/a", "1")});
        write({set_item("/a", "2")});
        sql_number(damage);
        EXPECT_THROW(open(1000, Durability::full), DamagedDatabase) << damage;
    }
}

namespace {

// Anything that a transaction may do, on few paths, so that nodes and leaves replace each other.
std::vector<Item> random_items(std::mt19937 &random) {
    const auto path = [&random] {
        std::string all;
        for (auto names = random() % 3 + 1; names > 0; --names) {
            all += "/" + std::to_string(random() % 3);
        }
        return all;
    };
    const ItemKind kinds[] = {ItemKind::set,   ItemKind::set,    ItemKind::set,
                              ItemKind::clear, ItemKind::remove, ItemKind::make_node};
    std::vector<Item> items;
    for (auto i = random() % 4 + 1; i > 0; --i) {
        const ItemKind kind = kinds[random() % 6];
        const auto time = static_cast<std::int64_t>(random() % 5);
        items.push_back({kind, path(), {element_type_string, std::to_string(random() % 5), time}});
    }
    return items;
}

} // namespace

TEST_F(HistoryTest, UndoingEachOfManyTransactionsGivesWhatWasBefore) {
    store = std::make_unique<Store>();
    store->keep_history(HistoryBounds{3});
    std::mt19937 random(1);
    int undone = 0;
    while (undone < 10000 && !HasFailure()) {
        const std::string before = picture();
        const std::uint64_t last = store->history().last();
        write(random_items(random));
        if (store->history().last() == last) {
            continue; // it was refused, or changed nothing
        }
        ++undone;
        const std::string after = picture();
        for (const std::string &expected : {before, after}) { // and undo that
            for (const api_status_t status : write(tool::steps_to_undo(entries().back()))) {
                ASSERT_EQ(status, api_status_ok) << before << after;
            }
            ASSERT_EQ(picture(), expected);
        }
    }
}

TEST_F(HistoryTest, UndoingIsRefusedOnceAnElementHasChanged) {
    store = std::make_unique<Store>();
    store->keep_history(HistoryBounds{10});
    write({set_item("/a/b", "1"), set_item("/c", "1")});
    const std::vector<Item> undo = tool::steps_to_undo(entries().back());
    write({set_item("/a/more", "1")});
    EXPECT_EQ(write(undo).back(), api_status_not_empty);
    write({step(ItemKind::remove, "/a/more"), set_item("/c", "2")});
    EXPECT_EQ(write(undo).at(2), api_status_changed);
    write({Item{ItemKind::set, "/c", Value{element_type_string, "1", 78}}});
    EXPECT_EQ(write(undo).at(2), api_status_changed) << "of another time";
    write({set_item("/c", "1")});
    EXPECT_EQ(write(undo).front(), api_status_ok);
    EXPECT_EQ(picture(), "/=2:@-1\n");
}

namespace {

class HistoryOfTheService : public tavtest::StoreTest {
protected:
    tav::History read(tavtest::Client &client, const std::string &path = "/",
                      std::uint64_t since = 0) {
        History history;
        api_status_t status = api_status_none;
        EXPECT_EQ(tav::history(client.tav.handle, path, since, status, history), 0);
        EXPECT_EQ(status, api_status_ok);
        return history;
    }
    static std::vector<std::uint64_t> numbers(const History &history) {
        std::vector<std::uint64_t> all;
        for (const HistoryEntry &entry : history.entries) {
            all.push_back(entry.number);
        }
        return all;
    }
    using Numbers = std::vector<std::uint64_t>;
};

} // namespace

TEST_F(HistoryOfTheService, OnlyWhatConcernsThePathIsListed) {
    start();
    tavtest::Client client;
    client.set("/a/b", "1");
    client.set("/ab", "2");
    client.set_all({"/c", "/a/d"}, {"3", "4"});
    EXPECT_EQ(numbers(read(client, "/a")), (Numbers{1, 3}));
    EXPECT_EQ(numbers(read(client, "/a/b")), Numbers{1});
    EXPECT_EQ(numbers(read(client, "/none")), Numbers{});
    EXPECT_EQ(read(client, "/none").last, 3U);
    EXPECT_EQ(numbers(read(client, "/", 1)), (Numbers{2, 3}));
    EXPECT_EQ(numbers(read(client, "/", 3)), Numbers{});
}

TEST_F(HistoryOfTheService, ALongAnswerComesInParts) {
    start();
    tavtest::Client client;
    for (int i = 0; i < 30; ++i) {
        client.set("/a", std::to_string(i) + std::string(30000, 'x'));
    }
    const History history = read(client);
    EXPECT_EQ(history.last, 30U);
    EXPECT_EQ(history.oldest, history.entries.front().number);
    EXPECT_EQ(history.entries.back().changes.at(0).after.text.substr(0, 3), "29x");
}

TEST_F(HistoryOfTheService, WhatCannotBeAnsweredHasAStatus) {
    start();
    tavtest::Client client;
    History history;
    api_status_t status = api_status_none;
    EXPECT_EQ(tav::history(client.tav.handle, "a", 0, status, history), 0);
    EXPECT_EQ(status, api_status_bad_path);
    EXPECT_EQ(tav::history(client.tav.handle, std::string(5000, '/'), 0, status, history), 0);
    EXPECT_EQ(status, api_status_path_too_long);
    EXPECT_EQ(state_program(client.tav.handle, "", status), 0);
    EXPECT_EQ(status, api_status_bad_value);
    EXPECT_EQ(state_program(client.tav.handle, std::string(65, 'x'), status), 0);
    EXPECT_EQ(status, api_status_name_too_long);
    stop();
    start({"--memory", "--history", "0"});
    tavtest::Client other;
    EXPECT_EQ(tav::history(other.tav.handle, "/", 0, status, history), 0);
    EXPECT_EQ(status, api_status_refused);
    stop();
    EXPECT_LT(tav::history(other.tav.handle, "/", 0, status, history), 0);
    EXPECT_LT(state_program(other.tav.handle, "x", status), 0);
}

TEST_F(HistoryOfTheService, ItSurvivesTheDeathOfTheService) {
    const std::vector<std::string> on_disk{"--database", dir.file("store.db"), "--history", "5"};
    start(on_disk);
    tavtest::Client().set("/n/0", "0");
    leave_writes_in_the_log();
    start(on_disk);
    tavtest::Client client;
    EXPECT_EQ(numbers(read(client)), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(read(client, "/", 3).entries.at(0).changes.at(0).before.text, "second");
}

TEST_F(HistoryOfTheService, ANumberOfTransactionsIsAWholeNumber) {
    for (const char *number : {"-1", "x", "", "1k", "99999999999999999999"}) {
        EXPECT_TRUE(
            has(refused({"--memory", "--history", number}, 2), "is not a number of transactions"));
    }
}
