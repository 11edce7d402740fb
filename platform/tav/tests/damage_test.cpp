// A database that cannot be used: the service reports it, says what to do, and does not change the
// file.
#include "support/store_fixture.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;

void sql(const std::string &file, const std::string &text) {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
}

class DamageTest : public StoreTest {
protected:
    // A database of many pages, whose service has exited normally.
    void SetUp() override {
        start(on_disk);
        Names paths;
        for (int i = 0; i < 2000; ++i) {
            paths.push_back("/n/" + std::to_string(i));
        }
        Client client;
        ASSERT_EQ(client.set_all(paths, Names(paths.size(), std::string(40, 'v'))).front(),
                  api_status_ok);
        client.close();
        backup = tav({"dump"}).output;
        ASSERT_EQ(stop(), 0);
        ASSERT_FALSE(exists(database + "-wal"));
    }

    Ran refused() { return run(dir, tavd_arguments(on_disk)); }

    void expect_refused(const std::string &reason) {
        const std::string before = read_file(database);
        const std::string log_before = read_file(database + "-wal");
        const Ran ran = refused();
        EXPECT_EQ(ran.status, 1);
        EXPECT_EQ(ran.errors.find("tavd: database '" + database + "' "), 0U) << ran.errors;
        EXPECT_NE(ran.errors.find(reason), std::string::npos) << ran.errors;
        EXPECT_NE(ran.errors.find("load a dump into it (tav load)"), std::string::npos);
        EXPECT_EQ(read_file(database), before) << "it was written to";
        EXPECT_EQ(read_file(database + "-wal"), log_before);
        EXPECT_FALSE(exists(socket));
    }
    void overwrite(std::size_t offset, const std::string &bytes) {
        std::string content = read_file(database);
        ASSERT_GE(content.size(), offset + bytes.size());
        write_file(database, content.replace(offset, bytes.size(), bytes));
    }

    const std::string database = dir.file("store.db");
    const Names on_disk{"--database", database};
    std::string backup;
};

} // namespace

TEST_F(DamageTest, ItsHeaderIsOverwritten) {
    overwrite(0, std::string(16, 'x'));
    expect_refused("is damaged, or no database");
}

TEST_F(DamageTest, APageInTheMiddleIsOverwritten) {
    overwrite(std::size_t{4096} * 10, std::string(4096, '\xa5'));
    expect_refused("is damaged");
}

TEST_F(DamageTest, APageInTheMiddleIsZero) {
    overwrite(std::size_t{4096} * 10, std::string(4096, '\0'));
    expect_refused("is damaged");
}

TEST_F(DamageTest, ItIsCutShort) {
    const std::string whole = read_file(database);
    for (const std::size_t left : {whole.size() / 2, std::size_t{4096}, std::size_t{100}}) {
        write_file(database, whole.substr(0, left));
        expect_refused("is damaged");
    }
}

TEST_F(DamageTest, NothingIsLeftOfIt) {
    write_file(database, "");
    expect_refused("is empty");
}

TEST_F(DamageTest, ItIsNoDatabase) {
    write_file(database, std::string(5000, 'x'));
    expect_refused("is damaged, or no database");
}

TEST_F(DamageTest, ItIsAnotherProgramsDatabase) {
    std::filesystem::remove(database);
    sql(database, "CREATE TABLE theirs (x)");
    expect_refused("belongs to another program");
    sql(database, "PRAGMA application_id = 7");
    expect_refused("belongs to another program");
}

TEST_F(DamageTest, ANewerServiceWroteIt) {
    sql(database, "PRAGMA user_version = 5");
    expect_refused("was written by a newer tavd (format 5, this tavd reads 4)");
}

TEST_F(DamageTest, ItHasAFormatThatNeverWas) {
    sql(database, "PRAGMA user_version = 0");
    expect_refused("has an unknown format (0");
}

TEST_F(DamageTest, ItsSchemaIsDamaged) {
    sql(database, "PRAGMA writable_schema = 1; UPDATE sqlite_schema SET sql = 'nonsense'");
    expect_refused("malformed database schema");
}

TEST_F(DamageTest, ItsTableIsGone) {
    sql(database, "DROP TABLE element; CREATE TABLE other (x)");
    expect_refused("no such table: element");
}

TEST_F(DamageTest, ABitOfAValueIsFlipped) {
    const std::size_t value = read_file(database).find("vvvvvvvv");
    ASSERT_NE(value, std::string::npos);
    overwrite(value, "w");
    expect_refused("is damaged: row ");
}

TEST_F(DamageTest, ARowIsMissing) {
    sql(database, "DELETE FROM element WHERE path = CAST('/n/7' AS BLOB)");
    expect_refused("is damaged: it has 2000 of 2001 rows");
}

TEST_F(DamageTest, ANodeIsMissingAboveItsLeaves) {
    sql(database, "DELETE FROM element WHERE path = CAST('/n' AS BLOB)");
    expect_refused("is damaged: row ");
}

TEST_F(DamageTest, TheLogIsNotAppliedToADamagedDatabase) {
    start(on_disk);
    Client client;
    client.set("/n/1", "only in the log");
    client.close();
    tavd->signal(SIGKILL);
    tavd->wait();
    std::filesystem::remove(socket);
    ASSERT_GT(std::filesystem::file_size(database + "-wal"), 0U);
    overwrite(std::size_t{4096} * 10, std::string(4096, '\xa5'));
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
    EXPECT_NE(refused().errors.find("tavd --repair --database '" + database + "'"),
              std::string::npos);
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
    Client client;
    client.set("/n/1", "only in the log");
    client.close();
    tavd->signal(SIGKILL);
    tavd->wait();
    std::filesystem::remove(database);
    const std::string log = read_file(database + "-wal");
    const Ran ran = refused();
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.errors.find("is missing, but there is '" + database + "-wal'"), std::string::npos)
        << ran.errors;
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
    const Ran ran = run(dir, tavd_arguments({"--database", inside}));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors,
              "tavd: database '" + inside + "': '" + database + "' is not a directory\n");
    const Ran at = run(dir, tavd_arguments({"--memory", "--socket", database + "/s"}));
    EXPECT_EQ(at.status, 1);
    EXPECT_EQ(at.errors,
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
            const Ran ran = run(dir, tavd_arguments({"--database", name}));
            EXPECT_EQ(ran.status, 1);
            EXPECT_EQ(ran.errors,
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
    const Ran ran = run(dir, tavd_arguments({"--database", dir.file("theirs/store.db")}));
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.errors.find("belongs to another user"), std::string::npos) << ran.errors;
}

TEST_F(DamageTest, ADirectoryIsNoDatabase) {
    ::mkdir(dir.file("d").c_str(), 0755);
    const Ran ran = run(dir, tavd_arguments({"--database", dir.file("d")}));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "tavd: database '" + dir.file("d") + "' is not a regular file\n");
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
    EXPECT_NE(ran.errors.find("ead-only"), std::string::npos) << ran.errors;
}
