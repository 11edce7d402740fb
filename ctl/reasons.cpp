#include "ctl/reasons.h"

#include <string_view>

#include "ctl/daemon_state.h"
#include "ctl/text.h"
#include "in_order.h"

namespace ctl {

namespace {

constexpr auto difference = severity_t::difference;
constexpr auto note = severity_t::note;
using r = reason_t;

// {link}: the kernel link; {prefix}: the prefix of the names of the links that tandrel manages;
// {node}, {path}, {text}: name, path and text of the element in the store; {address}, {gateway}: as
// text; {type}: of an address; {other}: the other side's or the other node's value.
//
// A remedy must end the difference when it is carried out as it is, and change nothing else;
// tests/ctl/kernel/remedies_test.cpp does so.
constexpr reasons_t table{{
    {r::interfaces_absent, difference, "interfaces-absent",
     "the store has no node '{path}', so tandrel can read nothing and starts over every ten "
     "seconds",
     "{command}"},
    {r::bad_interface_node, difference, "bad-interface-node",
     "the name of the interface node '{node}' is not a number of 1 or more, so tandrel cannot read "
     "the store, synchronises nothing, and starts over every ten seconds; the command below "
     "removes the node and everything in it",
     "tandrelctl interface del --node {node} --force"},
    {r::interface_is_leaf, note, "interface-is-leaf",
     "'{path}' is a leaf, not a node; tandrel ignores it", ""},
    {r::odd_interface_number, difference, "odd-interface-number",
     "tandrel reads {link}'s settings from the interface node '{node}', but writes them to the "
     "node '{number}'",
     "tandrelctl interface merge {link}"},
    {r::interface_twice, difference, "interface-twice",
     "the interface nodes '{other}' and '{node}' both belong to {link}; each synchronisation "
     "applies "
     "the first, then the second",
     "tandrelctl interface merge {link}"},
    {r::strange_element, note, "strange-element",
     "tandrel does not use '{path}', and ignores changes to it", ""},
    {r::no_link_managed, difference, "no-link-managed",
     "the kernel has no link whose name begins with '{prefix}', so tandrel manages none{text}", ""},
    {r::change_unconfirmed, note, "unconfirmed-change",
     "{text} is unconfirmed, and will be reverted in {seconds} s", "tandrelctl confirm {number}"},

    {r::link_absent, difference, "link-absent",
     "the kernel has no link {link}; its stored settings (interface node {number}) take effect "
     "when the link appears; if it never will: tandrelctl interface del {link} --force",
     ""},
    {r::wrong_prefix, note, "wrong-prefix",
     "not synchronised: its name does not begin with '{prefix}'; to manage such links instead, "
     "start tandrel and tandrelctl with -i {text}",
     ""},
    {r::no_node_fits, note, "no-node-fits",
     "not synchronised: it cannot have an interface node; only {prefix}0, {prefix}1 and so on can",
     ""},
    {r::not_ethernet, difference, "not-ethernet", "not synchronised: it is not an Ethernet link",
     ""},
    {r::no_hardware_address, difference, "no-hardware-address",
     "not synchronised: the link has no hardware address", ""},
    {r::no_ipv6, difference, "no-ipv6", "not synchronised: the kernel has no IPv6 on this link",
     ""},
    {r::small_mtu, difference, "small-mtu",
     "not synchronised: the link's MTU is {text}, and the kernel has no IPv6 on a link with an MTU "
     "below 1280",
     "ip link set {link} mtu 1500"},
    {r::ipv6_disabled, difference, "ipv6-disabled",
     "IPv6 is disabled on this link, so the kernel refuses every address and gateway",
     "sysctl -w net/ipv6/conf/{link}/disable_ipv6=0 && tandrelctl nudge"},
    {r::no_store_node, difference, "no-store-node",
     "the link is not synchronised, because the store has no interface node {number} for it",
     "{command}"},
    {r::link_down, note, "link-down",
     "the link is down: the kernel does not use its addresses and accepts no gateway (tandrel(8), "
     "CAVEATS, says how to keep settings while a link is down)",
     "ip link set {link} up"},
    {r::setting_remembered, note, "setting-remembered",
     "{text} was removed from the store ({why}); 'tandrelctl keep' restores it when the link can "
     "carry it{waits}",
     ""},

    {r::address_is_leaf, note, "address-is-leaf",
     "'{path}' is a leaf where an address node is expected; tandrel ignores it", ""},
    {r::address_leaf_missing, difference, "address-leaf-missing",
     "the stored address '{node}' is skipped: it has no leaf Address/Value",
     "tandrelctl address del {link} --node {node}"},
    {r::type_leaf_missing, difference, "type-leaf-missing",
     "the stored address '{node}' ('{text}') is skipped: it has no leaf Type/Value", "{command}"},
    {r::address_not_text, difference, "address-not-text",
     "the stored address '{node}' is skipped: its leaf Address/Value is not a string",
     "tandrelctl address del {link} --node {node}"},
    {r::type_not_text, difference, "type-not-text",
     "the stored address '{node}' ('{text}') is skipped: its leaf Type/Value is not a string",
     "{command}"},
    {r::address_without_prefix, difference, "address-without-prefix",
     "the stored address '{node}' is skipped: '{text}' has no prefix length (such as /64)",
     "{command}"},
    {r::address_bad_prefix, difference, "address-bad-prefix",
     "the stored address '{node}' is skipped: the prefix length of '{text}' is not a number from 1 "
     "to 128",
     "{command}"},
    {r::address_bad_text, difference, "address-bad-text",
     "the stored address '{node}' is skipped: '{text}' is not an IPv6 address",
     "tandrelctl address del {link} --node {node}"},
    {r::type_unknown, difference, "type-unknown",
     "the stored address '{node}' ('{text}') is skipped: its type '{type}' is not Static, "
     "Automatic or Link-Local (case matters)",
     "{command}"},

    {r::address_not_in_kernel, difference, "address-not-in-kernel",
     "{address} (Static, node '{node}') is in the store only; tandrel adds it to the kernel at its "
     "next synchronisation, or, if the link was renamed, after a restart",
     "tandrelctl nudge"},
    {r::address_unfit, difference, "address-unfit",
     "{address} (node '{node}') is in the store only: a link cannot have {type}",
     "tandrelctl address del {link} --node {node}"},
    {r::address_left_over, difference, "address-left-over",
     "{address} ({type}, node '{node}') is in the store only; for such addresses the kernel wins, "
     "so tandrel removes it at its next synchronisation ('tandrelctl address replace' "
     "makes it a Static one)",
     "tandrelctl nudge"},
    {r::address_stored_twice, difference, "address-stored-twice",
     "{address} is stored twice, in the nodes '{other}' and '{node}'",
     "tandrelctl address del {link} --node {node}"},
    {r::address_not_in_store, difference, "address-not-in-store",
     "{address} is in the kernel only; tandrel stores it as {type} within moments, unless it no "
     "longer tracks the address (for example because the link left a bridge)",
     "{restart}"},
    {r::address_listed_empty, note, "address-listed-empty",
     "the kernel listed an entry that contains no address; tandrel skips it", ""},
    {r::prefix_static, difference, "prefix-static",
     "the kernel has {other}, the store {address} (Static, node '{node}'): the store's prefix "
     "length applies, and tandrel changes the kernel's at its next synchronisation",
     "{command}"},
    {r::prefix_of_kernel, difference, "prefix-of-kernel",
     "the kernel has {other}, the store {address} ({type}, node '{node}'): the kernel's prefix "
     "length applies, and tandrel stores it when the node is removed",
     "tandrelctl address del {link} --node {node} --force"},
    {r::type_differs, difference, "type-differs",
     "{address} is stored as {type} (node '{node}'), but the kernel has it as {other}: at its next "
     "two synchronisations tandrel first removes the node, then stores the address with the "
     "kernel's type",
     "tandrelctl address del {link} --node {node} --force"},
    {r::duplicate_found, difference, "duplicate-found",
     "{address}: duplicate address detection failed, because another host on the link uses it; "
     "the kernel does not use it; change the other host first",
     "{command}"},
    {r::address_waits, note, "address-waits",
     "{address} is tentative: the kernel checks it for duplicates first, which needs the link to "
     "be "
     "up and connected",
     ""},
    {r::address_has_peer, note, "address-has-peer",
     "{address} is the peer of a point-to-point address; tandrel treats it as the link's own", ""},

    {r::gateway_leaf_missing, difference, "gateway-leaf-missing",
     "the stored gateway has no leaf Value; tandrel treats it as no gateway", "{command}"},
    {r::gateway_not_text, difference, "gateway-not-text",
     "the stored gateway is skipped: its leaf Value is not a string", "{command}"},
    {r::gateway_bad_prefix, difference, "gateway-bad-prefix",
     "the stored gateway is skipped: '{text}' has an invalid prefix length; a gateway needs none",
     "{command}"},
    {r::gateway_bad_text, difference, "gateway-bad-text",
     "the stored gateway is skipped: '{text}' is not an IPv6 address", "{command}"},
    {r::gateway_unfit, difference, "gateway-unfit",
     "the gateway {gateway} is in the store only: the kernel refuses it because it is {type}",
     "tandrelctl gateway clear {link}"},
    {r::gateway_link_down, difference, "gateway-link-down",
     "the gateway {gateway} is in the store only: the kernel accepts no route over a link that is "
     "down, and tandrel does not try again when the link comes up",
     "ip link set {link} up && tandrelctl nudge"},
    {r::gateway_unreachable, difference, "gateway-unreachable",
     "the gateway {gateway} is in the store only: no network of {link} contains it, so the kernel "
     "refuses it; give {link} an address of the gateway's network and run 'tandrelctl nudge', use "
     "the router's link-local address, or remove the gateway",
     "tandrelctl gateway clear {link}"},
    {r::gateway_taken, difference, "gateway-taken",
     "the gateway {gateway} is in the store, but the kernel has the same route with protocol "
     "{protocol}, and refuses a second, static one",
     "{command}"},
    {r::gateway_not_in_kernel, difference, "gateway-not-in-kernel",
     "the gateway {gateway} is in the store only; tandrel adds the route at its next "
     "synchronisation, or, if the link was renamed, after a restart",
     "tandrelctl nudge"},
    {r::gateway_not_in_store, difference, "gateway-not-in-store",
     "the gateway {gateway} is in the kernel only; unless tandrel writes it to the store within "
     "moments, it removes the route at its next synchronisation",
     "{command}"},
    {r::gateway_differs, difference, "gateway-differs",
     "the kernel's gateway is {other}, the store's {gateway}: the store's applies, and tandrel "
     "replaces the kernel's at its next synchronisation",
     "tandrelctl nudge"},
    {r::gateway_second, difference, "gateway-second",
     "the kernel has another static default route, via {gateway}; tandrel keeps only a link's "
     "newest one, and removes the other within moments",
     ""},
    {r::route_other_protocol, note, "route-other-protocol",
     "the default route via {gateway} has protocol {protocol}; tandrel manages only static ones",
     "{command}"},
    {r::route_with_destination, note, "route-with-destination",
     "tandrel ignores the route to {address}; it manages only default routes", ""},
    {r::route_without_gateway, note, "route-without-gateway",
     "tandrel ignores a default route without a gateway", ""},
    {r::route_multipath, note, "route-multipath",
     "tandrel ignores the default route via {gateway}: the kernel has combined it with others of "
     "the same metric, and does not report its link",
     "{command}"},
    {r::route_other_table, note, "route-other-table",
     "the default route via {gateway} is in table {text}; tandrel treats it as a route of the main "
     "table",
     ""},
    {r::route_other_metric, note, "route-other-metric",
     "the kernel has the default route via {gateway} a second time, with metric {text}; when the "
     "gateway is removed, one of the two stays",
     ""},

    {r::daemon_absent, difference, "daemon-absent",
     "it is not running here, so nothing is synchronised", "{start}"},
    {r::daemon_disconnected, difference, "daemon-disconnected",
     "it is not connected to the settings store, so nothing is synchronised; it tries again every "
     "ten seconds, and its log says why",
     ""},
    {r::daemon_hangs, difference, "daemon-hangs",
     "it is connected to the settings store, but has not responded for {text}", "{restart}"},
    {r::daemon_unknown, note, "daemon-unknown", "cannot tell whether it is running: {text}", ""},
    {r::daemon_prefix, difference, "daemon-prefix",
     "it manages links whose names begin with '{text}', not '{prefix}'; use tandrelctl -i {text}",
     ""},
}};
static_assert(tav::in_order(table, &reason_text_t::reason));

using transform_t = std::string (&)(const std::string &, std::string_view);

std::string fill(const char *format, const words_t &words, transform_t transform) {
    std::string text = format;
    for (std::size_t open = text.find('{'); open != std::string::npos;) {
        const std::size_t close = text.find('}', open);
        const std::string name = text.substr(open + 1, close - open - 1);
        const auto word = words.find(name);
        const std::string value =
            transform(name, word != words.end() ? std::string_view(word->second) : "?");
        text.replace(open, close - open + 1, value);
        open = text.find('{', open + value.size());
    }
    return text;
}

std::string of_sentence(const std::string & /*name*/, std::string_view word) {
    return shown(word);
}

std::string of_remedy(const std::string &name, std::string_view word) {
    const bool is_command = name == "command" || name == "start" || name == "restart";
    return is_command ? std::string(word) : shown_word(word);
}

std::string plain_remedy(const fault_t &fault) {
    words_t words = fault.words;
    words["start"] = service_command("start", words["pid"]);
    words["restart"] = service_command("restart", words["pid"]);
    return fill(text_of(fault.reason).remedy, words, of_remedy);
}

} // namespace

prefix_options_t prefix_options;

const reasons_t &reasons() {
    return table;
}

const reason_text_t &text_of(reason_t reason) {
    return table.at(static_cast<std::size_t>(reason));
}

std::string finding_t::sentence() const {
    return fill(text_of(fault.reason).sentence, fault.words, of_sentence);
}

std::string finding_t::remedy() const {
    if (waits) {
        return "";
    }
    constexpr std::string_view tool = "tandrelctl ";
    std::string text = plain_remedy(fault);
    const std::string &option = prefix_options.tandrelctl;
    if (text.compare(0, tool.size(), tool) == 0) {
        text.insert(tool.size() - 1, option);
    }
    const std::string then = " && " + std::string(tool);
    for (std::size_t at = text.find(then); at != std::string::npos; at = text.find(then, at + 1)) {
        text.insert(at + then.size() - 1, option);
    }
    return text;
}

bool finding_t::needs_synchronisation() const {
    const std::string_view text = text_of(fault.reason).remedy;
    return fault.reason < reason_t::daemon_absent &&
           (text == "{restart}" || (!waits && plain_remedy(fault) == "tandrelctl nudge"));
}

} // namespace ctl
