// The service on a failing disk: a refused write is never stored, the existing content stays
// readable, and when the disk works again, so does the service.
#include "support/store_fixture.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;
using Statuses = std::vector<api_status_t>;

struct Fault {
    const char *call;
    int error;
};

class FailingDiskTest : public StoreTest, public testing::WithParamInterface<Fault> {
protected:
    FailingDiskTest() { prefix = preloading(TAV_DISK_PRELOAD, {"TAV_DISK_FAULT=" + plan}); }
    void SetUp() override {
        start(on_disk);
        client = std::make_unique<Client>();
        EXPECT_EQ(client->set_all({"/kept/a", "/kept/b"}, {"1", "1"}), Statuses(2, api_status_ok));
    }

    void fail() {
        const std::string unfinished = plan + ".new";
        std::ofstream(unfinished) << GetParam().call << ' ' << GetParam().error;
        std::rename(unfinished.c_str(), plan.c_str());
    }
    void recover() { std::remove(plan.c_str()); }

    void expect_refused() {
        EXPECT_EQ(client->set_all({"/kept/a", "/new/a"}, {"2", "2"}),
                  Statuses(2, api_status_failed));
        EXPECT_EQ(client->remove("/kept"), api_status_failed);
        expect_unchanged();
    }
    void expect_unchanged() {
        EXPECT_EQ(client->get("/kept/a"), "1");
        EXPECT_EQ(client->get("/kept/b"), "1");
        EXPECT_EQ(client->list("/"), (Names{"kept"}));
    }
    void restart_after_kill() {
        client.reset();
        tavd->signal(SIGKILL);
        tavd->wait();
        start(on_disk);
        client = std::make_unique<Client>();
    }

    const std::string plan = dir.file("plan");
    const Names on_disk{"--database", dir.file("db/store.db")};
    std::unique_ptr<Client> client;
};

INSTANTIATE_TEST_SUITE_P(Faults, FailingDiskTest,
                         testing::Values(Fault{"write", ENOSPC}, Fault{"write", EIO},
                                         Fault{"write", EROFS}, Fault{"sync", EIO},
                                         Fault{"sync", ENOSPC}),
                         [](const auto &tested) {
                             return std::string(tested.param.call) +
                                    std::to_string(tested.param.error);
                         });

} // namespace

TEST_P(FailingDiskTest, AWriteIsRefusedWithAStatusAndReadsGoOn) {
    Client watcher;
    watcher.watch("/");
    watcher.settle();
    fail();
    expect_refused();
    EXPECT_EQ(watcher.fetch(), Names{});
    EXPECT_TRUE(tavd->wait_for_error_text("cannot store a change: database '" +
                                          dir.file("db/store.db") + "'"));
}

TEST_P(FailingDiskTest, WhenTheDiskWorksAgainWritesAreAccepted) {
    fail();
    for (int i = 0; i < 3; ++i) {
        expect_refused();
    }
    recover();
    EXPECT_EQ(client->set_all({"/kept/a", "/later/a"}, {"3", "3"}), Statuses(2, api_status_ok));
    restart_after_kill();
    EXPECT_EQ(client->get("/kept/a"), "3");
    EXPECT_EQ(client->get("/kept/b"), "1");
    EXPECT_EQ(client->list("/"), (Names{"kept", "later"}));
}

TEST_P(FailingDiskTest, ARefusedWriteIsNotStoredAfterAKillEither) {
    fail();
    expect_refused();
    // The disk keeps failing until the service is dead.
    client.reset();
    tavd->signal(SIGKILL);
    tavd->wait();
    recover();
    start(on_disk);
    client = std::make_unique<Client>();
    expect_unchanged();
}

TEST_P(FailingDiskTest, ItCanBeStoppedAndStartedAgain) {
    fail();
    expect_refused();
    client.reset();
    EXPECT_EQ(stop(), 0);
    recover();
    start(on_disk);
    client = std::make_unique<Client>();
    expect_unchanged();
    EXPECT_EQ(client->set("/kept/a", "4"), api_status_ok);
}

