// Every reason of `check`: its cause, and the exact sentence and remedy.
#include <functional>
#include <map>
#include <ostream>

#include "ctl/daemon_state.h"
#include "ctl/look_fixture.h"
#include "ctl/reasons.h"

namespace {

using ctl::reason_t;
using toolkit::CElement;

class Reasons : public LookTest {
protected:
    // Expects exactly this finding, and those in `more`.
    void expect(reason_t reason, const std::string &sentence, const std::string &remedy,
                std::vector<reason_t> more = {}) {
        const std::vector<ctl::finding_t> all = findings();
        std::vector<reason_t> unexpected;
        bool found = false;
        for (const ctl::finding_t &finding : all) {
            if (finding.fault.reason == reason && !found) {
                found = true;
                EXPECT_EQ(finding.sentence(), sentence);
                EXPECT_EQ(finding.remedy(), remedy);
                continue;
            }
            const auto allowed = std::find(more.begin(), more.end(), finding.fault.reason);
            if (allowed == more.end()) {
                ADD_FAILURE() << "also: " << finding.sentence();
            } else {
                more.erase(allowed);
            }
        }
        EXPECT_TRUE(found) << ctl::text_of(reason).name << " was not found";
        EXPECT_TRUE(more.empty());
    }

    static CElement number(const std::string &text) {
        return {element_type_integer, text, CElement::_invalid_time};
    }
};

TEST_F(Reasons, ThereIsNoneWhenTheViewsAgree) {
    address("fe80::5", 64);
    address("2001:db8::5", 64);
    route("fe80::1");
    store("1", "fe80::5/64", "Link-Local");
    store("office", "2001:db8::5/64");
    store_gateway("fe80::1");
    EXPECT_TRUE(findings().empty());
}

TEST_F(Reasons, EachReasonHasAUniqueName) {
    std::map<std::string, int> names;
    for (const ctl::reason_text_t &reason : ctl::reasons()) {
        EXPECT_EQ(++names[reason.name], 1) << reason.name;
    }
}

// --- the store as a whole ---

TEST_F(Reasons, TheInterfacesNodeIsAbsent) {
    fake_tav::erase("/Software/System Settings/Network/Interface");
    expect(reason_t::interfaces_absent,
           "the store has no node '/Software/System Settings/Network/Interface', so tandrel can "
           "read nothing and starts over every ten seconds",
           "tandrelctl interface add eth0", {reason_t::no_store_node});
    kernel.links.clear();
    EXPECT_EQ(findings().at(1).remedy(),
              "tav mknode '/Software/System Settings/Network/Interface'");
}

TEST_F(Reasons, AnInterfaceNodeIsNotNamedByANumber) {
    fake_tav::put_node(at("wan port"));
    expect(reason_t::bad_interface_node,
           "the name of the interface node 'wan port' is not a number of 1 or more, so tandrel "
           "cannot read the store, synchronises nothing, and starts over every ten seconds; the "
           "command below removes the node and everything in it",
           "tandrelctl interface del --node 'wan port' --force");
    fake_tav::erase(at("wan port"));
    for (const std::string name : {"0", "-1", "1a"}) {
        fake_tav::put_node(at(name));
        EXPECT_EQ(findings().at(0).fault.reason, reason_t::bad_interface_node) << name;
        fake_tav::erase(at(name));
    }
}

TEST_F(Reasons, ALeafIsAmongTheInterfaces) {
    fake_tav::put(at("Count"), "1");
    expect(reason_t::interface_is_leaf,
           "'/Software/System Settings/Network/Interface/Count' is a leaf, not a node; tandrel "
           "ignores it",
           "");
}

TEST_F(Reasons, AnInterfaceNumberIsSpeltOddly) {
    fake_tav::erase(at("1"));
    fake_tav::put_node(at("01"));
    expect(reason_t::odd_interface_number,
           "tandrel reads eth0's settings from the interface node '01', but writes them to the "
           "node '1'",
           "tandrelctl interface merge eth0");
}

TEST_F(Reasons, TwoInterfaceNodesAreForOneLink) {
    fake_tav::put_node(at("+1"));
    expect(reason_t::interface_twice,
           "the interface nodes '1' and '+1' both belong to eth0; each synchronisation applies the "
           "first, then the second",
           "tandrelctl interface merge eth0", {reason_t::odd_interface_number});
}

TEST_F(Reasons, AnElementIsUnknownToTheDaemon) {
    fake_tav::put(at("1/IPv6/DNS"), "2001:db8::53");
    expect(reason_t::strange_element,
           "tandrel does not use '/Software/System Settings/Network/Interface/1/IPv6/DNS', and "
           "ignores changes to it",
           "");
}

TEST_F(Reasons, StrangeElementsAreSeenInAddressesAndGatewaysToo) {
    address("2001:db8::5", 64);
    route("fe80::1");
    store("x", "2001:db8::5/64");
    store_gateway("fe80::1");
    fake_tav::put(at("1/IPv6/Addresses/x/Label"), "office");
    fake_tav::put(at("1/IPv6/Default Gateway/Metric"), "1");
    const std::vector<ctl::finding_t> all = findings();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].fault.words.at("path"), at("1/IPv6/Default Gateway/Metric"));
    EXPECT_EQ(all[1].fault.words.at("path"), at("1/IPv6/Addresses/x/Label"));
}

