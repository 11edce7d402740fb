// Every call of the netlink library and of the store that can fail, failing once in a whole run:
// the call's own log line, the run loop's message and reaction, and the final state.
#include <ostream>
#include <string>
#include <vector>

#include "fakes/fake_libnl.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "fakes/whole_daemon.h"

namespace {

constexpr int sent = 24; // a size that the netlink library could have sent

struct row_t {
    const char *name;
    bool in_synchronisation; // armed when the first one begins; otherwise at the start
    void (*arm)();
    const char *line;   // the log line of the call; "" when it has none
    const char *caught; // the run loop's log line
};

void PrintTo(const row_t &row, std::ostream *out) {
    *out << row.name;
}

fake_libnl::state_t &libnl() {
    return fake_libnl::state();
}

// Three changes of addresses come before the first one of a route.
void fail_fourth(fake_libnl::results_t &results, int success, int failure) {
    results.then(success).then(success).then(success).then(failure);
}

const row_t rows[] = {
    {"SocketAllocation", false, [] { libnl().failing_socket_allocs = 1; }, "", "Caught exception"},
    {"Connect", false, [] { libnl().connect.then(-1); }, "", "Caught exception: nl_connect"},
    {"Memberships", false, [] { libnl().add_memberships.then(-7); }, "",
     "Caught exception: nl_socket_add_memberships"},
    {"NonBlocking", false, [] { libnl().set_nonblocking.then(1); }, "",
     "Caught exception: nl_socket_set_nonblocking"},
    {"Descriptor", false, [] { libnl().get_fd.then(-1); }, "fd: nl_socket_get_fd(): -1",
     "Caught exception: nl_socket_get_fd"},
    {"LinkRequest", false, [] { libnl().send_simple.then(0); }, "request_links: nl_send(): 0",
     "Caught exception: nl_send_simple"},
    {"AddressRequest", false, [] { libnl().send_simple.then(sent).then(-5); },
     "request_addrs: nl_send(): -5", "Caught exception: nl_send_simple"},
    {"RouteRequest", false, [] { libnl().send_simple.then(sent).then(sent).then(-5); },
     "request_routes: nl_send(): -5", "Caught exception: nl_send_simple"},
    {"Receive", false, [] { fake_libnl::queue_recv_result(-5); }, "recv: nl_recv(): -5",
     "Caught exception: nl_recv"},
    {"AddressMessageAllocation", true, [] { libnl().failing_message_allocs = 1; },
     "Couldn't allocate nlmsg", "Caught exception: nlmsg_alloc_simple"},
    {"AddressMessageHeader", true, [] { libnl().append.then(-5); },
     "Can't append ifa to nl msg: -5", "Caught exception: nlmsg_append"},
    {"AddressMessageAttribute", true, [] { libnl().put.then(-5); }, "Failed to append IFA_ADDRESS",
     "Caught exception: NLA_PUT"},
    {"AddressMessageSend", true, [] { libnl().send_auto_complete.then(0); },
     "Failed to send ifa message: 0", "Caught exception: nl_send_auto_complete"},
    {"RouteMessageHeader", true, [] { fail_fourth(libnl().append, 0, -5); },
     "Can't append rtm to nl msg: -5", "Caught exception: nlmsg_append"},
    {"RouteMessageAttribute", true, [] { fail_fourth(libnl().put, 0, -5); },
     "Failed to append RTA attributes", "Caught exception: NLA_PUT"},
    {"RouteMessageSend", true, [] { fail_fourth(libnl().send_auto_complete, sent, -5); },
     "Failed to send rtm message: -5", "Caught exception: nl_send_auto_complete"},
    {"ListingOfInterfaces", true, [] { fake_tav::on_call("list_node", 1).returns(-1); }, "",
     "Caught exception"},
    {"ListingOfInterfacesRefused", true, [] { fake_tav::on_call("list_node", 1).statuses({5}); },
     "", "Caught exception"},
    {"ListingOfAddresses", true, [] { fake_tav::on_call("list_node", 2).returns(-1); }, "",
     "Caught exception"},
    {"GatewayRead", true, [] { fake_tav::on_call("get_leaf", 1).returns(7); }, "",
     "Caught exception"},
    {"AddressRead", true, [] { fake_tav::on_call("get_leaves", 1).returns(-1); }, "",
     "Caught exception"},
    {"NodeRemoval", true, [] { fake_tav::on_call("remove_node", 1).returns(-1); }, "",
     "Caught exception"},
    {"AddressWrite", true, [] { fake_tav::on_call("set_leaves", 1).returns(-1); }, "",
     "Caught exception"},
    {"GatewayWrite", true, [] { fake_tav::on_call("set_leaf", 1).returns(-1); }, "",
     "Caught exception"},
};

class FailureTable : public RebuildTest, public ::testing::WithParamInterface<row_t> {
protected:
    static void run(WholeDaemon &daemon, const char *verbosity_option) {
        verbosity = 0;
        if (GetParam().in_synchronisation) {
            at_first_synchronisation(daemon, GetParam().arm);
        } else {
            GetParam().arm();
        }
        const auto end = daemon.run({"-d", "-D", verbosity_option});
        EXPECT_EQ(end.how, "returned");
        EXPECT_EQ(end.status, 0);
    }
};

TEST_P(FailureTable, IsReportedAndTheNextEngineCorrectsEverything) {
    WholeDaemon daemon;
    run(daemon, "2");
    expect_one_rebuild_and_the_same_end(daemon, GetParam().caught);
    // The call's own line comes just before, and nothing else is an error.
    const std::string line = GetParam().line;
    std::vector<std::string> errors;
    if (!line.empty()) {
        errors.push_back("log 3 Error: " + line);
    }
    errors.push_back(std::string("log 3 Error: ") + GetParam().caught);
    EXPECT_EQ(journal::matching("log 3 "), errors);
}

TEST_P(FailureTable, HasItsOwnLineAtLevelOneAndTheRunLoopsAtLevelTwo) {
    WholeDaemon at_one;
    run(at_one, "1");
    EXPECT_EQ(journal::count("log 3 "), *GetParam().line == '\0' ? 0U : 1U);
    WholeDaemon at_zero;
    run(at_zero, "0");
    EXPECT_EQ(captured::log_texts(), (std::vector<std::string>{"Info: Starting tandrel daemon",
                                                               "Info: Exiting tandrel daemon"}));
}

INSTANTIATE_TEST_SUITE_P(All, FailureTable, ::testing::ValuesIn(rows),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
