// An engine over the fake netlink library and the fake store, with its actions as one readable
// record.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <netinet/in.h>

#include <tav/toolkit.h>

#include "fakes/fake_libnl.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "netlink/channel.h"
#include "sync/sync.h"

using strings = std::vector<std::string>;

// The engine with public access to everything that a test calls or examines.
struct Engine : CSync {
    using CSync::CSync;

    using CSync::discover;
    using CSync::handle_netlink;
    using CSync::handle_tav_update;

    using CSync::add_link;
    using CSync::erase_link;
    using CSync::nl_link_update;

    using CSync::add_kern_addr;
    using CSync::add_kern_route;
    using CSync::nl_addr_update;
    using CSync::nl_route_update;
    using CSync::remove_kern_addr_from_tav;
    using CSync::remove_kern_route_from_tav;

    using CSync::read_all_tav_ipv6_settings;
    using CSync::read_tav_ipv6_addr;
    using CSync::read_tav_ipv6_addrs;
    using CSync::read_tav_ipv6_gateway;
    using CSync::read_tav_ipv6_interface;

    using CSync::remove_tav_ipv6_addr;
    using CSync::remove_tav_ipv6_gateway;
    using CSync::write_kern_route_to_tav;
    using CSync::write_tav_ipv6_addr;
    using CSync::write_tav_ipv6_gateway;

    using CSync::sync_all;
    using CSync::sync_kernel_with_tav;
    using CSync::sync_tav_with_kernel;

    using CSync::dumps;

    using CSync::if_prefix;
    using CSync::interfaces;
    using CSync::state;
};

// The node of the interfaces, and a path below it: at("1/IPv6") and so on.
extern const char *const interfaces_node;
tk_string at(const tk_string &rest);

// What the engine did, in order, from the journal:
//   - each log line as "<priority> <text with prefix>", "6 Info: ..." for instance;
//   - each call of the store as in the journal (see fake_tav.h);
//   - each message to the kernel: "kernel: add 2001:db8::5/64 dev 3", "kernel: delete ...",
//     "kernel: add ::/0 via fe80::1 dev 3", "kernel: dump links" (addrs, routes);
// with "~" for the path of the interfaces' node. Other calls of the netlink library are omitted.
strings record();
// The record without the log lines.
strings effects();
// The effects without reads of the store.
strings changes();
// The texts of the log lines alone, without prefix.
strings lines();

class EngineTest : public DaemonTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Replaces the engine by a new one, with an empty record. The store's tree is kept.
    void restart(const tk_string &prefix = "eth");
    // A new engine in normal operation that tracks the link eth0 (index 3); `number`, if not 0, is
    // its store interface.
    void restart_with_eth0(std::int32_t number = 0);
    // Clears the journal, logs, sent messages and recorded store calls.
    void forget();
    // One full synchronisation; the record then contains nothing else.
    void synchronise();
    Engine &engine() { return *the_engine; }

    // Links as the kernel announces them, without log lines or records: "eth0" with index 3, ...
    void track(std::int32_t ifindex, const tk_string &name);
    // The same, with store interface `number`.
    void track(std::int32_t ifindex, const tk_string &name, std::int32_t number);
    ifcfg_t &entry(std::int32_t ifindex);

    // Appends addresses to the table's entry of a link.
    void know(std::int32_t ifindex, const std::string &text, int prefix_len, std::int32_t type,
              const tk_string &node);
    void know(std::int32_t ifindex, const strings &addresses); // as table() returns them
    void know_gateway(std::int32_t ifindex, const std::string &gateway);
    // The addresses of a link in the table: "<address>/<length> <type text> <node>", in order.
    strings table(std::int32_t ifindex);
    // The gateway of a link in the table, "" if it has none.
    std::string gateway(std::int32_t ifindex);

    // Puts an address (or the gateway) into the store under interface `number`.
    static void store(int number, const tk_string &node, const tk_string &address,
                      const tk_string &type);
    static void store(int number, const strings &addresses); // written as in table()
    // Interface `number` with nothing below it.
    static void store_empty(int number);
    // The nodes with addresses that interface `number` has in the store, written as in table().
    static strings stored(int number);
    static void store_gateway(int number, const tk_string &gateway);

    // Queues a datagram and lets the engine handle it.
    void receive(const fake_libnl::bytes_t &datagram);

    toolkit::CTav tav;

private:
    std::unique_ptr<CNetlink> channel;
    std::unique_ptr<Engine> the_engine;
};

// Kernel records.
CKernAddress kern_addr(std::int32_t ifindex, const std::string &text, int prefix_len,
                       int scope = 0);
CKernRoute kern_route(std::int32_t ifindex, const std::string &gateway, int protocol = 4,
                      const std::string &dst = "::", int dst_len = 0);
CKernInterface kern_link(std::int32_t ifindex, const tk_string &name,
                         const tk_string &hwaddr = "02:00:00:00:00:01");

// The record's entry for an address written to interface 1 of the store.
std::string address_write(const std::string &node, const std::string &address,
                          const std::string &type);

// Text of an address, made without the code under test.
std::string text_of(const in6_addr &address);

// The text of the Error that `action` throws. Fails the test if it throws nothing or another type.
template <typename Error, typename Action>
std::string thrown(const Action &action) {
    try {
        action();
    } catch (const Error &error) {
        return error.what();
    } catch (const std::exception &error) {
        ADD_FAILURE() << "another kind of exception: " << error.what();
        return "(another kind)";
    }
    ADD_FAILURE() << "nothing was thrown";
    return "(nothing)";
}
