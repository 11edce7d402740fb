// How much memory the daemon takes, in normal operation. A report, not a test: it checks no limit.
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

#include "harness/world.h"

namespace {

class Memory : public kt::KernelTest {
protected:
    // A line of /proc/<pid>/status, in KiB.
    unsigned long kib(const std::string &name) {
        std::istringstream lines(
            kt::read_file("/proc/" + std::to_string(daemon->pid()) + "/status"));
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(name + ":", 0) == 0) {
                return std::stoul(line.substr(name.size() + 1));
            }
        }
        throw std::runtime_error("no " + name);
    }
    void report(const char *when) {
        std::printf("memory of the daemon %s: %lu KiB resident, %lu KiB of it its own\n", when,
                    kib("VmRSS"), kib("RssAnon"));
    }
};

TEST_F(Memory, Report) {
    add_eth(0);
    service.start();
    store.make_interface(1);
    start_daemon_and_wait();
    report("at rest");
    for (int i = 1; i <= 100; ++i) {
        std::ostringstream address;
        address << "2001:db8::" << std::hex << i << "/64";
        device.add_address("eth0", address.str());
    }
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == 101; }));
    ASSERT_TRUE(settle());
    report("with 100 addresses");
}

} // namespace
