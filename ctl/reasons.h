// Why the two views differ, or why the daemon ignores something: one table of reasons, each with
// its sentence and its remedy.
#pragma once

#include <array>
#include <map>
#include <string>

namespace ctl {

enum class reason_t {
    // The store as a whole.
    interfaces_absent,
    bad_interface_node,
    interface_is_leaf,
    odd_interface_number,
    interface_twice,
    strange_element,
    no_link_managed,
    change_unconfirmed,
    // Links.
    link_absent,
    wrong_prefix,
    no_node_fits,
    not_ethernet,
    no_hardware_address,
    no_ipv6,
    small_mtu,
    ipv6_disabled,
    no_store_node,
    link_down,
    setting_remembered,
    // Stored addresses that are skipped.
    address_is_leaf,
    address_leaf_missing,
    type_leaf_missing,
    address_not_text,
    type_not_text,
    address_without_prefix,
    address_bad_prefix,
    address_bad_text,
    type_unknown,
    // Addresses.
    address_not_in_kernel,
    address_unfit,
    address_left_over,
    address_stored_twice,
    address_not_in_store,
    address_listed_empty,
    prefix_static,
    prefix_of_kernel,
    type_differs,
    duplicate_found,
    address_waits,
    address_has_peer,
    // Gateways and routes.
    gateway_leaf_missing,
    gateway_not_text,
    gateway_bad_prefix,
    gateway_bad_text,
    gateway_unfit,
    gateway_link_down,
    gateway_unreachable,
    gateway_taken,
    gateway_not_in_kernel,
    gateway_not_in_store,
    gateway_differs,
    gateway_second,
    route_other_protocol,
    route_with_destination,
    route_without_gateway,
    route_multipath,
    route_other_table,
    route_other_metric,
    // The daemon.
    daemon_absent,
    daemon_disconnected,
    daemon_hangs,
    daemon_unknown,
    daemon_prefix,
    count_ // not a reason
};

enum class severity_t {
    difference, // the views differ, or cannot come to agree
    note        // ignored by design
};

struct reason_text_t {
    reason_t reason;
    severity_t severity;
    const char *name;     // for scripts; never changes
    const char *sentence; // with {words}
    const char *remedy;   // a shell's command line, with {words}; empty when no command helps
};

// Every reason, in the order of the enumeration.
using reasons_t = std::array<reason_text_t, static_cast<std::size_t>(reason_t::count_)>;
const reasons_t &reasons();
const reason_text_t &text_of(reason_t reason);

// The texts that replace the {words} of a sentence or a remedy.
using words_t = std::map<std::string, std::string>;

// A reason with its words.
struct fault_t {
    reason_t reason;
    words_t words;
};

// " -i PREFIX" after the name of the program in suggested commands; empty where it is not needed.
struct prefix_options_t {
    std::string tandrelctl;
    std::string tandrel;
};
extern prefix_options_t prefix_options;

// A fault and the link that it concerns.
struct finding_t {
    std::string link; // empty: it concerns the store as a whole
    fault_t fault;
    bool waits = false; // for the daemon, so it has no remedy of its own

    severity_t severity() const { return text_of(fault.reason).severity; }
    std::string sentence() const; // without control characters
    // Words are quoted for a shell, except {command}, which is a command line itself. {start} and
    // {restart} are the command lines that start and restart the daemon, whose process is {pid}.
    std::string remedy() const;
    bool needs_synchronisation() const; // and nothing else
};

} // namespace ctl
