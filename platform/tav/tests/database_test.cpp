// The store on disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "service/database.h"
#include "support/process.h"
#include "support/store_unit.h"

using namespace tav;
using namespace tavtest;

namespace {

class DatabaseTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string file = dir.file("store.db");
};

} // namespace

TEST_F(DatabaseTest, ItIsInWalMode) {
    const Store store(file);
    EXPECT_TRUE(exists(file + "-wal"));
}

TEST_F(DatabaseTest, AChangedValueIsRefusedAlsoIfRowsAreNotCounted) {
    {
        Store store(file, Durability::normal);
        store.transact({set_item("/a", "old")}, nothing_unseen);
    }
    { const Store store(file, Durability::normal); }
    sql(file, "UPDATE element SET text = x'6f6c65'");
    EXPECT_THROW(Store store(file, Durability::normal), DatabaseError);
}

TEST_F(DatabaseTest, RowsAreCountedAgainAfterAServiceThatDidNot) {
    { const Store store(file); }
    {
        Store store(file, Durability::normal);
        store.transact({set_item("/a", "1"), set_item("/b", "2")}, nothing_unseen);
    }
    { const Store store(file); }
    sql(file, "DELETE FROM element WHERE path = x'2f61'");
    EXPECT_THROW(Store store(file), DatabaseError);
}

namespace {

// What the first version created, with one leaf.
constexpr char tables_of_first_format[] =
    "PRAGMA page_size = 1024; PRAGMA journal_mode = WAL; PRAGMA application_id = 0x74617664;"
    "PRAGMA user_version = 1;"
    "CREATE TABLE element (path BLOB PRIMARY KEY, type INTEGER NOT NULL, text BLOB NOT NULL,"
    " time INTEGER NOT NULL) WITHOUT ROWID;"
    "INSERT INTO element VALUES (x'2f6e', 2, x'', -1), (x'2f6e2f61', 6, x'6f6c64', 77)";

} // namespace

TEST_F(DatabaseTest, TheFirstFormatIsMigrated) {
    sql(file, tables_of_first_format);
    for (int start = 0; start < 2; ++start) {
        const Store store(file);
        EXPECT_EQ(picture(store.tree()), "/=2:@-1\n/n=2:@-1\n/n/a=6:old@77\n");
    }
    sql(file, "UPDATE element SET text = x'6f6c65' WHERE path = x'2f6e2f61'");
    EXPECT_THROW(Store store(file), DatabaseError);
}

TEST_F(DatabaseTest, TheSecondFormatIsMigratedAndKeepsItsDurability) {
    for (const auto &[durability, number] :
         {std::pair(Durability::full, 2), std::pair(Durability::normal, 0x10002)}) {
        std::filesystem::remove(file);
        { Store store(file, durability, {"/n"}); }
        sql(file, "DROP TABLE history; DROP TABLE total;"
                  "CREATE TABLE total (rows INTEGER NOT NULL, checksums INTEGER NOT NULL);"
                  "INSERT INTO total SELECT 1, checksum FROM element;"
                  "PRAGMA user_version = " +
                      std::to_string(number));
        for (int start = 0; start < 2; ++start) {
            Store store(file, durability);
            EXPECT_EQ(picture(store.tree()),
                      start == 0 ? "/=2:@-1\n/n=2:@-1\n" : "/=2:@-1\n/n=2:@-1\n/n/a=6:1@77\n");
            store.keep_history(HistoryBounds{10});
            EXPECT_EQ(store.history().last(), start == 0 ? 0U : 1U);
            store.transact({set_item("/n/a", "1")}, nothing_unseen);
        }
    }
}

TEST_F(DatabaseTest, TheThirdFormatIsMigratedWithItsHistory) {
    for (const auto &[durability, number] :
         {std::pair(Durability::full, 3), std::pair(Durability::normal, 0x10003)}) {
        std::filesystem::remove(file);
        {
            Store store(file, durability, {"/n"});
            store.keep_history(HistoryBounds{10});
            store.transact({set_item("/n/a", "1")}, nothing_unseen);
        }
        sql(file, "PRAGMA user_version = " + std::to_string(number));
        for (int start = 0; start < 2; ++start) {
            Store store(file, durability);
            store.keep_history(HistoryBounds{10});
            EXPECT_EQ(picture(store.tree()), "/=2:@-1\n/n=2:@-1\n/n/a=6:1@77\n");
            EXPECT_EQ(store.history().last(), 1U);
        }
        const std::string header = read_file(file).substr(60, 4);
        EXPECT_EQ(header.back(), 4) << "a service that knows no terms must refuse it";
        EXPECT_EQ(header[1], durability == Durability::normal ? 1 : 0);
    }
}

TEST_F(DatabaseTest, ADamagedDatabaseOfTheFirstFormatIsRefusedAndNotChanged) {
    sql(file, tables_of_first_format);
    sql(file, "INSERT INTO element VALUES (x'6e6f736c617368', 6, x'31', 0)");
    const std::string content = read_file(file);
    EXPECT_THROW(Store store(file), DatabaseError);
    EXPECT_EQ(read_file(file), content);
}

TEST_F(DatabaseTest, AFailedCommitLeavesMemoryAndFileAsTheyWere) {
    std::string before;
    {
        Store store(file);
        store.transact({set_item("/a", "old")}, nothing_unseen);
        before = picture(store.tree());
    }
    // From now on the second of two rows is refused by the database itself.
    sql(file, "CREATE TRIGGER refuse BEFORE INSERT ON element WHEN new.path = x'2f7a' "
              "BEGIN SELECT RAISE(ABORT, 'no'); END");
    {
        Store store(file);
        const std::vector<api_status_t> statuses =
            store.transact({set_item("/a", "new"), set_item("/z", "1")}, nothing_unseen);
        EXPECT_EQ(statuses, (std::vector<api_status_t>{api_status_failed, api_status_failed}));
        EXPECT_EQ(picture(store.tree()), before);
        // The service goes on.
        EXPECT_EQ(store.transact({set_item("/b", "1")}, nothing_unseen).front(), api_status_ok);
        EXPECT_EQ(store.transact({Item{ItemKind::remove, "/b", {}}}, nothing_unseen).front(),
                  api_status_ok);
    }
    const Store store(file);
    EXPECT_EQ(picture(store.tree()), before);
}

TEST_F(DatabaseTest, ALongLogIsEmptiedByACommitThatMayTakeLong) {
    Tree tree;
    Database database(file, Durability::normal, {}, tree);
    const auto value =
        std::make_shared<const Value>(Value{element_type_string, std::string(60000, 'v'), no_time});
    int commits = 0;
    for (; commits < 100 && !database.is_slow(Edit::Changes(1)); ++commits) {
        EXPECT_TRUE(database.commit({Change{"/" + std::to_string(commits), nullptr, value}}));
    }
    EXPECT_GE(commits, 10);
    EXPECT_LT(commits, 30);
    const auto before = std::filesystem::file_size(file);
    EXPECT_TRUE(database.commit({Change{"/last", nullptr, value}}));
    EXPECT_GT(std::filesystem::file_size(file), before + 500000);
    EXPECT_FALSE(database.is_slow(Edit::Changes(64)));
    EXPECT_TRUE(database.is_slow(Edit::Changes(65)));
    // Few changes with many bytes were once stored while everybody waited.
    EXPECT_FALSE(database.is_slow(Edit::Changes(4, Change{"/a", nullptr, value})));
    EXPECT_TRUE(database.is_slow(Edit::Changes(5, Change{"/a", nullptr, value})));
    EXPECT_TRUE(database.is_slow(Edit::Changes(3, Change{"/a", value, value})));
}
