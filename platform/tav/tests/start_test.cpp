// Starting on an existing database, and the very first start.
#include "support/store_fixture.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;

class StartTest : public StoreTest {
protected:
    // A figure of the running service's memory in KiB: "VmRSS" or "VmHWM", the largest so far.
    long memory(const std::string &name) {
        std::istringstream lines(read_file("/proc/" + std::to_string(tavd->pid()) + "/status"));
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, name.size() + 1, name + ":") == 0) {
                return std::stol(line.substr(name.size() + 1));
            }
        }
        ADD_FAILURE() << "no " << name;
        return 0;
    }

    // The service's first start with the given fault of its disk; false if it failed.
    bool first_start(const std::string &fault) {
        std::filesystem::remove_all(dir.file("db"));
        std::filesystem::remove_all(dir.file("run"));
        std::ofstream(plan) << fault;
        prefix = preloading(TAV_DISK_PRELOAD, {"TAV_DISK_FAULT=" + plan});
        Process first(dir, "first", tavd_arguments(fresh));
        const bool serves = first.wait_for_error_text("serving on ");
        first.signal(SIGKILL);
        first.wait();
        std::filesystem::remove(plan);
        std::filesystem::remove_all(dir.file("run"));
        return serves;
    }

    const std::string plan = dir.file("plan");
    const std::string database = dir.file("db/store.db");
    const Names on_disk{"--database", database};
    const Names fresh{"--database", database, "--initial-node", "/a b/c"};
};

} // namespace

TEST_F(StartTest, ItNeedsNoMoreMemoryThanRunning) {
    start(on_disk);
    Client client;
    for (int call = 0; call < 600; ++call) {
        ASSERT_EQ(
            client.set_numbered("/n/" + std::to_string(call) + "/leaf ", 100, std::string(40, 'v')),
            api_status_ok);
    }
    client.close();
    const long running = memory("VmRSS");
    tavd->signal(SIGKILL);
    tavd->wait();
    start(on_disk);
    EXPECT_LT(memory("VmHWM"), running * 12 / 10);
}

TEST_F(StartTest, TheFirstStartMakesTheInitialNodesWhereverItIsKilled) {
    bool served = false;
    int syncs = 0;
    while (!served && syncs < 100) {
        served = first_start("kill " + std::to_string(++syncs));
        start(fresh);
        EXPECT_EQ(Client().list("/a b"), Names{"c"}) << "killed at sync " << syncs;
        tavd->signal(SIGKILL);
        tavd->wait();
    }
    EXPECT_TRUE(served);
    EXPECT_GT(syncs, 3);
}

TEST_F(StartTest, TheFirstStartFailsOrMakesTheInitialNodesWhateverSyncFails) {
    for (int sync = 1; sync < 30; ++sync) {
        first_start("once " + std::to_string(sync));
        start(fresh);
        EXPECT_EQ(Client().list("/a b"), Names{"c"}) << "failed at sync " << sync;
        tavd->signal(SIGKILL);
        tavd->wait();
    }
}