namespace {

// A file system of half a megabyte that only the service sees; the test reads it through the
// service's root directory.
class FullDiskTest : public StoreTest {
protected:
    void SetUp() override {
        if (run(dir, {"/usr/bin/unshare", "-rm", "true"}).status != 0) {
            GTEST_SKIP() << "no right to make a mount namespace";
        }
        prefix = {"/usr/bin/unshare", "-rmpf", "--kill-child", "/bin/sh", "-c",
                  // A second service may follow the first.
                  R"(mkdir "$0" && mount -t tmpfs -o size=512k,mode=755 none "$0"; "$@"; "$@")",
                  mounted};
        start({"--database", mounted + "/store.db"});
    }
    static std::string child_of(const std::string &parent) {
        const std::string pid = std::to_string(std::stoi(parent));
        return read_file("/proc/" + pid + "/task/" + pid + "/children");
    }
    std::string seen_from_here(const std::string &name) const {
        return "/proc/" + std::to_string(tavd->pid()) + "/root" + mounted + "/" + name;
    }
    // Kills the service; the next one finds the same disk.
    void kill_and_restart() {
        const std::string shell = child_of(std::to_string(tavd->pid()));
        ASSERT_EQ(::kill(std::stoi(child_of(shell)), SIGKILL), 0);
        const auto served_twice = [this] {
            const std::string log = tavd->errors();
            return log.find("serving on") != log.rfind("serving on");
        };
        while (!served_twice() && tavd->running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_TRUE(served_twice()) << tavd->errors();
    }
    // Writes values until not even a small one has room.
    static void fill(Client &client) {
        static int number = 0;
        for (const std::size_t size : {60000U, 3000U, 100U}) {
            int stored = 0;
            while (stored < 5000 && client.set("/n/" + std::to_string(number) + "/v",
                                               std::string(size, 'v')) == api_status_ok) {
                ++number;
                ++stored;
            }
            ASSERT_LT(stored, 5000);
        }
    }

    const std::string mounted = dir.file("small");
};

} // namespace

TEST_F(FullDiskTest, WritesAreRefusedUntilThereIsRoom) {
    std::ofstream(seen_from_here("ballast")) << std::string(std::size_t{200} << 10, 'x');
    Client client;
    const auto big = [&client](int number) {
        return client.set("/n/" + std::to_string(number), std::string(60000, 'v'));
    };
    int stored = 0;
    while (stored < 100 && big(stored) == api_status_ok) {
        ++stored;
    }
    ASSERT_LT(stored, 100);
    EXPECT_EQ(big(stored), api_status_failed);
    EXPECT_EQ(client.list("/n").size(), static_cast<std::size_t>(stored));
    EXPECT_TRUE(tavd->wait_for_error_text("disk is full"));
    ASSERT_EQ(std::remove(seen_from_here("ballast").c_str()), 0);
    EXPECT_EQ(big(stored), api_status_ok);
    EXPECT_EQ(client.list("/n").size(), static_cast<std::size_t>(stored) + 1);
    EXPECT_EQ(client.get("/n/0"), std::string(60000, 'v'));
}

TEST_F(FullDiskTest, WhatTheStoreFilledCanBeEmptied) {
    auto client = std::make_unique<Client>();
    fill(*client);
    const std::size_t full = client->list("/n").size();
    ASSERT_GT(full, 5U);
    for (const char *path : {"/n/0", "/n/1"}) {
        EXPECT_EQ(client->remove(path), api_status_ok);
    }
    EXPECT_EQ(client->set("/n/again", "1"), api_status_ok);
    fill(*client);
    client->close();
    kill_and_restart();
    client = std::make_unique<Client>();
    EXPECT_EQ(client->remove("/n/2"), api_status_ok) << tavd->errors();
    fill(*client);
    EXPECT_EQ(client->remove("/n"), api_status_ok);
    EXPECT_EQ(client->list("/"), Names{});
    EXPECT_EQ(client->set("/a", std::string(3000, 'v')), api_status_ok);
}

TEST_F(FullDiskTest, WhatWasReservedForTheStoreIsEnoughToEmptyIt) {
    // Another program takes all that is left.
    const auto fill_rest = [this] {
        std::ofstream ballast(seen_from_here("ballast"), std::ios::app);
        while (ballast << std::string(1024, 'x') << std::flush) {
        }
    };
    auto client = std::make_unique<Client>();
    EXPECT_EQ(client->set_numbered("/n/small/", 400, std::string(100, 'v')), api_status_ok);
    EXPECT_EQ(client->set("/n/big/v", std::string(60000, 'v')), api_status_ok);
    fill_rest();
    EXPECT_EQ(client->remove("/n/big"), api_status_ok);
    client->close();
    kill_and_restart();
    fill_rest();
    client = std::make_unique<Client>();
    EXPECT_EQ(client->set("/n/small/1", "x"), api_status_ok);
    EXPECT_EQ(client->remove("/n"), api_status_ok);
    EXPECT_EQ(client->list("/"), Names{});
}

namespace {

struct Loss {
    const char *name;
    const char *file;
    const char *logged;
    void (*cause)(const std::string &);
};

void remove_file(const std::string &file) {
    std::filesystem::remove(file);
}
void replace_file(const std::string &file) {
    std::filesystem::copy_file(file, file + ".copy");
    std::filesystem::rename(file + ".copy", file);
}
void cut_file(const std::string &file) {
    std::filesystem::resize_file(file, 1);
}

class LostFileTest : public StoreTest, public testing::WithParamInterface<Loss> {};

INSTANTIATE_TEST_SUITE_P(
    Losses, LostFileTest,
    testing::Values(Loss{"database_removed", "store.db", "cannot be found any more", remove_file},
                    Loss{"log_removed", "store.db-wal", "cannot be found any more", remove_file},
                    Loss{"database_replaced", "store.db", "was replaced", replace_file},
                    Loss{"log_replaced", "store.db-wal", "was replaced", replace_file},
                    Loss{"database_cut", "store.db", "was cut short", cut_file},
                    Loss{"log_cut", "store.db-wal", "was cut short", cut_file}),
    [](const auto &tested) { return tested.param.name; });

} // namespace

TEST_P(LostFileTest, IsNoticedAtTheNextWriteAndNotChanged) {
    start({"--database", dir.file("store.db")});
    Client client;
    EXPECT_EQ(client.set("/a", "1"), api_status_ok);
    const std::string file = dir.file(GetParam().file);
    GetParam().cause(file);
    const std::string left = read_file(file);
    EXPECT_EQ(client.set("/a", "2"), api_status_failed);
    EXPECT_TRUE(tavd->wait_for_error_text("'" + file + "' " + GetParam().logged));
    EXPECT_EQ(client.get("/a"), "1");
    client.close();
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(read_file(file), left);
}

TEST_F(StoreTest, AFileThatIsPutBackIsUsedAgain) {
    const std::string file = dir.file("store.db");
    start({"--database", file});
    Client client;
    EXPECT_EQ(client.set("/a", "1"), api_status_ok);
    std::filesystem::rename(file, file + ".away");
    EXPECT_EQ(client.set("/a", "2"), api_status_failed);
    std::filesystem::rename(file + ".away", file);
    EXPECT_EQ(client.set("/a", "3"), api_status_ok);
    client.close();
    EXPECT_EQ(stop(), 0);
    start({"--database", file});
    EXPECT_EQ(Client().get("/a"), "3");
}

namespace {

class DurabilityTest : public StoreTest {
protected:
    DurabilityTest() { prefix = preloading(TAV_DISK_PRELOAD, {"TAV_DISK_FAULT=" + plan}); }
    // The result of a write when nothing can be synced.
    api_status_t write_without_sync(const Names &options) {
        Names all{"--database", dir.file("store.db")};
        all.insert(all.end(), options.begin(), options.end());
        start(all);
        Client client;
        EXPECT_EQ(client.set("/a", "before"), api_status_ok);
        std::ofstream(plan) << "sync 5";
        const api_status_t status = client.set("/a", "after");
        std::remove(plan.c_str());
        return status;
    }
    std::string shown() { return tav({"status"}).output; }

    const std::string plan = dir.file("plan");
};

} // namespace

TEST_F(DurabilityTest, FullIsTheDefaultAndSyncsEachWrite) {
    EXPECT_EQ(write_without_sync({}), api_status_failed);
    EXPECT_TRUE(has(shown(), "durability full"));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(write_without_sync({"--durability=full"}), api_status_failed);
}

TEST_F(DurabilityTest, NormalDoesNotWaitForTheDisk) {
    EXPECT_EQ(write_without_sync({"--durability", "normal"}), api_status_ok);
    EXPECT_TRUE(has(shown(), "durability normal"));
}
