// tavd --repair keeps what can be read, says what it dropped, and keeps the damaged file, too.
#include "support/store_fixture.h"

#include <csignal>
#include <filesystem>
#include <fstream>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;

class RepairTest : public StoreTest {
protected:
    // A database of 2,001 elements; three writes are in its log only.
    void SetUp() override {
        start(on_disk);
        ASSERT_EQ(Client().set_numbered("/n/", 2000, "value "), api_status_ok);
        ASSERT_EQ(stop(), 0);
        start(on_disk);
        leave_writes_in_the_log();
    }

    // The message of a repair, which must succeed.
    std::string repaired() {
        const Ran ran = repair();
        EXPECT_EQ(ran.status, 0) << ran.errors;
        return ran.output;
    }
    Ran repair() { return run(dir, tavd_arguments({"--repair", "--database", database})); }
    void expect_refused_start() {
        EXPECT_TRUE(has(refused(on_disk), "tavd --repair --database '" + database + "'"));
    }
    static void flip(const std::string &file, std::size_t at) {
        std::string content = read_file(file);
        ASSERT_LT(at, content.size());
        content[at] ^= 1;
        write_file(file, content);
    }

    const std::string database = dir.file("store.db");
    const std::string log = database + "-wal";
    const Names on_disk{"--database", database};
};

} // namespace

TEST_F(RepairTest, WritesBeforeTheDamageInTheLogAreKept) {
    flip(log, read_file(log).find("second"));
    const std::string damaged = read_file(log);
    expect_refused_start();
    EXPECT_TRUE(has(repaired(), "'" + database + "': kept 1 write of its log, dropped"));
    EXPECT_EQ(read_file(log + ".damaged"), damaged);
    start(on_disk);
    EXPECT_EQ(Client().get("/n/1"), "first in the log");
    EXPECT_EQ(Client().list("/n").size(), 2000U);
}

TEST_F(RepairTest, ALogWithoutAValidHeaderIsDropped) {
    flip(log, 17);
    expect_refused_start();
    repaired();
    start(on_disk);
    EXPECT_EQ(Client().get("/n/1"), "value ");
}

TEST_F(RepairTest, OneDamagedRowIsDropped) {
    flip(database, read_file(database).find("value ") + 5);
    const std::string damaged = read_file(database);
    const std::string damaged_log = read_file(log);
    expect_refused_start();
    EXPECT_EQ(repaired(), "'" + database +
                              "': kept 2000 of 2001 elements and 4 of 4 entries of the history, "
                              "dropped 1 damaged row and what "
                              "cannot be read. The damaged database is '" +
                              database + ".damaged'.\n");
    EXPECT_EQ(read_file(database + ".damaged"), damaged);
    EXPECT_EQ(read_file(database + ".damaged-wal"), damaged_log);
    start(on_disk);
    EXPECT_EQ(Client().get("/n/1"), "third");
    EXPECT_EQ(Client().list("/n").size(), 1999U);
}

TEST_F(RepairTest, OneDamagedEntryOfTheHistoryIsDropped) {
    flip(database, read_file(database).rfind("value ") + 5);
    expect_refused_start();
    EXPECT_TRUE(has(repaired(), "'" + database +
                                    "': kept 2001 of 2001 elements and 3 of 4 entries "
                                    "of the history, dropped 1 damaged row and"));
    start(on_disk);
    EXPECT_EQ(Client().get("/n/1"), "third");
    EXPECT_EQ(tav({"history", "--since", "2"}).errors, "");
    EXPECT_NE(tav({"history", "--since", "0"}).errors, "");
}

TEST_F(RepairTest, TheRowsOnBothSidesOfADamagedPageAreKept) {
    std::string content = read_file(database);
    content.replace(content.find("/n/1500") / 1024 * 1024, 1024, std::string(1024, '\xa5'));
    write_file(database, content);
    expect_refused_start();
    repaired();
    start(on_disk);
    const std::size_t left = Client().list("/n").size();
    EXPECT_LT(left, 2000U);
    EXPECT_GT(left, 1900U);
    EXPECT_EQ(Client().get("/n/1"), "third");
    EXPECT_EQ(Client().get("/n/999"), "value ");
}

TEST_F(RepairTest, AnInterruptedRepairCanBeRepeated) {
    flip(database, read_file(database).find("value ") + 5);
    std::filesystem::create_hard_link(database, database + ".damaged");
    std::filesystem::rename(log, database + ".damaged-wal");
    repaired();
    start(on_disk);
    EXPECT_EQ(Client().get("/n/1"), "third");
}

TEST_F(RepairTest, AnEarlierDamagedDatabaseIsNotOverwritten) {
    flip(database, read_file(database).find("value ") + 5);
    write_file(database + ".damaged", "earlier");
    const std::string before = read_file(database);
    const Ran ran = repair();
    EXPECT_EQ(ran.status, 1);
    EXPECT_TRUE(has(ran.errors, "there is already '" + database + ".damaged'"));
    EXPECT_EQ(read_file(database), before);
    EXPECT_EQ(read_file(database + ".damaged"), "earlier");
}

TEST_F(RepairTest, NothingIsChangedWithoutDamageOrWithoutAnythingToKeep) {
    const std::string content = read_file(database);
    EXPECT_EQ(repaired(), "'" + database + "' is not damaged, and was not changed.\n");
    EXPECT_EQ(read_file(database), content);
    std::filesystem::remove(log);
    write_file(database, std::string(5000, 'x'));
    EXPECT_EQ(repair().status, 1);
    EXPECT_EQ(read_file(database), std::string(5000, 'x'));
    EXPECT_FALSE(exists(database + ".damaged"));
}

TEST_F(RepairTest, ADatabaseInUseIsNotRepaired) {
    start(on_disk);
    const Ran ran = repair();
    EXPECT_EQ(ran.status, 1);
    EXPECT_TRUE(has(ran.errors, "is in use by another process"));
}