// --- links ---

TEST_F(Reasons, TheKernelHasNoSuchLink) {
    store("x", "2001:db8::5/64", "Static", "4");
    expect(reason_t::link_absent,
           "the kernel has no link eth3; its stored settings (interface node 4) take effect when "
           "the link appears; if it never will: tandrelctl interface del eth3 --force",
           "");
}

TEST_F(Reasons, AnAddressRemovedDuringTheReadIsNotReported) {
    store("x", "2001:db8::5/64");
    fake_tav::on_path("get_leaf", at("1/IPv6/Addresses/x/Type/Value")).runs([] {
        fake_tav::erase(at("1/IPv6/Addresses/x"));
    });
    EXPECT_TRUE(findings().empty());
}

TEST_F(Reasons, ALinkHasAnotherPrefix) {
    link("wlan0");
    expect(reason_t::wrong_prefix,
           "not synchronised: its name does not begin with 'eth'; to manage such links instead, "
           "start tandrel and tandrelctl with -i wlan",
           "");
    kernel.links.back().name = "uplink";
    EXPECT_NE(findings().at(0).sentence().find("with -i PREFIX"), std::string::npos);
}

TEST_F(Reasons, RemediesNameAnotherPrefix) {
    const bool is_service = ctl::service_command("start", "") != "tandrel -D 2";
    ctl::prefix_options = {" -i lan", " -i lan"};
    const auto remedy = [](reason_t reason, const std::string &command) {
        return ctl::finding_t{"", {reason, {{"command", command}}}}.remedy();
    };
    EXPECT_EQ(remedy(reason_t::no_store_node, "tandrelctl interface add lan0"),
              "tandrelctl -i lan interface add lan0");
    EXPECT_EQ(remedy(reason_t::no_store_node, "ip link && tandrelctl a && tandrelctl b"),
              "ip link && tandrelctl -i lan a && tandrelctl -i lan b");
    if (!is_service) {
        EXPECT_EQ(ctl::service_command("start", ""), "tandrel -D 2 -i lan");
        EXPECT_EQ(ctl::service_command("restart", "42"), "kill 42; sleep 1; tandrel -D 2 -i lan");
    }
    ctl::prefix_options = {};
}

TEST_F(Reasons, NoLinkHasThePrefix) {
    kernel.links[0].name = "enp3s0";
    link("lo").hwaddr.clear();
    expect(reason_t::no_link_managed,
           "the kernel has no link whose name begins with 'eth', so tandrel manages none; to"
           " manage other links, start tandrel and tandrelctl with -i PREFIX (the links are: "
           "enp3s0)",
           "", {reason_t::wrong_prefix, reason_t::wrong_prefix, reason_t::link_absent});
}

TEST_F(Reasons, TheOnlyLinkIsUnplugged) {
    kernel.links.clear();
    expect(reason_t::no_link_managed,
           "the kernel has no link whose name begins with 'eth', so tandrel manages none", "",
           {reason_t::link_absent});
}

