// The commands that change the store, over the fake store.
#include <functional>

#include "ctl/look_fixture.h"

namespace {

using strings = std::vector<std::string>;

class Editing : public LookTest {
protected:
    Editing() {
        options.link = "eth0";
        seen = &kernel;
        ctl::kernel_reader = [] { return *seen; };
    }
    ~Editing() override { ctl::kernel_reader = ctl::read_kernel; }

    static strings stored() { return fake_tav::dump(); }
    static std::string below(const std::string &path) { return at("1/IPv6/" + path); }

    // The text with which the command refuses, after checking its exit code; "" if it does not
    // refuse.
    std::string refused(int code, int (*command)(const ctl::options_t &)) {
        try {
            command(options);
        } catch (const ctl::refusal &reason) {
            EXPECT_EQ(reason.code, code);
            return reason.what();
        }
        return "";
    }

    std::string printed(int (*command)(const ctl::options_t &)) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(command(options), 0);
        return testing::internal::GetCapturedStdout();
    }

    static inline const ctl::kernel_view_t *seen = nullptr;
    ctl::options_t options;
};

// --- what cannot work ---

TEST_F(Editing, ASettingForALinkThatTheKernelLacksNeedsForce) {
    options.link = "eth7";
    options.address = "2001:db8::5/64";
    EXPECT_EQ(refused(1, ctl::address_add),
              "the kernel has no link 'eth7'; to store it anyway, use --force");
    EXPECT_NE(refused(1, ctl::address_replace), "");
    EXPECT_NE(refused(1, ctl::interface_add), "");
    options.address = "fe80::1";
    EXPECT_NE(refused(1, ctl::gateway_set), "");
    EXPECT_EQ(fake_tav::writes(), 0U);
    options.force = true;
    EXPECT_EQ(ctl::gateway_set(options), 0);
    options.force = false;
    store("x", "2001:db8::5", "Static", "8"); // what is stored may be corrected
    options.address = "2001:db8::5/64";
    EXPECT_EQ(ctl::address_replace(options), 0);
}

TEST_F(Editing, ASettingForALinkThatIsNotManagedNeedsForce) {
    options.address = "2001:db8::5/64";
    kernel.links[0].has_ipv6 = false;
    kernel.links[0].mtu = 1000;
    EXPECT_EQ(refused(1, ctl::address_add), "tandrel does not manage 'eth0': it has no IPv6 (MTU "
                                            "1000); to store it anyway, use --force");
    kernel.links[0].ethernet = false;
    EXPECT_EQ(refused(1, ctl::address_add), "tandrel does not manage 'eth0': it is not an Ethernet "
                                            "link; to store it anyway, use --force");
}

TEST_F(Editing, AGatewayThatTheKernelWouldRefuseNeedsForce) {
    options.address = "2001:db8::1";
    EXPECT_EQ(refused(1, ctl::gateway_set),
              "no network of eth0 contains '2001:db8::1', so the kernel would refuse it, and the "
              "present gateway would be lost; add an address of its network first, or use --force");
    store("x", "2001:db8::5/64");
    EXPECT_EQ(ctl::gateway_set(options), 0) << "the kernel will have that network";
    address("2001:db8::1", 64);
    EXPECT_EQ(refused(1, ctl::gateway_set), "'2001:db8::1' is this link's own address; to store "
                                            "it anyway, use --force");
    options.address = "fe80::1";
    EXPECT_EQ(ctl::gateway_set(options), 0);
    route("fe80::1", RTPROT_RA);
    EXPECT_EQ(refused(1, ctl::gateway_set),
              "a router advertisement has set the default route via 'fe80::1' already, and the "
              "kernel refuses a second one; to store it anyway, use --force");
    options.force = true;
    EXPECT_EQ(ctl::gateway_set(options), 0);
}

TEST_F(Editing, AGatewayThatTheKernelHasIsAccepted) {
    options.address = "2001:db8:9::1";
    route("2001:db8:9::1");
    EXPECT_EQ(ctl::gateway_set(options), 0);
}

