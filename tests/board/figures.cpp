// What the daemon takes on the board: memory, and instructions. A report, not a test: it checks no
// limit.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <ctime>
#include <unistd.h>

#include <tav/mlr.h>

#include "client/admin.h"
#include "harness/world.h"

namespace {

constexpr int many = 100;
constexpr int repeated = 10;

std::string address_text(int number) {
    std::ostringstream address;
    address << "2001:db8::" << std::hex << number << "/64";
    return address.str();
}

// On this board a processor takes a nanosecond for each instruction, and a process's clock runs
// while it runs, also in the kernel.
double executed(pid_t process) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        throw std::runtime_error("no clock of a process");
    }
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

class Figures : public kt::KeptStoreTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
    }
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
    void report_memory(const char *when) {
        std::printf("memory of the daemon %s: %lu KiB resident, %lu KiB of it its own\n", when,
                    kib("VmRSS"), kib("RssAnon"));
    }
    // Since the last call, in thousands, for each of so many changes.
    void report_instructions(const char *what, int times) {
        const double ours = executed(daemon->pid());
        const double theirs = executed(service.tavd().pid());
        std::printf("thousand instructions, %s: daemon %.1f, service %.1f\n", what,
                    (ours - daemon_before) / 1000 / times,
                    (theirs - service_before) / 1000 / times);
        daemon_before = ours;
        service_before = theirs;
    }
    // Each change is carried out before the next one; waiting takes no time here.
    template <class Change>
    void report_changes(const char *what, Change change) {
        for (int i = 1; i <= repeated; ++i) {
            change(i);
            sleep(1);
        }
        report_instructions(what, repeated);
    }

    // An event without a change.
    void touch_address() const {
        setenv("TAV_SOCKET", service.socket().c_str(), 1);
        mlr_client_t *client = mlr_init();
        unsetenv("TAV_SOCKET");
        std::vector<api_status_t> statuses;
        tav::transact(client, {tav::Item{tav::ItemKind::touch, kt::paths::type_value(1, "1"), {}}},
                      statuses);
        mlr_close(client);
        ASSERT_EQ(statuses.at(0), api_status_ok);
    }

    double daemon_before = 0, service_before = 0;
};

TEST_F(Figures, Memory) {
    start_daemon_and_wait();
    report_memory("at rest");
    for (int i = 1; i <= many; ++i) {
        device.add_address("eth0", address_text(i));
    }
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == many + 1; }));
    ASSERT_TRUE(settle());
    report_memory("with 100 addresses");
}

TEST_F(Figures, Instructions) {
    const double before = executed(getpid());
    for (volatile int i = 0; i < 1000; ++i) {
    }
    std::printf("thousand instructions, a loop of 1,000 that shows the precision: %.1f\n",
                (executed(getpid()) - before) / 1000);
    sleep(1);
    service_before = executed(service.tavd().pid());
    start_daemon({"-d"});
    sleep(5);
    report_instructions("start, with what the system's loader does", 1);
    report_changes("an address appears in the kernel",
                   [&](int i) { device.add_address("eth0", address_text(i)); });
    report_changes("it disappears there",
                   [&](int i) { device.delete_address("eth0", address_text(i)); });
    report_changes("a Static address is stored",
                   [&](int i) { store.set_address(1, std::to_string(i), address_text(i)); });
    report_changes("it is removed from the store",
                   [&](int i) { store.remove_address(1, std::to_string(i)); });
    kt::Store::pairs_t leaves;
    for (int i = 1; i <= many; ++i) {
        leaves.emplace_back(kt::paths::address_value(1, std::to_string(i)), address_text(i));
        leaves.emplace_back(kt::paths::type_value(1, std::to_string(i)), "Static");
    }
    store.write(leaves);
    sleep(5);
    report_instructions("100 Static addresses are stored at once", 1);
    ASSERT_EQ(device.addresses("eth0").size(), many + 1U);
    report_changes("a synchronisation of 100 addresses", [&](int) { touch_address(); });
    const double reading = executed(getpid());
    ASSERT_EQ(store.addresses(1).size(), many + 1U);
    std::printf("thousand instructions, a client that reads these addresses: %.1f\n",
                (executed(getpid()) - reading) / 1000);
}

} // namespace