TEST_F(Reasons, ThePrefixIsWhatTheCommandLineSays) {
    kernel.links.clear();
    link("wlan0");
    prefix = "wlan";
    EXPECT_TRUE(findings().empty());
}

TEST_F(Reasons, NoNumberCanNameALink) {
    link("eth0.5");
    expect(reason_t::no_node_fits,
           "not synchronised: it cannot have an interface node; only eth0, eth1 and so on can", "");
}

TEST_F(Reasons, ALinkIsNotAnEthernetOne) {
    kernel.links[0].ethernet = false;
    kernel.links[0].hwaddr.clear();
    expect(reason_t::not_ethernet, "not synchronised: it is not an Ethernet link", "");
}

TEST_F(Reasons, AnEthernetLinkHasNoHardwareAddress) {
    kernel.links[0].hwaddr.clear();
    expect(reason_t::no_hardware_address, "not synchronised: the link has no hardware address", "");
}

TEST_F(Reasons, TheKernelHasNoIpv6OnTheLink) {
    kernel.links[0].has_ipv6 = false;
    expect(reason_t::no_ipv6, "not synchronised: the kernel has no IPv6 on this link", "");
    kernel.links[0].mtu = 1000;
    expect(reason_t::small_mtu,
           "not synchronised: the link's MTU is 1000, and the kernel has no IPv6 on a link with an "
           "MTU below 1280",
           "ip link set eth0 mtu 1500");
}

TEST_F(Reasons, Ipv6IsDisabledOnTheLink) {
    kernel.links[0].ipv6_refused = true;
    store("x", "2001:db8::5/64");
    store_gateway("fe80::1");
    expect(reason_t::ipv6_disabled,
           "IPv6 is disabled on this link, so the kernel refuses every address and gateway",
           "sysctl -w net/ipv6/conf/eth0/disable_ipv6=0 && tandrelctl nudge");
}

TEST_F(Reasons, TheStoreHasNoNodeForALink) {
    fake_tav::erase(at("1"));
    expect(reason_t::no_store_node,
           "the link is not synchronised, because the store has no interface node 1 for it",
           "tandrelctl interface add eth0");
    route("fe80::1"); // a new, empty node would take it from the kernel
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl import --from-kernel --write eth0");
    kernel.routes.clear();
    address("2001:db8::5", 64);
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl import --from-kernel --write eth0");
}

TEST_F(Reasons, ALinkIsDown) {
    kernel.links[0].up = kernel.links[0].carrier = false;
    expect(reason_t::link_down,
           "the link is down: the kernel does not use its addresses and accepts no gateway "
           "(tandrel(8), CAVEATS, says how to keep settings while a link is down)",
           "ip link set eth0 up");
}

// --- stored addresses that are skipped ---

TEST_F(Reasons, ALeafIsAmongTheAddresses) {
    fake_tav::put(at("1/IPv6/Addresses/7"), "2001:db8::5/64");
    expect(reason_t::address_is_leaf,
           "'/Software/System Settings/Network/Interface/1/IPv6/Addresses/7' is a leaf where an "
           "address node is expected; tandrel ignores it",
           "");
}

TEST_F(Reasons, AStoredAddressHasNoAddressLeaf) {
    fake_tav::put(at("1/IPv6/Addresses/x y/Type/Value"), "Static");
    expect(reason_t::address_leaf_missing,
           "the stored address 'x y' is skipped: it has no leaf Address/Value",
           "tandrelctl address del eth0 --node 'x y'");
}

TEST_F(Reasons, AStoredAddressHasNoTypeLeaf) {
    fake_tav::put(at("1/IPv6/Addresses/x/Address/Value"), "2001:db8::5/64");
    expect(reason_t::type_leaf_missing,
           "the stored address 'x' ('2001:db8::5/64') is skipped: it has no leaf Type/Value",
           "tandrelctl address replace eth0 2001:db8::5/64");
    address("2001:db8::5", 48);
    store("office", "2001:db8::5/48");
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl address del eth0 --node x")
        << "another node has the address";
}