TEST_F(Editing, CheckLooksTwiceBeforeItReportsADifference) {
    static bool first;
    first = true;
    address("2001:db8::5", 64);
    ctl::kernel_reader = [] {
        ctl::kernel_view_t view = *seen;
        if (!std::exchange(first, false)) {
            view.addresses.clear();
        }
        return view;
    };
    testing::internal::CaptureStdout();
    ctl::check(options);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("2001:db8::5"), std::string::npos);
    EXPECT_FALSE(first);
}

// --- what would change ---

TEST_F(Editing, ADryRunPrintsBothSidesAndChangesNothing) {
    options.dry_run = true;
    store("x", "2001:db8::5/48");
    address("2001:db8::5", 48);
    route("fe80::1");
    store_gateway("fe80::1");
    const strings before = stored();
    const std::string ipv6 = "store: set '" + at("1/IPv6/");
    options.address = "2001:db8::5/64";
    EXPECT_EQ(printed(ctl::address_replace),
              ipv6 + "Addresses/x/Address/Value' to 2001:db8::5/64\n" + ipv6 +
                  "Addresses/x/Type/Value' to Static\n"
                  "kernel: eth0: remove address 2001:db8::5/48\n"
                  "kernel: eth0: add address 2001:db8::5/64\nnothing was changed\n");
    options.address = "2001:db8::5";
    EXPECT_EQ(printed(ctl::address_delete),
              "store: remove '" + at("1/IPv6/Addresses/x") +
                  "'\nkernel: eth0: remove address 2001:db8::5/48\nnothing was changed\n");
    options.address = "fe80::2";
    EXPECT_EQ(printed(ctl::gateway_set),
              ipv6 + "Default Gateway/Value' to fe80::2\n"
                     "kernel: eth0: remove default route via fe80::1\n"
                     "kernel: eth0: add default route via fe80::2\nnothing was changed\n");
    EXPECT_EQ(printed(ctl::gateway_clear),
              "store: remove '" + at("1/IPv6/Default Gateway") +
                  "'\nkernel: eth0: remove default route via fe80::1\nnothing was changed\n");
    options.force = true;
    options.address.clear();
    EXPECT_EQ(printed(ctl::interface_delete),
              "store: remove '" + at("1") + "'\nnothing was changed\n")
        << "the kernel keeps what it has";
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(fake_tav::writes(), 0U);
}

TEST_F(Editing, AnAddressIsStoredWithBothLeavesInOneTransaction) {
    options.address = "2001:DB8:0::5/64";
    EXPECT_EQ(ctl::address_add(options), 0);
    const auto calls = fake_tav::calls("set_leaves");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].paths, (std::vector<tk_string>{below("Addresses/1/Address/Value"),
                                                      below("Addresses/1/Type/Value")}));
    EXPECT_EQ(calls[0].values.at(0).to_string(), "2001:db8::5/64");
    EXPECT_EQ(calls[0].values.at(1).to_string(), "Static");
    EXPECT_EQ(calls[0].values.at(0).type(), element_type_string);
    EXPECT_EQ(calls[0].flags, std::vector<mlr_tribool_t>(2, static_cast<mlr_tribool_t>(2)));
    EXPECT_EQ(calls[0].reserved, "");
    EXPECT_EQ(fake_tav::writes(), 1U);
    EXPECT_EQ(fake_tav::state().clients_opened, fake_tav::state().clients_closed);
}

TEST_F(Editing, ANewNodeTakesTheFirstFreeNumber) {
    store("1", "2001:db8::1/64");
    fake_tav::put(below("Addresses/2"), "a leaf takes a name as well");
    store("4", "spoilt");
    options.address = "2001:db8::5/64";
    ctl::address_add(options);
    EXPECT_EQ(fake_tav::text(below("Addresses/3/Address/Value")), "2001:db8::5/64");
}

TEST_F(Editing, ANodeMayBeNamed) {
    options.address = "2001:db8::5/64";
    options.node = "office";
    ctl::address_add(options);
    EXPECT_EQ(fake_tav::text(below("Addresses/office/Address/Value")), "2001:db8::5/64");
    options.address = "2001:db8::6/64";
    EXPECT_EQ(refused(1, ctl::address_add),
              "node 'office' already exists and contains '2001:db8::5/64'");
    options.node = "a/b";
    EXPECT_EQ(refused(2, ctl::address_add), "a node name cannot contain '/'");
}

