// The start of a kernel test: a device's network namespace with Ethernet links whose other ends are
// in a neighbour's, the settings store, and the daemon in between.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/process.h"
#include "harness/router.h"
#include "harness/rtnl.h"
#include "harness/sandbox.h"
#include "harness/store.h"

namespace kt {

class KernelTest : public ::testing::Test {
protected:
    explicit KernelTest(Service::Keep keep = Service::Keep::memory);
    // Ends the daemon and the service normally; each must exit with status 0, and the daemon must
    // not have rebuilt its engine unless the test permits it.
    void TearDown() override;

    // Adds eth<number>, up, with peer<number> in the neighbour's namespace, up. `prefix` replaces
    // "eth".
    void add_eth(int number, const std::string &prefix = "eth");
    std::string index_of(const std::string &link);

    // The daemon in the foreground at verbosity 4, unless `arguments` say otherwise.
    Process &start_daemon(const std::vector<std::string> &arguments = {"-d", "-D", "4"},
                          const spawn_options_t &options = {});
    // The same, and waits until its first synchronisation is done; throws if that does not happen.
    Process &start_daemon_and_wait(const std::vector<std::string> &arguments = {"-d", "-D", "4"},
                                   const spawn_options_t &options = {});
    // SIGTERM; the exit status.
    int stop_daemon();
    LineLog &log() { return daemon->errors(); }

    // Waits until the daemon, in normal operation at verbosity 3 or more, has handled everything
    // that the store and the kernel reported before this call, and its consequences. False if that
    // does not happen.
    bool settle();

    // Stops the daemon while the function changes store and kernel, so that it finds both changes
    // at once and serves the store first.
    void meanwhile(const std::function<void()> &changes);

    // Waits for a line of the daemon's standard error.
    testing::AssertionResult logged(const std::string &whole_line, std::size_t from = 0);
    testing::AssertionResult logged_part(const std::string &part, std::size_t from = 0);
    // Polls a condition.
    static testing::AssertionResult becomes(const std::function<bool()> &condition);

    // Store and kernel, for eth<interface - 1>: a condition to poll.
    bool both_have(int interface, const std::string &address);
    bool neither_has(int interface, const std::string &address);
    // Waits until this is the link's only static default gateway.
    testing::AssertionResult gateway_becomes(const std::string &gateway,
                                             const std::string &link = "eth0");
    // Both directions still work: an address in the store and another in the kernel, both of
    // interface 1, arrive on the other side.
    void expect_working();

    Sandbox sandbox;
    Kernel device;
    Kernel neighbour;
    Service service;
    Store store;
    std::unique_ptr<Process> daemon;
    bool rebuilds_allowed = false;

private:
    enum class Seen;
    Seen see(const std::string &line, std::size_t from);
    Seen see_kernel_mark(std::size_t from);
    int marks = 0;
};

// The same with a service that keeps its tree in a database.
class KeptStoreTest : public KernelTest {
protected:
    KeptStoreTest() : KernelTest(Service::Keep::database) {}
};

// A link announcement without a kernel object.
std::vector<unsigned char> forged_link(const std::string &name, std::uint16_t type = 16);

} // namespace kt