TEST_F(Reasons, AStoredAddressIsNotAString) {
    fake_tav::put(at("1/IPv6/Addresses/x/Address/Value"), number("7"));
    fake_tav::put(at("1/IPv6/Addresses/x/Type/Value"), "Static");
    expect(reason_t::address_not_text,
           "the stored address 'x' is skipped: its leaf Address/Value is not a string",
           "tandrelctl address del eth0 --node x");
}

TEST_F(Reasons, AStoredTypeIsNotAString) {
    fake_tav::put(at("1/IPv6/Addresses/x/Address/Value"), "2001:db8::5/64");
    fake_tav::put(at("1/IPv6/Addresses/x/Type/Value"), number("3"));
    expect(reason_t::type_not_text,
           "the stored address 'x' ('2001:db8::5/64') is skipped: its leaf Type/Value is not a "
           "string",
           "tandrelctl address replace eth0 2001:db8::5/64");
}

TEST_F(Reasons, AStoredAddressHasNoPrefixLength) {
    store("x", "2001:db8::5");
    expect(reason_t::address_without_prefix,
           "the stored address 'x' is skipped: '2001:db8::5' has no prefix length (such as /64)",
           "tandrelctl address replace eth0 2001:db8::5/64");
}

TEST_F(Reasons, AStoredAddressHasABadPrefixLength) {
    store("x", "2001:db8::5/129");
    expect(reason_t::address_bad_prefix,
           "the stored address 'x' is skipped: the prefix length of '2001:db8::5/129' is not a "
           "number from 1 to 128",
           "tandrelctl address replace eth0 2001:db8::5/64");
    for (const std::string text : {"2001:db8::5/0", "2001:db8::5/", "2001:db8::5/64x"}) {
        store("x", text);
        EXPECT_EQ(findings().at(0).fault.reason, reason_t::address_bad_prefix) << text;
    }
}

TEST_F(Reasons, AStoredAddressIsInvalid) {
    store("x", "router\x1b[31m/64");
    expect(reason_t::address_bad_text,
           "the stored address 'x' is skipped: 'router\\x1b[31m/64' is not an IPv6 address",
           "tandrelctl address del eth0 --node x");
    store("x", "192.0.2.1");
    EXPECT_EQ(findings().at(0).fault.reason, reason_t::address_bad_text);
    store("x", "ff02::5", "none"); // an address that cannot be stored again
    EXPECT_EQ(findings().at(0).fault.reason, reason_t::address_unfit);
}

TEST_F(Reasons, AStoredTypeIsUnknown) {
    store("x", "2001:db8::5/64", "static");
    expect(reason_t::type_unknown,
           "the stored address 'x' ('2001:db8::5/64') is skipped: its type 'static' is not Static, "
           "Automatic or Link-Local (case matters)",
           "tandrelctl address replace eth0 2001:db8::5/64");
}

TEST_F(Reasons, SkippedAddressesAreNamedAlsoWhenTheLinkIsAbsent) {
    store("x", "2001:db8::5", "Static", "4");
    expect(reason_t::address_without_prefix,
           "the stored address 'x' is skipped: '2001:db8::5' has no prefix length (such as /64)",
           "tandrelctl address replace eth3 2001:db8::5/64", {reason_t::link_absent});
}

// --- addresses ---

TEST_F(Reasons, AStaticAddressIsInTheStoreOnly) {
    store("x", "2001:db8::5/64");
    expect(reason_t::address_not_in_kernel,
           "2001:db8::5/64 (Static, node 'x') is in the store only; tandrel adds it to the kernel "
           "at its next synchronisation, or, if the link was renamed, after a restart",
           "tandrelctl nudge");
}

TEST_F(Reasons, ALinkCannotHaveSuchAnAddress) {
    store("x", "ff02::5/64");
    expect(reason_t::address_unfit,
           "ff02::5/64 (node 'x') is in the store only: a link cannot have a multicast address",
           "tandrelctl address del eth0 --node x");
    store("x", "::/64");
    EXPECT_EQ(findings().at(0).fault.words.at("type"), "the unspecified address");
    store("x", "::1/128");
    EXPECT_EQ(findings().at(0).fault.words.at("type"), "the loopback address");
}

