// A database that cannot be used: the service reports it, says what to do, and does not change the
// file.
#include "support/store_fixture.h"
#include "support/store_unit.h"

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;

void overwrite(const std::string &file, std::size_t offset, const std::string &bytes) {
    std::string content = read_file(file);
    ASSERT_GE(content.size(), offset + bytes.size());
    write_file(file, content.replace(offset, bytes.size(), bytes));
}

class DamageTest : public StoreTest {
protected:
    // A database of many pages, whose service has exited normally.
    void SetUp() override {
        start(on_disk);
        Client client;
        ASSERT_EQ(client.set_numbered("/n/", 2000, std::string(40, 'v')), api_status_ok);
        client.close();
        backup = tav({"dump"}).output;
        ASSERT_EQ(stop(), 0);
        ASSERT_FALSE(exists(database + "-wal"));
    }

    void expect_refused(const std::string &reason) {
        const std::string before = read_file(database);
        const std::string log_before = read_file(database + "-wal");
        const std::string errors = refused(on_disk);
        EXPECT_EQ(errors.find("tavd: database '" + database + "' "), 0U) << errors;
        EXPECT_TRUE(has(errors, reason));
        EXPECT_TRUE(has(errors, "load a dump into it (tav load)"));
        EXPECT_EQ(read_file(database), before) << "it was written to";
        EXPECT_EQ(read_file(database + "-wal"), log_before);
        EXPECT_FALSE(exists(socket));
    }

    const std::string database = dir.file("store.db");
    const Names on_disk{"--database", database};
    std::string backup;
};

struct Damage {
    const char *name;
    const char *reason; // of the refusal
    void (*cause)(const std::string &database);
};

class DamageOfTest : public DamageTest, public testing::WithParamInterface<Damage> {};

const Damage damages[] = {
    {"header_overwritten", "is damaged, or is not a database",
     [](auto &file) { overwrite(file, 0, std::string(16, 'x')); }},
    {"page_overwritten", "is damaged",
     [](auto &file) { overwrite(file, 40960, std::string(4096, '\xa5')); }},
    {"page_zero", "is damaged",
     [](auto &file) { overwrite(file, 40960, std::string(4096, '\0')); }},
    {"cut_to_half", "is damaged",
     [](auto &file) { std::filesystem::resize_file(file, read_file(file).size() / 2); }},
    {"cut_to_a_page", "is damaged", [](auto &file) { std::filesystem::resize_file(file, 4096); }},
    {"cut_to_100_bytes", "is damaged", [](auto &file) { std::filesystem::resize_file(file, 100); }},
    {"empty", "is empty", [](auto &file) { write_file(file, ""); }},
    {"no_database", "is damaged, or is not a database",
     [](auto &file) { write_file(file, std::string(5000, 'x')); }},
    {"of_another_program", "belongs to another program",
     [](auto &file) {
         std::filesystem::remove(file);
         sql(file, "CREATE TABLE theirs (x)");
     }},
    {"marked_by_another_program", "belongs to another program",
     [](auto &file) { sql(file, "PRAGMA application_id = 7"); }},
    {"of_a_newer_service", "was written by a newer tavd (format 5, this tavd reads 4)",
     [](auto &file) { sql(file, "PRAGMA user_version = 5"); }},
    {"of_no_format", "has an unknown format (0",
     [](auto &file) { sql(file, "PRAGMA user_version = 0"); }},
    {"schema_damaged", "malformed database schema",
     [](auto &file) {
         sql(file, "PRAGMA writable_schema = 1; UPDATE sqlite_schema SET sql = 'nonsense'");
     }},
    {"table_gone", "no such table: element",
     [](auto &file) { sql(file, "DROP TABLE element; CREATE TABLE other (x)"); }},
    {"bit_of_a_value_flipped", "is damaged: row ",
     [](auto &file) { overwrite(file, read_file(file).find("vvvvvvvv"), "w"); }},
    {"row_missing", "is damaged: it has 2000 of 2001 rows",
     [](auto &file) { sql(file, "DELETE FROM element WHERE path = CAST('/n/7' AS BLOB)"); }},
    {"node_missing_above_its_leaves", "is damaged: row ",
     [](auto &file) { sql(file, "DELETE FROM element WHERE path = CAST('/n' AS BLOB)"); }},
};

INSTANTIATE_TEST_SUITE_P(Kinds, DamageOfTest, testing::ValuesIn(damages),
                         [](const auto &tested) { return tested.param.name; });

} // namespace

TEST_P(DamageOfTest, IsNamedAndNothingIsChanged) {
    GetParam().cause(database);
    expect_refused(GetParam().reason);
}

TEST_F(DamageTest, TheLogIsNotAppliedToADamagedDatabase) {
    start(on_disk);
    leave_writes_in_the_log();
    ASSERT_GT(std::filesystem::file_size(database + "-wal"), 0U);
    overwrite(database, 40960, std::string(4096, '\xa5'));
    expect_refused("is damaged");
}

namespace {

// A service with three writes in the log was killed, and a bit of the first one was flipped.
class LogDamageTest : public DamageTest {
protected:
    void damage(const std::string &durability) {
        start({"--database", database, "--durability", durability});
        leave_writes_in_the_log();
        std::string content = read_file(log);
        const std::size_t at = content.find("first in the log");
        ASSERT_NE(at, std::string::npos);
        content[at] ^= 1;
        write_file(log, content);
    }

    const std::string log = database + "-wal";
};

} // namespace

TEST_F(LogDamageTest, IsRefusedIfAPowerCutCannotHaveCausedIt) {
    damage("full");
    expect_refused("is damaged: its log '" + log + "' has changes after the damage");
    EXPECT_TRUE(has(refused(on_disk), "tavd --repair --database '" + database + "'"));
}

