// Memory that runs out during a synchronisation, and a store's library that throws then: the daemon
// rebuilds everything, and nothing remains half done.
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <syslog.h>

#include "fakes/fake_memory.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "fakes/whole_daemon.h"

namespace {

using strings = std::vector<std::string>;

class OutOfMemory : public RebuildTest {};

TEST_F(OutOfMemory, AnUndisturbedRunChangesBothSides) {
    EXPECT_EQ(kernel_then, (strings{"3 2001:db8::5/64", "3 2001:db8::6/48", "3 fe80::1/64",
                                    "3 via fe80::9", "4 2001:db8:2::1/64", "4 2001:db8:2::5/64",
                                    "4 fe80::2/64", "4 via fe80::22"}));
    EXPECT_EQ(store_then, (strings{"1 1 2001:db8::5/64 Static", "1 4 fe80::1/64 Link-Local",
                                   "1 broken nonsense Static", "1 office 2001:db8::6/48 Static",
                                   "1 via fe80::9", "2 * 2001:db8:2::1/64 Automatic",
                                   "2 * fe80::2/64 Link-Local", "2 1 2001:db8:2::5/64 Static",
                                   "2 via fe80::22", "3 1 2001:db8:3::5/64 Static"}));
}

TEST_F(OutOfMemory, AtEachAllocationOfASynchronisationLeadsToANewEngineThatCorrectsEverything) {
    std::size_t allocations = 0;
    for (bool struck = true; struck && !HasFailure(); ++allocations) {
        WholeDaemon daemon;
        at_first_synchronisation(daemon, [n = allocations + 1] { fake_memory::fail(n); });
        struck = false;
        daemon.when_idle = [&struck, end = daemon.when_idle] {
            struck = fake_memory::stop();
            end();
        };
        EXPECT_EQ(daemon.run().status, 0);
        if (struck) {
            SCOPED_TRACE("allocation " + std::to_string(allocations + 1));
            expect_one_rebuild_and_the_same_end(daemon);
        }
    }
    EXPECT_GT(allocations, 100U);
}

// Another provider's library may throw, and this one when memory runs out inside it.
TEST_F(OutOfMemory, InTheStoresLibraryLeadsToANewEngineThatCorrectsEverything) {
    for (const char *operation :
         {"list_node", "get_leaf", "get_leaves", "set_leaf", "set_leaves", "remove_node"}) {
        const std::string name = operation;
        std::size_t calls = 0;
        for (bool struck = true; struck && !HasFailure(); ++calls) {
            WholeDaemon daemon;
            struck = false;
            at_first_synchronisation(daemon, [&, n = static_cast<unsigned>(calls + 1)] {
                fake_tav::on_call(name, n).runs([&struck] {
                    struck = true;
                    throw std::bad_alloc();
                });
            });
            bool idle_before_it = false;
            daemon.when_idle = [&, end = daemon.when_idle] {
                idle_before_it = !struck;
                end();
            };
            EXPECT_EQ(daemon.run().status, 0);
            if (idle_before_it) {
                struck = false;
            }
            if (struck) {
                SCOPED_TRACE(name + " " + std::to_string(calls + 1));
                expect_one_rebuild_and_the_same_end(daemon);
            }
        }
        EXPECT_GT(calls, 1U) << name;
    }
}

// An exception that is not a std::exception ends the process; the connections are released first.
TEST_F(OutOfMemory, AnythingElseThatIsThrownInASynchronisationLeavesTheDaemonAfterTheRelease) {
    WholeDaemon daemon;
    at_first_synchronisation(daemon,
                             [] { fake_tav::on_call("set_leaves", 1).runs([] { throw 42; }); });
    EXPECT_THROW(daemon.run(), int);
    EXPECT_EQ(WholeDaemon::unreleased(), 0);
    EXPECT_LT(journal::find("nl_socket_free()"), journal::find("mlr_close()"));
    EXPECT_EQ(journal::count("select(10)"), 0U);
    EXPECT_EQ(journal::count("log 3 "), 0U);
}

} // namespace