TEST_F(Reasons, AnAutomaticAddressIsInTheStoreOnly) {
    store("x", "2001:db8::5/64", "Automatic");
    expect(reason_t::address_left_over,
           "2001:db8::5/64 (Automatic, node 'x') is in the store only; for such addresses the "
           "kernel wins, so tandrel removes it at its next synchronisation ('tandrelctl address "
           "replace' makes it a Static one)",
           "tandrelctl nudge");
}

TEST_F(Reasons, AnAddressIsStoredTwice) {
    address("2001:db8::5", 64);
    store("x", "2001:db8::5/64");
    store("y", "2001:db8::5/48");
    expect(reason_t::address_stored_twice,
           "2001:db8::5/48 is stored twice, in the nodes 'x' and 'y'",
           "tandrelctl address del eth0 --node y");
    kernel.addresses.clear();
    address("fe80::5", 64);
    fake_tav::erase(at("1/IPv6/Addresses/y"));
    store("1", "fe80::5/64", "Link-Local");
    store("x", "fe80::5/64");
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl address del eth0 --node 1")
        << "without the Static node tandrel would delete the address";
}

TEST_F(Reasons, AnAddressIsInTheKernelOnly) {
    address("2001:db8::5", 64);
    expect(reason_t::address_not_in_store,
           "2001:db8::5/64 is in the kernel only; tandrel stores it as Automatic within moments, "
           "unless it no longer tracks the address (for example because the link left a bridge)",
           ctl::service_command("restart", ""));
    kernel.addresses[0].flags |= IFA_F_TENTATIVE;
    EXPECT_EQ(findings().at(0).remedy(), "") << "the kernel has not reported it yet";
    kernel.addresses.clear();
    address("fe80::5", 64);
    EXPECT_EQ(findings().at(0).fault.words.at("type"), "Link-Local");
}

TEST_F(Reasons, TheKernelListsAnAddressWithoutItsBytes) {
    address("::", 64).has_address = false;
    expect(reason_t::address_listed_empty,
           "the kernel listed an entry that contains no address; tandrel skips it", "");
}

TEST_F(Reasons, AStaticAddressHasAnotherPrefixLengthInTheKernel) {
    address("2001:db8::5", 64);
    store("x", "2001:db8::5/48");
    expect(reason_t::prefix_static,
           "the kernel has 2001:db8::5/64, the store 2001:db8::5/48 (Static, node 'x'): the "
           "store's prefix length applies, and tandrel changes the kernel's at its next "
           "synchronisation",
           "tandrelctl nudge");
    kernel.addresses.clear();
    address("fe80::5", 64);
    store("x", "fe80::5/48");
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl address replace eth0 fe80::5/64");
}

TEST_F(Reasons, AnAutomaticAddressHasAnotherPrefixLengthInTheKernel) {
    address("2001:db8::5", 64);
    store("x", "2001:db8::5/48", "Automatic");
    expect(reason_t::prefix_of_kernel,
           "the kernel has 2001:db8::5/64, the store 2001:db8::5/48 (Automatic, node 'x'): the "
           "kernel's prefix length applies, and tandrel stores it when the node is removed",
           "tandrelctl address del eth0 --node x --force");
}

TEST_F(Reasons, AnAddressIsStoredUnderAnotherTypeThanTheKernels) {
    address("fe80::5", 64);
    store("x", "fe80::5/64", "Automatic");
    expect(reason_t::type_differs,
           "fe80::5/64 is stored as Automatic (node 'x'), but the kernel has it as Link-Local: "
           "at its next two synchronisations tandrel first removes the node, then stores the "
           "address with the kernel's type",
           "tandrelctl address del eth0 --node x --force");
}

