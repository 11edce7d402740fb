// The engine: keeps the kernel's and the store's view of the IPv6 configuration in agreement.
//
// The store wins for Static addresses and for the default gateway, the kernel wins for Link-Local
// and Automatic addresses, and a stored address of another type that the kernel does not carry is
// removed from the store. A fault of one stored address or gateway is logged and that item passed
// over; every other failure leaves as an exception (netlink_err, sync_err, sync_minor_err,
// sync_addr_err, std::bad_alloc), after which the engine is to be destroyed and built anew.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/optional.hpp>

#include <tav/toolkit.h>

#include "netlink/channel.h"
#include "netlink/refusal.h"
#include "sync/address_index.h"
#include "sync/model.h"

class CSync {
public:
    // `tav_client` and `channel` stay the caller's and must outlive the engine. Only kernel links
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
    // One cycle of waiting for the three descriptors and serving one of them: 0 to be called again,
    // 1 when the daemon is to exit. Kept out of line so that a crash backtrace names it.
    [[gnu::noinline]] int listen();

    // Discovery: links, then addresses, then routes, each as a dump; one step per call.
    void discover();
    void handle_netlink();
    void dispatch(int type, const unsigned char *buffer, int length);
    void handle_dump_end();

    // Links.
    void nl_link_update(int type, const std::vector<CKernInterface> &links);
    void add_link(const CKernInterface &link);
    void erase_link(const CKernInterface &link);

    // Addresses and routes that the kernel reports.
    void nl_addr_update(int type, const std::vector<CKernAddress> &addrs);
    void nl_route_update(int type, const std::vector<CKernRoute> &routes);
    void add_kern_addr(const CKernAddress &addr);
    void add_kern_route(const CKernRoute &route);
    void remove_kern_addr_from_tav(const CKernAddress &addr);
    void remove_kern_route_from_tav(const CKernRoute &route);

    // Reading the store.
    tavcfg_map_t read_all_tav_ipv6_settings();
    tavcfg_t read_tav_ipv6_interface(const tk_string &name);
    boost::optional<CTavRoute> read_tav_ipv6_gateway(const tk_string &ipv6_path);
    std::vector<CTavAddress> read_tav_ipv6_addrs(const tk_string &ipv6_path);
    CTavAddress read_tav_ipv6_addr(const tk_string &addresses_path, const tk_string &name);
    bool holds_other_addr(const CTavInterface &ifc, const CTavAddress &addr);

    // Writing the store. A path that the store refuses is only logged; the next synchronisation
    // compares again.
    void write_tav_ipv6_gateway(const CTavInterface &ifc, const CTavRoute &route);
    void remove_tav_ipv6_gateway(const CTavInterface &ifc);
    void write_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr);
    void remove_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr);
    void write_kern_route_to_tav(const CTavInterface &ifc, const ifcfg_t &entry);

    // The store's change events.
    void handle_tav_update();

    // Reconciliation: first the store into the kernel, then the kernel into the store.
    void sync_all();
    void sync_kernel_with_tav(const tavcfg_t &stored);
    void sync_tav_with_kernel(const tavcfg_map_t &snapshot, ifcfg_t &entry);
    void sync_kernel_addrs(ifcfg_t &entry, const tavcfg_t &stored);
    static boost::optional<std::size_t> match_stored(ifcfg_t &entry, const address_index &index,
                                                     const CTavAddress &stored,
                                                     std::vector<bool> &seen);
    void remove_unstored(ifcfg_t &entry, std::vector<bool> &seen);
    bool sync_kernel_addr(ifcfg_t &entry, const CTavAddress &stored,
                          boost::optional<std::size_t> match);
    void sync_kernel_gateway(ifcfg_t &entry, const tavcfg_t &stored);
    void write_kern_addrs_to_tav(const tavcfg_t &stored, const ifcfg_t &entry);

    // Dumps that fail or may be incomplete (sync/dump_watch.cpp).
    void note_dump_request();
    void note_incomplete_dump(const unsigned char *buffer, int length);
    bool repeat_incomplete_dump();
    void check_discovery_time() const;

    // Links without a store interface, and node names (sync/node_names.cpp).
    bool may_write_store(const ifcfg_t &entry) const;
    void forget_absent_store_interfaces(const tavcfg_map_t &snapshot);
    static void remember_listing(ifcfg_t &entry, const tavcfg_t &stored);
    static void take_over_name(CFullAddress &known, const CTavAddress &stored);
    static tk_string free_node_name(const ifcfg_t &entry);
    static void rename_unmatched(ifcfg_t &entry, const std::vector<bool> &seen);
    void avoid_unlisted_node(ifcfg_t &entry, CFullAddress &known);
    void note_removal(const CTavInterface &ifc, const tk_string &node, bool removed);

    // Addresses whose deletion was asked for (sync/deletions.cpp).
    void delete_from_kern(ifcfg_t &entry, const CKernAddress &addr);
    void add_to_kern(ifcfg_t &entry, const CKernAddress &addr);
    static bool is_leaving(const ifcfg_t &entry, const CAddress &addr);
    static bool settle_deletion(ifcfg_t &entry, const CAddress &addr);

    // What the kernel refused (sync/refusals.cpp).
    void handle_refusal(const unsigned char *buffer, int length);
    void route_refused(const refusal_t &refusal);
    void addr_refused(const refusal_t &refusal);

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

    // The names that read_tav_ipv6_addrs found last, for the interface being read.
    std::vector<tk_string> addr_listing;
    bool addr_listing_refused = false;

    std::chrono::steady_clock::time_point last_dump_request;
    bool dump_incomplete = false;
    int dump_repeats = 0; // of the present step
};