TEST_F(Editing, TheInterfaceNodeComesWithTheAddress) {
    link("eth2");
    options.link = "eth2";
    options.address = "2001:db8::5/64";
    ctl::address_add(options);
    EXPECT_EQ(fake_tav::text(at("3/IPv6/Addresses/1/Type/Value")), "Static");
}

TEST_F(Editing, UnusableAddressesAreRefused) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"2001:db8::5", "'2001:db8::5' has no prefix length; write for example 2001:db8::5/64"},
        {"2001:db8::5/0", "the prefix length of '2001:db8::5/0' is not a number from 1 to 128"},
        {"2001:db8::5/129", "the prefix length of '2001:db8::5/129' is not a number from 1 to 128"},
        {"192.0.2.1/24", "'192.0.2.1/24' is not an IPv6 address"},
        {"router/64", "'router/64' is not an IPv6 address"},
        {"ff02::1/64", "'ff02::1/64' is a multicast address, which a link cannot have"},
        {"::/64", "'::/64' is the unspecified address, which a link cannot have"},
        {"::1/128", "'::1/128' is the loopback address, which a link cannot have"}};
    for (const auto &[text, reason] : cases) {
        options.address = text;
        EXPECT_EQ(refused(2, ctl::address_add), reason);
        EXPECT_EQ(refused(2, ctl::address_replace), reason);
    }
    options.address = "2001:db8::5/64";
    options.link = "wlan0";
    EXPECT_EQ(refused(2, ctl::address_add), "'wlan0' cannot have an interface node; only eth0, "
                                            "eth1 and so on can (use -i for another prefix)");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