TEST_F(Reasons, DuplicateAddressDetectionFailed) {
    address("2001:db8::5", 64).flags = IFA_F_DADFAILED | IFA_F_TENTATIVE;
    store("x", "2001:db8::5/64");
    expect(reason_t::duplicate_found,
           "2001:db8::5/64: duplicate address detection failed, because another host on the link "
           "uses it; the kernel does not use it; change the other host first",
           "tandrelctl nudge && tandrelctl address del eth0 2001:db8::5/64 --wait && tandrelctl "
           "address add eth0 2001:db8::5/64 --node x --wait");
    store("x", "2001:db8::5/64", "Automatic");
    EXPECT_EQ(findings().at(0).remedy(), "ip -6 address del 2001:db8::5/64 dev eth0");
}

TEST_F(Reasons, AnAddressWaitsForItsLink) {
    kernel.links[0].carrier = false;
    address("2001:db8::5", 64).flags = IFA_F_TENTATIVE;
    store("x", "2001:db8::5/64");
    expect(reason_t::address_waits,
           "2001:db8::5/64 is tentative: the kernel checks it for duplicates first, which needs "
           "the link to be up and connected",
           "");
    kernel.links[0].carrier = true;
    EXPECT_TRUE(findings().empty()) << "a moment's state, not worth a word";
}

TEST_F(Reasons, AnAddressHasAPeer) {
    address("2001:db8::9", 64).has_peer = true;
    store("x", "2001:db8::9/64");
    expect(reason_t::address_has_peer,
           "2001:db8::9/64 is the peer of a point-to-point address; tandrel treats it as the "
           "link's own",
           "");
}

// --- gateways and routes ---

TEST_F(Reasons, TheStoredGatewayHasNoLeaf) {
    fake_tav::put_node(at("1/IPv6/Default Gateway"));
    expect(reason_t::gateway_leaf_missing,
           "the stored gateway has no leaf Value; tandrel treats it as no gateway",
           "tandrelctl gateway clear eth0");
}

TEST_F(Reasons, TheStoredGatewayIsNotAString) {
    fake_tav::put(at("1/IPv6/Default Gateway/Value"), number("1"));
    expect(reason_t::gateway_not_text,
           "the stored gateway is skipped: its leaf Value is not a string",
           "tandrelctl gateway clear eth0");
}

TEST_F(Reasons, TheStoredGatewayHasABadPrefixLength) {
    store_gateway("fe80::1/0");
    expect(reason_t::gateway_bad_prefix,
           "the stored gateway is skipped: 'fe80::1/0' has an invalid prefix length; a gateway "
           "needs none",
           "tandrelctl gateway set eth0 fe80::1");
    route("fe80::1");
    store_gateway("fe80::1/64");
    EXPECT_TRUE(findings().empty()) << "a good one is let pass";
    kernel.routes.clear();
    store_gateway("2001:db8:9::1/0"); // which the kernel would refuse
    EXPECT_EQ(findings().at(0).remedy(), "tandrelctl gateway clear eth0");
}

TEST_F(Reasons, TheStoredGatewayIsInvalid) {
    store_gateway("router");
    expect(reason_t::gateway_bad_text,
           "the stored gateway is skipped: 'router' is not an IPv6 address",
           "tandrelctl gateway clear eth0");
}

// Whoever carries out both must not end with no gateway.
TEST_F(Reasons, TheGatewayOfTheKernelIsStoredInPlaceOfAnInvalidOne) {
    store_gateway("router");
    route("fe80::1");
    expect(reason_t::gateway_bad_text,
           "the stored gateway is skipped: 'router' is not an IPv6 address",
           "tandrelctl gateway set eth0 fe80::1", {reason_t::gateway_not_in_store});
    expect(reason_t::gateway_not_in_store,
           "the gateway fe80::1 is in the kernel only; unless tandrel writes it to the store "
           "within moments, it removes the route at its next synchronisation",
           "", {reason_t::gateway_bad_text});
}

TEST_F(Reasons, TheKernelAcceptsNoSuchGateway) {
    store_gateway("::");
    expect(reason_t::gateway_unfit,
           "the gateway :: is in the store only: the kernel refuses it because it is the "
           "unspecified address",
           "tandrelctl gateway clear eth0");
    store_gateway("2001:db8::5");
    address("2001:db8::5", 64);
    store("x", "2001:db8::5/64");
    EXPECT_EQ(findings().at(0).fault.words.at("type"), "this link's own address");
}

