#include "ctl/reasons.h"

#include <string_view>

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
constexpr reasons_t table{{
    {r::interfaces_absent, difference, "interfaces-absent",
     "the store has no node '{path}', so tandrel can read nothing and starts over every ten "
     "seconds",
     "tav mknode {path}, or tandrelctl interface add {prefix}0, which makes it as well"},
    {r::bad_interface_node, difference, "bad-interface-node",
     "the name of the interface node '{node}' is not a number from 1 on; because of it tandrel "
     "cannot read the store, synchronises nothing, and starts over every ten seconds",
     "tandrelctl interface del --node {node}"},
    {r::interface_is_leaf, note, "interface-is-leaf",
     "'{path}' is a leaf, not a node; tandrel ignores it", ""},
    {r::odd_interface_number, difference, "odd-interface-number",
     "the interface node '{node}' is read for {link}, but tandrel writes to the node '{number}'",
     "store its settings with tandrelctl (they go to node {number}), then tandrelctl interface del "
     "--node {node}"},
    {r::interface_twice, difference, "interface-twice",
     "the interface nodes '{other}' and '{node}' are both for {link}; each synchronisation applies "
     "the first, then the second",
     "tandrelctl interface del --node {node}"},
    {r::strange_element, note, "strange-element",
     "tandrel does not know '{path}'; it ignores the element and changes to it", ""},

    {r::link_absent, difference, "link-absent",
     "the kernel has no link {link}; what is stored for it (interface {number}) waits until the "
     "link "
     "appears",
     ""},
    {r::wrong_prefix, note, "wrong-prefix",
     "not synchronised: its name does not begin with '{prefix}'",
     "to manage such links instead, start tandrel with -i PREFIX"},
    {r::no_node_fits, note, "no-node-fits",
     "not synchronised: it cannot have a store node; only {prefix}0, {prefix}1 and so on can", ""},
    {r::not_ethernet, difference, "not-ethernet", "not synchronised: it is not an Ethernet link",
     ""},
    {r::no_hardware_address, difference, "no-hardware-address",
     "not synchronised: the link has no hardware address", ""},
    {r::no_ipv6, difference, "no-ipv6",
     "not synchronised: the kernel has no IPv6 on this link (is its MTU below 1280?)",
     "ip link set {link} mtu 1500"},
    {r::ipv6_disabled, difference, "ipv6-disabled",
     "IPv6 is disabled on this link, so the kernel refuses every address and gateway",
     "sysctl -w net.ipv6.conf.{link}.disable_ipv6=0, then tandrelctl nudge"},
    {r::no_store_node, difference, "no-store-node",
     "the store has no node for it (interface {number}), and tandrel never creates one; the link "
     "is not synchronised",
     "tandrelctl interface add {link}"},
    {r::link_down, note, "link-down",
     "the link is down: the kernel does not use its addresses and accepts no gateway",
     "ip link set {link} up; tandrel(8), CAVEATS, says how to keep settings while a link is down"},

    {r::address_is_leaf, note, "address-is-leaf",
     "'{path}' is a leaf where an address node is expected; tandrel ignores it", ""},
    {r::address_leaf_missing, difference, "address-leaf-missing",
     "the stored address '{node}' is skipped: it has no leaf Address/Value",
     "tandrelctl address del {link} --node {node}"},
    {r::type_leaf_missing, difference, "type-leaf-missing",
     "the stored address '{node}' ('{text}') is skipped: it has no leaf Type/Value",
     "tandrelctl address replace {link} {text}"},
    {r::address_not_text, difference, "address-not-text",
     "the stored address '{node}' is skipped: its leaf Address/Value is not a string",
     "tandrelctl address del {link} --node {node}"},
    {r::type_not_text, difference, "type-not-text",
     "the stored address '{node}' ('{text}') is skipped: its leaf Type/Value is not a string",
     "tandrelctl address replace {link} {text}"},
    {r::address_without_prefix, difference, "address-without-prefix",
     "the stored address '{node}' is skipped: '{text}' has no prefix length (such as /64)",
     "tandrelctl address replace {link} {text}/64, or with the right length"},
    {r::address_bad_prefix, difference, "address-bad-prefix",
     "the stored address '{node}' is skipped: the prefix length of '{text}' is not a number from 1 "
     "to 128",
     "tandrelctl address replace {link}, with a length from 1 to 128"},
    {r::address_bad_text, difference, "address-bad-text",
     "the stored address '{node}' is skipped: '{text}' is not an IPv6 address",
     "tandrelctl address del {link} --node {node}"},
    {r::type_unknown, difference, "type-unknown",
     "the stored address '{node}' ('{text}') is skipped: its type '{type}' is none of Static, "
     "Automatic and Link-Local (case matters)",
     "tandrelctl address replace {link} {text}"},

    {r::address_not_in_kernel, difference, "address-not-in-kernel",
     "{address} (Static, node '{node}') is in the store only; tandrel adds it to the kernel at its "
     "next synchronisation",
     "tandrelctl nudge, if it stays (a refused address is tried again only then; tandrel's log at "
     "-D 2 shows the refusal)"},
    {r::address_unfit, difference, "address-unfit",
     "{address} (node '{node}') is in the store only: a link cannot have {type}",
     "tandrelctl address del {link} --node {node}"},
    {r::address_left_over, difference, "address-left-over",
     "{address} ({type}, node '{node}') is in the store only; the kernel decides on such "
     "addresses, so tandrel removes it at its next synchronisation",
     "tandrelctl address replace {link} {address}, to keep it as a Static one"},
    {r::address_stored_twice, difference, "address-stored-twice",
     "{address} is stored twice, in the nodes '{other}' and '{node}'",
     "tandrelctl address del {link} --node {node}"},
    {r::address_not_in_store, difference, "address-not-in-store",
     "{address} is in the kernel only; tandrel writes it to the store as {type} within moments",
     "tandrelctl nudge, if it stays"},
    {r::address_listed_empty, note, "address-listed-empty",
     "the kernel listed an entry that contains no address; tandrel skips it", ""},
    {r::prefix_static, difference, "prefix-static",
     "the kernel has {other}, the store {address} (Static, node '{node}'): the store's prefix "
     "length "
     "counts, and tandrel changes the kernel's at its next synchronisation",
     "tandrelctl nudge, if it stays"},
    {r::prefix_of_kernel, difference, "prefix-of-kernel",
     "the kernel has {other}, the store {address} ({type}, node '{node}'): the kernel's prefix "
     "length counts, and tandrel stores it when the kernel next announces the address",
     ""},
    {r::type_differs, difference, "type-differs",
     "{address} is stored as {type} (node '{node}'), but the kernel has it as {other}: tandrel "
     "removes the node and then stores the address again",
     ""},
    {r::duplicate_found, difference, "duplicate-found",
     "{address}: duplicate address detection failed; another host on the link has it, and the "
     "kernel does not use it",
     "change one of the two hosts; then delete the address here and add it again"},
    {r::address_waits, note, "address-waits",
     "{address} is tentative: the kernel checks it for duplicates first, which needs the link to "
     "be "
     "up and connected",
     ""},
    {r::address_has_peer, note, "address-has-peer",
     "{address} is the peer of a point-to-point address; tandrel treats it as the link's own", ""},

    {r::gateway_leaf_missing, difference, "gateway-leaf-missing",
     "the stored gateway has no leaf Value; tandrel treats it as no gateway",
     "tandrelctl gateway clear {link}, or tandrelctl gateway set"},
    {r::gateway_not_text, difference, "gateway-not-text",
     "the stored gateway is skipped: its leaf Value is not a string",
     "tandrelctl gateway clear {link}, or tandrelctl gateway set"},
    {r::gateway_bad_prefix, difference, "gateway-bad-prefix",
     "the stored gateway is skipped: '{text}' has an invalid prefix length; a gateway needs none",
     "tandrelctl gateway set {link} with the address alone"},
    {r::gateway_bad_text, difference, "gateway-bad-text",
     "the stored gateway is skipped: '{text}' is not an IPv6 address",
     "tandrelctl gateway clear {link}, or tandrelctl gateway set"},
    {r::gateway_unfit, difference, "gateway-unfit",
     "the gateway {gateway} is in the store only: the kernel refuses it because it is {type}",
     "tandrelctl gateway set {link} with the router's address"},
    {r::gateway_link_down, difference, "gateway-link-down",
     "the gateway {gateway} is in the store only: the kernel accepts no route over a link that is "
     "down, and tandrel does not try again when the link comes up",
     "ip link set {link} up, then tandrelctl nudge (tandrelctl nudge --follow does it each time)"},
    {r::gateway_unreachable, difference, "gateway-unreachable",
     "the gateway {gateway} is in the store only: no network of {link} contains it, so the kernel "
     "refuses it",
     "give {link} an address of the gateway's network, then tandrelctl nudge; or use the router's "
     "link-local address"},
    {r::gateway_taken, difference, "gateway-taken",
     "the gateway {gateway} is in the store, but the kernel has the same route with protocol "
     "{protocol}, and refuses a second, static one",
     "none while that route exists; after it is removed: tandrelctl nudge"},
    {r::gateway_not_in_kernel, difference, "gateway-not-in-kernel",
     "the gateway {gateway} is in the store only; tandrel adds the route at its next "
     "synchronisation",
     "tandrelctl nudge, if it stays (a lost or refused route is tried again only then)"},
    {r::gateway_not_in_store, difference, "gateway-not-in-store",
     "the gateway {gateway} is in the kernel only; tandrel writes it to the store within moments",
     "tandrelctl nudge, if it stays"},
    {r::gateway_differs, difference, "gateway-differs",
     "the kernel's gateway is {other}, the store's {gateway}: the store's counts, and tandrel "
     "replaces the kernel's at its next synchronisation",
     "tandrelctl nudge, if it stays"},
    {r::gateway_second, difference, "gateway-second",
     "the kernel has another static default route, via {gateway}; tandrel manages only the newest "
     "one of a link",
     "ip -6 route del default via {gateway} dev {link} proto static"},
    {r::route_other_protocol, note, "route-other-protocol",
     "the default route via {gateway} has protocol {protocol}; tandrel manages only static ones",
     "to store it: tandrelctl gateway set {link} {gateway}"},
    {r::route_with_destination, note, "route-with-destination",
     "tandrel ignores the route to {address}; it manages only default routes", ""},
    {r::route_without_gateway, note, "route-without-gateway",
     "tandrel ignores a default route without a gateway", ""},
    {r::route_multipath, note, "route-multipath",
     "tandrel ignores a default route with several gateways: it has no single output link", ""},
    {r::route_other_table, note, "route-other-table",
     "the default route via {gateway} is in table {text}; tandrel treats it as a route of the main "
     "table",
     ""},

    {r::daemon_absent, note, "daemon-absent",
     "it does not run here, so nothing will be synchronised",
     "start it: systemctl start tandrel, or, to watch it, tandrel -d -D 3"},
}};
static_assert(tav::in_order(table, &reason_text_t::reason));

std::string fill(const char *format, const words_t &words,
                 std::string (&transform)(std::string_view)) {
    std::string text = format;
    for (std::size_t open = text.find('{'); open != std::string::npos;) {
        const std::size_t close = text.find('}', open);
        const auto word = words.find(text.substr(open + 1, close - open - 1));
        const std::string value = word != words.end() ? transform(word->second) : "?";
        text.replace(open, close - open + 1, value);
        open = text.find('{', open + value.size());
    }
    return text;
}

} // namespace

const reasons_t &reasons() {
    return table;
}

const reason_text_t &text_of(reason_t reason) {
    return table.at(static_cast<std::size_t>(reason));
}

std::string finding_t::sentence() const {
    return fill(text_of(fault.reason).sentence, fault.words, shown);
}

std::string finding_t::remedy() const {
    return fill(text_of(fault.reason).remedy, fault.words, shown_word);
}

} // namespace ctl
