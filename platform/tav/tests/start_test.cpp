// Starting on an existing database, and the very first start.
#include "support/store_fixture.h"

#include <csignal>
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

    const std::string database = dir.file("db/store.db");
    const Names on_disk{"--database", database};
};

} // namespace

TEST_F(StartTest, ItNeedsNoMoreMemoryThanRunning) {
    start(on_disk);
    Client client;
    for (int call = 0; call < 600; ++call) {
        Names paths;
        for (int leaf = 0; leaf < 100; ++leaf) {
            paths.push_back("/n/" + std::to_string(call) + "/leaf " + std::to_string(leaf));
        }
        ASSERT_EQ(client.set_all(paths, Names(paths.size(), std::string(40, 'v'))).front(),
                  api_status_ok);
    }
    client.close();
    const long running = memory("VmRSS");
    tavd->signal(SIGKILL);
    tavd->wait();
    start(on_disk);
    EXPECT_LT(memory("VmHWM"), running * 12 / 10);
}