TEST_F(LogDamageTest, IsLoggedIfAPowerCutMayHaveCausedIt) {
    damage("normal");
    // The service that wrote the log decides, not the one that reads it.
    start(on_disk);
    EXPECT_TRUE(
        tavd->wait_for_error_text("database '" + database + "': dropped the end of its log, "));
    EXPECT_EQ(Client().get("/n/1"), std::string(40, 'v'));
}

TEST_F(LogDamageTest, AfterAnotherDurabilityTheLogIsJudgedByTheNewOne) {
    start({"--database", database, "--durability", "normal"});
    EXPECT_EQ(stop(), 0);
    damage("full");
    expect_refused("is damaged: its log");
}

TEST_F(LogDamageTest, AnUnfinishedWriteAtItsEndIsLogged) {
    damage("full");
    std::string content = read_file(log);
    content.resize(content.size() / 3 + 100);
    write_file(log, content);
    start(on_disk);
    EXPECT_TRUE(tavd->wait_for_error_text("dropped the end of its log, "));
}

TEST_F(DamageTest, ALogWithoutItsDatabaseIsNotAppliedToAFreshOne) {
    start(on_disk);
    leave_writes_in_the_log();
    std::filesystem::remove(database);
    const std::string log = read_file(database + "-wal");
    EXPECT_TRUE(has(refused(on_disk), "is missing, but there is '" + database + "-wal'"));
    EXPECT_EQ(read_file(database + "-wal"), log);
    EXPECT_FALSE(exists(database));
}

TEST_F(DamageTest, TheSuggestedRemedyWorks) {
    write_file(database, "");
    expect_refused("is empty");
    start({"--database", dir.file("fresh.db")});
    EXPECT_EQ(tav({"load"}, backup).status, 0);
    EXPECT_EQ(tav({"dump"}).output, backup);
}

TEST_F(DamageTest, AnUnfinishedDatabaseOfAnEarlierStartIsReplaced) {
    const std::string fresh = dir.file("fresh.db");
    write_file(fresh + ".new", "half a da");
    write_file(fresh + ".new-journal", "x");
    start({"--database", fresh});
    EXPECT_EQ(tav({"tree"}).output, "/\n");
    EXPECT_FALSE(exists(fresh + ".new"));
}

TEST_F(DamageTest, AMissingDirectoryIsMadeForTheServiceAndItsGroupAlone) {
    start({"--database", dir.file("a/b/fresh.db")});
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("a/b").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0750U);
    ASSERT_EQ(::stat(dir.file("a").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0755U);
    ASSERT_EQ(::stat(dir.file("run").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0750U);
    ASSERT_EQ(::stat(dir.file("a/b/fresh.db").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0640U);
}

TEST_F(DamageTest, ADirectoryThatCannotBeMadeIsNamed) {
    const std::string inside = database + "/fresh.db";
    EXPECT_EQ(refused({"--database", inside}),
              "tavd: database '" + inside + "': '" + database + "' is not a directory\n");
    EXPECT_EQ(refused({"--memory", "--socket", database + "/s"}),
              "tavd: socket '" + database + "/s': '" + database + "' is not a directory\n");
}

TEST_F(DamageTest, ADirectoryThatOthersCanWriteToIsRefused) {
    // Also a sticky one, and through a symbolic link.
    for (const mode_t mode : {mode_t{0775}, mode_t{0757}, mode_t{01777}}) {
        ::mkdir(dir.file("open").c_str(), 0755);
        ::chmod(dir.file("open").c_str(), mode);
        std::filesystem::rename(database, dir.file("open/store.db"));
        std::filesystem::create_symlink(dir.file("open/store.db"), database);
        for (const std::string &name :
             {dir.file("open/store.db"), dir.file("open/new.db"), database}) {
            EXPECT_EQ(refused({"--database", name}),
                      "tavd: database '" + name + "': others can create files in directory '" +
                          dir.file("open") +
                          "': use a directory that only the service uses, or chmod go-w '" +
                          dir.file("open") + "'\n");
        }
        std::filesystem::rename(dir.file("open/store.db"), database);
        EXPECT_TRUE(std::filesystem::is_empty(dir.file("open")));
    }
    start(on_disk);
}

TEST_F(DamageTest, ADirectoryOfAnotherUserIsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "no right to give a directory away";
    }
    ::mkdir(dir.file("theirs").c_str(), 0755);
    ASSERT_EQ(::chown(dir.file("theirs").c_str(), 1, 1), 0);
    EXPECT_TRUE(
        has(refused({"--database", dir.file("theirs/store.db")}), "belongs to another user"));
}

TEST_F(DamageTest, ADirectoryIsNoDatabase) {
    ::mkdir(dir.file("d").c_str(), 0755);
    EXPECT_EQ(refused({"--database", dir.file("d")}),
              "tavd: database '" + dir.file("d") + "' is not a regular file\n");
}

TEST_F(DamageTest, AReadOnlyFileSystemIsNamed) {
    if (run(dir, {"/usr/bin/unshare", "-rm", "true"}).status != 0) {
        GTEST_SKIP() << "no right to make a mount namespace";
    }
    ::mkdir(dir.file("d").c_str(), 0755);
    std::filesystem::rename(database, dir.file("d/store.db"));
    prefix = {"/usr/bin/unshare",
              "-rm",
              "/bin/sh",
              "-c",
              R"(mount --bind "$0" "$0" && mount -o remount,bind,ro "$0" && exec "$@")",
              dir.file("d")};
    const Ran ran = run(dir, tavd_arguments({"--database", dir.file("d/store.db")}));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors.find("tavd: database '" + dir.file("d/store.db") + "'"), 0U);
    EXPECT_TRUE(has(ran.errors, "ead-only"));
}
