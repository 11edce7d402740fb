// The engine: keeps the kernel's and the store's view of the IPv6 configuration in agreement.
//
// The store wins for Static addresses and for the default gateway, the kernel wins for Link-Local
// and Automatic addresses, and a stored address of another type that the kernel does not have is
// removed from the store. If one stored address or gateway is faulty, the fault is logged and the
// item skipped; every other failure is thrown (netlink_err, sync_err, sync_minor_err,
// sync_addr_err, std::bad_alloc). After an exception, destroy the engine and build a new one.
#pragma once

#include <cstddef>
#include <vector>

#include <boost/optional.hpp>

#include <tav/toolkit.h>

#include "netlink/channel.h"
#include "netlink/wire.h"
#include "sync/dump_watch.h"
#include "sync/model.h"

class CSync {
public:
    // The caller owns `tav_client` and `channel`; both must outlive the engine. Only kernel links
    // whose name begins with `interface_prefix` are tracked.
    CSync(toolkit::CTav *tav_client, CNetlink *channel, tk_string interface_prefix);
    CSync(const CSync &) = delete;
    CSync &operator=(const CSync &) = delete;

    // Discovers, then serves events until a termination signal asks for the end; returns 1 then.
    int run();

    // Address texts. in6addr_to_str appends "/" and the prefix length when asked to. str_to_addr
    // accepts a prefix length of 1..128 and leaves 0 when there is none and none is required. Both
    // throw sync_addr_err.
    static tk_string in6addr_to_str(const in6_addr &addr, unsigned char prefix_len,
                                    bool with_prefix);
    static CAddress str_to_addr(const tk_string &text, bool prefix_required);

protected:
    // --- shell/event_loop.cpp
    // Waits for the three descriptors and serves one of them. Returns 0 to be called again, 1 when
    // the daemon must exit. Not inlined, so that a crash backtrace names it.
    [[gnu::noinline]] int listen();

    // --- sync/discovery.cpp: links, then addresses, then routes, each as a dump; one step per call
    void discover();
    void request_dump(int awaiting);
    void handle_dump_end();
    void handle_netlink();

    // --- sync/links.cpp
    void nl_link_update(int type, const std::vector<CKernInterface> &links);
    void add_link(const CKernInterface &link);
    void erase_link(const CKernInterface &link);

    // --- What the kernel reports: additions are handled in sync/kernel_events.cpp, deletions
    // (remove_...) in store/write.cpp
    void nl_addr_update(int type, const std::vector<CKernAddress> &addrs);
    void add_kern_addr(const CKernAddress &addr);
    void remove_kern_addr_from_tav(const CKernAddress &addr);
    void nl_route_update(int type, const std::vector<CKernRoute> &routes);
    void add_kern_route(const CKernRoute &route);
    void remove_kern_route_from_tav(const CKernRoute &route);

    // --- sync/refusals.cpp: what the kernel refused
    void handle_refusal(const wire::datagram_t &datagram);

    // --- store/events.cpp: the store's change events
    void handle_tav_update();

    // --- store/read.cpp
    tavcfg_map_t read_all_tav_ipv6_settings();
    tavcfg_t read_tav_ipv6_interface(const tk_string &name);
    boost::optional<CTavRoute> read_tav_ipv6_gateway(const tk_string &ipv6_path);
    std::vector<CTavAddress> read_tav_ipv6_addrs(const tk_string &ipv6_path);
    CTavAddress read_tav_ipv6_addr(const tk_string &addresses_path, const tk_string &name);

    // --- store/write.cpp. A path that the store refuses is only logged; the next synchronisation
    // compares again.
    void write_tav_ipv6_gateway(const CTavInterface &ifc, const CTavRoute &route);
    void remove_tav_ipv6_gateway(const CTavInterface &ifc);
    void write_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr);
    void remove_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr);

    // --- sync/reconcile.cpp: first the store into the kernel, then the kernel into the store
    void sync_all();
    void sync_kernel_with_tav(const tavcfg_t &stored);
    void sync_kernel_addrs(ifcfg_t &entry, const tavcfg_t &stored);
    void sync_kernel_addr(ifcfg_t &entry, const CTavAddress &stored,
                          boost::optional<std::size_t> match);
    void sync_kernel_gateway(ifcfg_t &entry, const tavcfg_t &stored);
    void sync_tav_with_kernel(const tavcfg_map_t &snapshot, ifcfg_t &entry);
    void write_kern_addrs_to_tav(const tavcfg_t &stored, const ifcfg_t &entry);
    void write_kern_route_to_tav(const CTavInterface &ifc, const ifcfg_t &entry); // store/write.cpp

    // Whether kernel events of the link are written through: in normal operation, and only while
    // the store has an interface for it. Without one, the write would create a node that makes
    // every later read fail.
    bool may_write_store(const ifcfg_t &entry) const {
        return state == state_normal && entry.iface.number != 0;
    }

    // States of the discovery; it only moves forward.
    enum {
        state_idle = 0,
        state_links = 1,  // link dump requested
        state_addrs = 2,  // address dump requested
        state_routes = 3, // route dump requested
        state_normal = 4
    };

    toolkit::CTav *tav;
    CNetlink *netlink;
    ifcfg_map_t interfaces;
    int state = state_idle;
    tk_string if_prefix;

    dump_watch dumps;
    // The names that read_tav_ipv6_addrs listed last. A member because that function returns only
    // the readable addresses.
    std::vector<tk_string> addr_listing;
};