TEST_F(Editing, AnAddressIsNotStoredTwice) {
    store("x", "2001:db8::5/48", "Automatic");
    options.address = "2001:db8::5/64";
    EXPECT_EQ(refused(1, ctl::address_add), "'2001:db8::5/48' is already stored (Automatic, node "
                                            "'x'); use 'tandrelctl address replace' to change it");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

TEST_F(Editing, ReplaceChangesTheNodeThatHoldsTheAddress) {
    store("x", "2001:db8::5/48", "Automatic");
    options.address = "2001:db8::5/64";
    EXPECT_EQ(ctl::address_replace(options), 0);
    EXPECT_EQ(fake_tav::text(below("Addresses/x/Address/Value")), "2001:db8::5/64");
    EXPECT_EQ(fake_tav::text(below("Addresses/x/Type/Value")), "Static");
    EXPECT_EQ(stored().size(), 2U);
    EXPECT_NE(
        captured::standard_error().find("tandrelctl: it was Automatic; as a Static address it "
                                        "is removed from the kernel when it is deleted\n"),
        std::string::npos);
    store("y", "2001:db8::6/64", "static");
    options.address = "2001:db8::6/64";
    ctl::address_replace(options);
    EXPECT_EQ(fake_tav::text(below("Addresses/y/Type/Value")), "Static") << "mends a wrong type";
    store("y", "2001:db8::6");
    ctl::address_replace(options);
    EXPECT_EQ(fake_tav::text(below("Addresses/y/Address/Value")), "2001:db8::6/64")
        << "mends a missing prefix length";
    options.address = "2001:db8::7/64";
    ctl::address_replace(options);
    EXPECT_EQ(fake_tav::text(below("Addresses/1/Address/Value")), "2001:db8::7/64");
}

TEST_F(Editing, AnAddressIsDeletedByItsBytesOrItsNode) {
    store("x", "2001:db8::5/64");
    store("y", "2001:db8::6/64");
    store("z", "spoilt");
    options.address = "2001:DB8::5";
    EXPECT_EQ(ctl::address_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(below("Addresses/x")));
    options.address = "2001:db8::6/64";
    EXPECT_EQ(ctl::address_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(below("Addresses/y")));
    options.address.clear();
    options.node = "z";
    EXPECT_EQ(ctl::address_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(below("Addresses/z")));
    EXPECT_EQ(fake_tav::calls("remove_node").size(), 3U);
}

TEST_F(Editing, OnlyTheGivenAddressIsDeleted) {
    store("x", "2001:db8::5/64");
    store("y", "fe80::5/64", "Link-Local");
    options.address = "2001:db8::5/48";
    EXPECT_EQ(refused(1, ctl::address_delete), "it is stored as '2001:db8::5/64'");
    options.address = "2001:db8::6";
    EXPECT_EQ(refused(1, ctl::address_delete), "'2001:db8::6' is not stored for eth0");
    options.address = "nonsense";
    EXPECT_EQ(refused(2, ctl::address_delete), "'nonsense' is not an IPv6 address");
    options.address = "fe80::5";
    EXPECT_EQ(
        refused(1, ctl::address_delete),
        "'fe80::5/64' is Link-Local: the kernel assigned it, and tandrel would store it again. "
        "Delete it in the kernel (ip -6 address del fe80::5/64 dev eth0), or use --force");
    options.node = "x";
    EXPECT_EQ(refused(2, ctl::address_delete), "give either the address or --node");
    options.address.clear();
    options.node = "nowhere";
    EXPECT_EQ(refused(1, ctl::address_delete), "no address node 'nowhere' is stored for eth0");
    EXPECT_EQ(fake_tav::writes(), 0U);
    options.node = "y";
    options.force = true;
    EXPECT_EQ(ctl::address_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(below("Addresses/y")));
}

TEST_F(Editing, TheGatewayIsSetAndCleared) {
    options.address = "FE80::1";
    EXPECT_EQ(ctl::gateway_set(options), 0);
    EXPECT_EQ(fake_tav::text(below("Default Gateway/Value")), "fe80::1");
    EXPECT_EQ(ctl::gateway_clear(options), 0);
    EXPECT_FALSE(fake_tav::exists(below("Default Gateway")));
    EXPECT_EQ(refused(1, ctl::gateway_clear), "no gateway is stored for eth0");
}

TEST_F(Editing, AGatewayThatCannotBeOneIsRefused) {
    options.address = "fe80::1/64";
    EXPECT_EQ(refused(2, ctl::gateway_set),
              "a gateway has no prefix length; give the router's address alone");
    options.address = "router";
    EXPECT_EQ(refused(2, ctl::gateway_set), "'router' is not an IPv6 address");
    options.address = "::";
    EXPECT_EQ(refused(2, ctl::gateway_set),
              "'::' is the unspecified address, which cannot be a gateway");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

TEST_F(Editing, AnInterfaceNodeIsMadeOnceAndStaysEmpty) {
    link("eth1");
    EXPECT_EQ(refused(1, ctl::interface_add),
              "the store already has the interface node '1' for eth0");
    fake_tav::erase(at("1"));
    fake_tav::put_node(at("01"));
    EXPECT_EQ(refused(1, ctl::interface_add),
              "the store already has the interface node '01' for eth0; to rename it: tandrelctl "
              "interface merge eth0");
    fake_tav::put_node(at("1"));
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_EQ(captured::standard_error(), "tandrelctl: eth0 has another interface node, with which "
                                          "it is still synchronised\n");
    options.link = "eth1";
    EXPECT_EQ(ctl::interface_add(options), 0);
    EXPECT_EQ(stored(), (strings{at("1/"), at("2/IPv6/Addresses/")}));
    options.link = "eth3"; // a stale node
    options.force = true;
    EXPECT_EQ(ctl::interface_add(options), 0);
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_NE(
        captured::standard_error().find("tandrelctl: eth3 has no interface node any more; the "
                                        "kernel has no such link\n"),
        std::string::npos);
}

// The daemon would remove the gateway, and store the addresses as the kernel's own.
TEST_F(Editing, AnEmptyNodeForALinkWithSettingsNeedsForce) {
    fake_tav::erase(at("1"));
    address("fe80::5", 64);
    route("fe80::1", RTPROT_RA);
    options.dry_run = true;
    EXPECT_EQ(refused(1, ctl::interface_add), "") << "nothing that a person has set";
    route("fe80::2").has_index = false;
    EXPECT_EQ(refused(1, ctl::interface_add), "") << "tandrel ignores it";
    route("fe80::1");
    const std::string text =
        "the kernel has settings for eth0; with an empty node tandrel would "
        "remove the link's gateway and the addresses that it knows as Static, and "
        "store the others as Automatic. To store them instead: tandrelctl import --from-kernel "
        "--write eth0; to "
        "create the node anyway, use --force";
    EXPECT_EQ(refused(1, ctl::interface_add), text);
    kernel.routes.clear();
    address("2001:db8::5", 64);
    EXPECT_EQ(refused(1, ctl::interface_add), text);
    options.force = true;
    EXPECT_EQ(ctl::interface_add(options), 0);
}

TEST_F(Editing, AStoreThatKeepsNoEmptyNodesIsReported) {
    link("eth1");
    options.link = "eth1";
    fake_tav::on_path("remove_node", at("2/IPv6/Addresses/tandrelctl-nudge")).runs([] {
        fake_tav::erase(at("2"));
        fake_tav::put(at("2/IPv6/Addresses/tandrelctl-nudge/Type/Value"), "none");
        fake_tav::on_path("list_node", "/Software/System Settings/Network/Interface").statuses({2});
    });
    EXPECT_EQ(refused(1, ctl::interface_add),
              "this store keeps no empty nodes; store an address or a gateway for eth1 instead");
}

TEST_F(Editing, AnInterfaceNodeWithSettingsIsRemovedByForceOnly) {
    store("x", "2001:db8::5/64");
    EXPECT_EQ(refused(1, ctl::interface_delete),
              "'/Software/System Settings/Network/Interface/1' contains settings that would be "
              "lost; use --force to remove them too");
    options.force = true;
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(at("1")));
    EXPECT_EQ(captured::standard_error(), "tandrelctl: eth0 is no longer synchronised; the kernel "
                                          "keeps its addresses and its gateway\n");
    EXPECT_EQ(refused(1, ctl::interface_delete), "the store has no node for eth0");
}

TEST_F(Editing, OtherProgramsSettingsAreProtectedToo) {
    fake_tav::put(at("1/IPv4/Value"), "192.0.2.1");
    EXPECT_NE(refused(1, ctl::interface_delete), "");
    fake_tav::put(at("wan/Value"), "x");
    options.link.clear();
    options.node = "wan";
    EXPECT_NE(refused(1, ctl::interface_delete), "");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

TEST_F(Editing, WhatTheKeeperRemembersLeavesWithTheLastInterfaceNode) {
    const std::string memory = "/Software/tandrel/Keeper/Links/eth0";
    fake_tav::put(memory + "/Addresses/2001:db8::5/Value", "2001:db8::5/64");
    fake_tav::put("/Software/tandrel/Keeper/Links/eth1/Gateway/Value", "fe80::1");
    fake_tav::put_node(at("01"));
    options.node = "01";
    options.link.clear();
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_TRUE(fake_tav::exists(memory)) << "the link has another node";
    options.node = "1";
    EXPECT_EQ(refused(1, ctl::interface_delete),
              "'tandrelctl keep' remembers settings of eth0 that would be lost (keep --list); use "
              "--force to forget them too");
    options.force = true;
    options.dry_run = true;
    EXPECT_EQ(printed(ctl::interface_delete), "store: remove '" + at("1") + "'\nstore: remove " +
                                                  memory + "\nnothing was changed\n");
    options.dry_run = false;
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(memory));
    EXPECT_TRUE(fake_tav::exists("/Software/tandrel/Keeper/Links/eth1"));
}

TEST_F(Editing, WhatOnlyTheKeeperRemembersCanBeRemoved) {
    const std::string memory = "/Software/tandrel/Keeper/Links/eth0";
    fake_tav::put(memory + "/Addresses/2001:db8::5/Value", "2001:db8::5/64");
    fake_tav::put(memory + "/Addresses/2001:db8::6/Value", "2001:db8::6/64");
    fake_tav::put(memory + "/Gateway/Value", "fe80::1");
    options.address = "2001:db8::5/64";
    EXPECT_EQ(ctl::address_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(memory + "/Addresses/2001:db8::5"));
    EXPECT_NE(refused(1, ctl::address_delete), "");
    EXPECT_TRUE(fake_tav::exists(memory + "/Gateway"));
    EXPECT_EQ(ctl::gateway_clear(options), 0);
    EXPECT_FALSE(fake_tav::exists(memory + "/Gateway"));
    EXPECT_TRUE(fake_tav::exists(memory + "/Addresses/2001:db8::6"));
}

TEST_F(Editing, AnInterfaceNodeWithOnlyTheKernelsAddressesIsRemovedWithoutForce) {
    store("1", "fe80::5/64", "Link-Local");
    EXPECT_EQ(ctl::interface_delete(options), 0);
    fake_tav::put_node(at("wan port"));
    options.link.clear();
    options.node = "wan port";
    EXPECT_EQ(ctl::interface_delete(options), 0);
    EXPECT_FALSE(fake_tav::exists(at("wan port")));
    options.node = "0";
    EXPECT_EQ(refused(1, ctl::interface_delete), "the store has no interface node '0'");
}

// Another client used the name in the meantime: the store refuses the write, and the command uses
// the next name. The other client's node is not changed.
TEST_F(Editing, ANodeThatAnotherClientJustCreatedIsNotOverwritten) {
    fake_tav::on_call("set_leaves").statuses({8, 8}).runs([] { store("1", "2001:db8::77/64"); });
    options.address = "2001:db8::5/64";
    EXPECT_EQ(ctl::address_add(options), 0);
    EXPECT_EQ(fake_tav::text(below("Addresses/1/Address/Value")), "2001:db8::77/64");
    EXPECT_EQ(fake_tav::text(below("Addresses/2/Address/Value")), "2001:db8::5/64");
    EXPECT_EQ(fake_tav::calls("events_get").size(), 2U) << "the events were taken before each try";
}

TEST_F(Editing, APersistentRefusalIsReportedWithItsPath) {
    for (unsigned i = 1; i <= 5; ++i) {
        fake_tav::on_call("set_leaves", i).statuses({9, 10});
    }
    options.address = "2001:db8::5/64";
    EXPECT_EQ(refused(1, ctl::address_add), "the store refused to change '" +
                                                below("Addresses/1/Address/Value") +
                                                "' (status 9); try again");
    EXPECT_EQ(fake_tav::calls("set_leaves").size(), 5U);
}

TEST_F(Editing, LosingTheStoreIsNotARefusal) {
    options.address = "2001:db8::5/64";
    for (const std::string call : {"set_leaves", "list_node", "events_get", "get_leaf"}) {
        store("z", "2001:db8::9/64");
        fake_tav::on_call(call).returns(-1);
        EXPECT_THROW(ctl::address_add(options), ctl::store_lost) << call;
    }
    fake_tav::state().failing_inits = 2; // it tries once to subscribe and once to complain
    EXPECT_THROW(ctl::address_add(options), ctl::store_lost);
    EXPECT_EQ(fake_tav::state().clients_opened, fake_tav::state().clients_closed);
}

TEST_F(Editing, TheSettingsOfSeveralNodesAreMerged) {
    EXPECT_EQ(refused(1, ctl::interface_merge), "the store has no second node for eth0");
    store("x", "2001:db8::1/64");
    store("x", "2001:db8::2/64", "Static", "01");
    store("y", "2001:db8::1/64", "Static", "01");
    store("z", "2001:db8::3/64", "Automatic", "01");
    fake_tav::put(at("01/IPv6/Default Gateway/Value"), "fe80::1");
    EXPECT_EQ(ctl::interface_merge(options), 0);
    EXPECT_EQ(fake_tav::text(below("Addresses/x/Address/Value")), "2001:db8::1/64");
    EXPECT_EQ(fake_tav::text(below("Addresses/1/Address/Value")), "2001:db8::2/64");
    EXPECT_EQ(fake_tav::text(below("Addresses/1/Type/Value")), "Static");
    EXPECT_EQ(fake_tav::text(below("Default Gateway/Value")), "fe80::1");
    EXPECT_EQ(look().interfaces.at(0).addresses.size(), 2U);
    EXPECT_TRUE(look().interfaces.at(0).findings.empty() ||
                look().interfaces.at(0).findings.at(0).fault.reason !=
                    ctl::reason_t::interface_twice);
    store("x", "2001:db8::2/64", "Static", "01");
    fake_tav::put(at("01/Label"), "office");
    EXPECT_EQ(refused(1, ctl::interface_merge),
              "'" + at("01") +
                  "' also contains something that tandrel does not use; use --force to remove it "
                  "too");
    options.force = true;
    EXPECT_EQ(ctl::interface_merge(options), 0);
}

TEST_F(Editing, AMergeLosesNothingWithoutForce) {
    store("x", "2001:db8::1/64");
    fake_tav::put(below("Default Gateway/Value"), "fe80::1");
    const auto expect_refusal = [&](const std::string &what) {
        EXPECT_EQ(refused(1, ctl::interface_merge),
                  "'" + at("01") + "' also contains " + what + "; use --force to remove it too");
        fake_tav::erase(at("01"));
    };
    store("y", "2001:db8::1/48", "Static", "01");
    expect_refusal("2001:db8::1/48 with another prefix length");
    store("y", "2001:db8::2", "Static", "01");
    expect_refusal("the unusable address 'y'");
    fake_tav::put(at("01/IPv6/Default Gateway/Value"), "fe80::2");
    expect_refusal("the gateway fe80::2");
    fake_tav::put(at("01/IPv6/Default Gateway/Value"), "router");
    expect_refusal("an unusable gateway");
    fake_tav::put(at("01/IPv6/Default Gateway/Value"), "fe80::1");
    fake_tav::put(below("Default Gateway/Value"), "router");
    EXPECT_EQ(ctl::interface_merge(options), 0);
    EXPECT_EQ(fake_tav::text(below("Default Gateway/Value")), "fe80::1");
}

TEST_F(Editing, AnInterfaceNodeThatNothingCanBeMovedFromIsReplaced) {
    fake_tav::erase(at("1"));
    fake_tav::put_node(at("01"));
    EXPECT_EQ(ctl::interface_merge(options), 0);
    EXPECT_FALSE(fake_tav::exists(at("01")));
    EXPECT_TRUE(fake_tav::exists(at("1")));
}

TEST_F(Editing, AnAddressThatIsStoredTwiceIsReplacedOnce) {
    store("x", "2001:db8::5");
    store("y", "2001:db8::5/48");
    options.address = "2001:db8::5/64";
    EXPECT_EQ(ctl::address_replace(options), 0);
    EXPECT_EQ(fake_tav::text(below("Addresses/x/Address/Value")), "2001:db8::5/64");
    EXPECT_EQ(look().interfaces.at(0).addresses.size(), 1U);
}

TEST_F(Editing, OfAnAddressThatIsStoredTwiceTheKernelsNodeMayGo) {
    store("1", "fe80::5/64", "Link-Local");
    options.node = "1";
    EXPECT_NE(refused(1, ctl::address_delete), "");
    store("x", "fe80::5/64");
    EXPECT_EQ(ctl::address_delete(options), 0);
}

TEST_F(Editing, ANudgeChangesNoSetting) {
    store("x", "2001:db8::5/64");
    const strings before = stored();
    options.link.clear();
    const std::string text = refused(1, ctl::nudge); // "", where a daemon happens to run
    EXPECT_EQ(text.substr(0, 24), text.empty() ? "" : "nothing was synchronised");
    EXPECT_EQ(stored(), before);
    const auto written = fake_tav::calls("set_leaves");
    ASSERT_EQ(written.size(), 1U);
    EXPECT_EQ(written[0].paths.at(0), below("Addresses/tandrelctl-nudge/Type/Value"));
    EXPECT_EQ(fake_tav::calls("remove_node").at(0).paths.at(0),
              below("Addresses/tandrelctl-nudge"));
}

TEST_F(Editing, WithoutAnInterfaceNodeThereIsNothingToNudge) {
    fake_tav::erase(at("1"));
    EXPECT_EQ(refused(1, ctl::nudge), "the store has no interface node, so there is nothing to "
                                      "synchronise; create one with 'tandrelctl interface add'");
}

} // namespace