TEST_F(Reasons, TheLinkOfTheGatewayIsDown) {
    kernel.links[0].up = kernel.links[0].carrier = false;
    store_gateway("fe80::1");
    expect(reason_t::gateway_link_down,
           "the gateway fe80::1 is in the store only: the kernel accepts no route over a link that "
           "is down, and tandrel does not try again when the link comes up",
           "ip link set eth0 up && tandrelctl nudge", {reason_t::link_down});
}

TEST_F(Reasons, NoNetworkOfTheLinkContainsTheGateway) {
    store_gateway("2001:db8:9::1");
    expect(reason_t::gateway_unreachable,
           "the gateway 2001:db8:9::1 is in the store only: no network of eth0 contains it, so the "
           "kernel refuses it; give eth0 an address of the gateway's network and run 'tandrelctl "
           "nudge', use the router's link-local address, or remove the gateway",
           "tandrelctl gateway clear eth0");
    ctl::kernel_route_t &network = route("::", RTPROT_KERNEL);
    network.route.dst = bytes("2001:db8:8::");
    network.route.dst_len = 47;
    EXPECT_EQ(findings().at(0).fault.reason, reason_t::gateway_not_in_kernel);
    network.route.dst_len = 48;
    EXPECT_EQ(findings().at(0).fault.reason, reason_t::gateway_unreachable);
}

TEST_F(Reasons, TheKernelHasTheGatewayUnderAnotherProtocol) {
    store_gateway("fe80::1");
    route("fe80::1", RTPROT_RA);
    expect(reason_t::gateway_taken,
           "the gateway fe80::1 is in the store, but the kernel has the same route with protocol "
           "ra, and refuses a second, static one",
           "tandrelctl nudge && ip -6 route del default via fe80::1 dev eth0 proto ra metric 1024 "
           "&& tandrelctl nudge",
           {reason_t::route_other_protocol});
    kernel.routes[0].metric = 512; // is no obstacle
    EXPECT_EQ(findings().at(1).fault.reason, reason_t::gateway_not_in_kernel);
}

TEST_F(Reasons, TheGatewayIsInTheStoreOnly) {
    store_gateway("fe80::1");
    expect(reason_t::gateway_not_in_kernel,
           "the gateway fe80::1 is in the store only; tandrel adds the route at its next "
           "synchronisation, or, if the link was renamed, after a restart",
           "tandrelctl nudge");
}

TEST_F(Reasons, TheGatewayIsInTheKernelOnly) {
    route("fe80::1");
    expect(reason_t::gateway_not_in_store,
           "the gateway fe80::1 is in the kernel only; unless tandrel writes it to the store "
           "within moments, it removes the route at its next synchronisation",
           "tandrelctl gateway set eth0 fe80::1");
}

TEST_F(Reasons, TheGatewaysDiffer) {
    route("fe80::1");
    store_gateway("fe80::2");
    expect(reason_t::gateway_differs,
           "the kernel's gateway is fe80::1, the store's fe80::2: the store's applies, and tandrel "
           "replaces the kernel's at its next synchronisation",
           "tandrelctl nudge");
}

TEST_F(Reasons, TheKernelHasASecondStaticDefaultRoute) {
    route("fe80::2");
    route("fe80::1");
    store_gateway("fe80::1");
    expect(reason_t::gateway_second,
           "the kernel has another static default route, via fe80::2; tandrel keeps only a link's "
           "newest one, and removes the other within moments",
           "");
}

TEST_F(Reasons, ADefaultRouteHasAnotherProtocol) {
    route("fe80::1", RTPROT_BOOT);
    expect(reason_t::route_other_protocol,
           "the default route via fe80::1 has protocol boot; tandrel manages only static ones",
           "tandrelctl gateway set eth0 fe80::1 && tandrelctl nudge && ip -6 route del default via "
           "fe80::1 dev eth0 proto boot metric 1024 && tandrelctl nudge");
    kernel.routes[0].route.protocol = RTPROT_RA;
    EXPECT_EQ(findings().at(0).remedy(), "") << "that is the router's";
}

TEST_F(Reasons, AStaticRouteHasADestination) {
    ctl::kernel_route_t &one = route("fe80::1");
    one.route.dst = bytes("2001:db8:5::");
    one.route.dst_len = 48;
    expect(reason_t::route_with_destination,
           "tandrel ignores the route to 2001:db8:5::/48; it manages only default routes", "");
    one.route.protocol = RTPROT_KERNEL;
    EXPECT_TRUE(findings().empty()) << "the kernel's own routes are no news";
}

TEST_F(Reasons, ADefaultRouteHasNoGateway) {
    route("::");
    expect(reason_t::route_without_gateway, "tandrel ignores a default route without a gateway",
           "");
}

TEST_F(Reasons, ADefaultRouteIsJoinedWithOthers) {
    ctl::kernel_route_t &one = route("fe80::1");
    one.multipath = true;
    one.has_index = false;
    expect(reason_t::route_multipath,
           "tandrel ignores the default route via fe80::1: the kernel has combined it with others "
           "of the same metric, and does not report its link",
           "tandrelctl gateway set eth0 fe80::1");
    store_gateway("fe80::1");
    EXPECT_TRUE(findings().empty()) << "two links have gateways";
}

TEST_F(Reasons, ADefaultRouteIsThereTwice) {
    route("fe80::1").metric = 512;
    route("fe80::1");
    store_gateway("fe80::1");
    expect(reason_t::route_other_metric,
           "the kernel has the default route via fe80::1 a second time, with metric 512; when the "
           "gateway is removed, one of the two stays",
           "");
}

TEST_F(Reasons, ADefaultRouteIsInAnotherTable) {
    route("fe80::1").table = 100;
    store_gateway("fe80::1");
    expect(reason_t::route_other_table,
           "the default route via fe80::1 is in table 100; tandrel treats it as a route of the "
           "main table",
           "");
}

// --- the daemon ---

TEST_F(Reasons, TheDaemonDoesNotWork) {
    const auto expect_finding = [](ctl::daemon_t state, const std::string &sentence,
                                   const std::string &remedy) {
        const auto finding = ctl::daemon_finding({state, 42, 61000, "of the moon"});
        ASSERT_TRUE(finding);
        EXPECT_EQ(finding->sentence(), sentence);
        EXPECT_EQ(finding->remedy(), remedy);
    };
    expect_finding(ctl::daemon_t::absent, "it is not running here, so nothing is synchronised",
                   ctl::service_command("start", ""));
    expect_finding(ctl::daemon_t::disconnected,
                   "it is not connected to the settings store, so nothing is synchronised; it "
                   "tries again every ten seconds, and its log says why",
                   "");
    expect_finding(ctl::daemon_t::hangs,
                   "it is connected to the settings store, but has not responded for 1m1s",
                   ctl::service_command("restart", "42"));
    expect_finding(ctl::daemon_t::unknown, "cannot tell whether it is running: of the moon", "");
    EXPECT_FALSE(ctl::daemon_finding({ctl::daemon_t::working, 42, 0, ""}));
    EXPECT_STREQ(ctl::verdict(ctl::daemon_t::working), "kernel and store agree");
    EXPECT_STREQ(ctl::verdict(ctl::daemon_t::unknown), "kernel and store have the same settings; "
                                                       "whether tandrel is running is not known");
}

TEST_F(Reasons, TheDaemonManagesLinksWithAnotherPrefix) {
    ctl::daemon_state_t daemon{ctl::daemon_t::working, 42, 0, ""};
    EXPECT_FALSE(ctl::prefix_finding(daemon, "eth")) << "not known";
    daemon.prefix = "enp3s";
    EXPECT_FALSE(ctl::prefix_finding(daemon, "enp3s"));
    const auto finding = ctl::prefix_finding(daemon, "eth");
    ASSERT_TRUE(finding);
    EXPECT_EQ(finding->fault.reason, reason_t::daemon_prefix);
    EXPECT_EQ(
        finding->sentence(),
        "it manages links whose names begin with 'enp3s', not 'eth'; use tandrelctl -i enp3s");
    EXPECT_EQ(finding->remedy(), "");
}

} // namespace
