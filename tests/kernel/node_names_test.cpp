// Which node of the store an address belongs to, and links that have none.

#include <algorithm>
#include <iostream>
#include <map>

#include "harness/world.h"

namespace {

class LinkWithoutNodeTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        add_eth(1);
        service.start();
        store.make_interface(1);
        // The link's own link-local address appears about a second after the link goes up.
        ASSERT_TRUE(becomes([&] {
            return !device.link_local("eth0").empty() && !device.link_local("eth1").empty();
        }));
    }

    // Changes of a link in the kernel, and their reversal.
    void change_everything_on(const std::string &link) {
        device.add_address(link, "2001:db8:2::7/64");
        device.add_address(link, "2001:db8:2::8/64");
        device.add_route({"::/0", "fe80::1", link});
        device.delete_address(link, "2001:db8:2::8/64");
        device.delete_route({"::/0", "fe80::1", link});
        device.add_route({"::/0", "fe80::2", link});
    }
};

// Written under a number that was never learnt, one such address would make every later reading of
// the store fail.
TEST_F(LinkWithoutNodeTest, ItsAddressesAndRoutesStayOutOfTheStoreUntilThereIsANode) {
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == 1; }));
    const std::string before = store.dump();
    change_everything_on("eth1");
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.dump(), before);
    store.set_address(1, "s", "2001:db8:1::5/64"); // a synchronisation meanwhile
    ASSERT_TRUE(settle());
    store.remove_address(1, "s");
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.dump(), before);
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);

    // The table has followed the kernel: with the node everything arrives.
    store.set_address(2, "s", "2001:db8:2::5/64");
    ASSERT_TRUE(becomes([&] { return device.has_address("eth1", "2001:db8:2::5/64"); }));
    EXPECT_TRUE(becomes([&] { return store.has_address(2, "2001:db8:2::7/64", "Automatic"); }));
    EXPECT_TRUE(
        becomes([&] { return store.has_address(2, device.link_local("eth1"), "Link-Local"); }));
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.node_of(2, "2001:db8:2::8/64"), "");
    EXPECT_EQ(store.node_of(2, "2001:db8:2::5/64"), "s");
    // For the gateway the store wins, and it has none.
    EXPECT_TRUE(
        becomes([&] { return device.static_gateways("eth1").empty() && !store.gateway(2); }));
    EXPECT_TRUE(store.list(kt::paths::interfaces + "/0").empty());
}

TEST_F(LinkWithoutNodeTest, AnInterfaceThatTheUserRemovesIsNotWrittenAgain) {
    store.set_address(2, "s", "2001:db8:2::5/64");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return both_have(2, "2001:db8:2::5/64"); }));
    store.remove(kt::paths::interfaces + "/2");
    ASSERT_TRUE(settle());
    const std::string before = store.dump();
    EXPECT_EQ(before.find("/2/"), std::string::npos) << before;
    change_everything_on("eth1");
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.dump(), before);
}

TEST_F(LinkWithoutNodeTest, ALinkThatAppearsWithoutANodeIsNotWritten) {
    start_daemon_and_wait();
    const std::string before = store.dump();
    add_eth(5);
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth5").empty(); }));
    change_everything_on("eth5");
    ASSERT_TRUE(settle());
    EXPECT_EQ(store.dump(), before);
}

class NodeNameTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
    }

    // Address by node name.
    std::map<std::string, std::string> nodes() {
        std::map<std::string, std::string> all;
        for (const auto &stored : store.addresses(1)) {
            all[stored.node] = stored.address + " " + stored.type;
        }
        return all;
    }

    bool await_advertisements(unsigned long count) {
        const unsigned long before = kt::received_advertisements();
        return kt::eventually([&] { return kt::received_advertisements() >= before + count; });
    }
};

TEST_F(NodeNameTest, OnTheFirstStartAUsersAddressUnderTheNameOneIsKept) {
    store.set_address(1, "1", "2001:db8::5/64");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    start_daemon_and_wait();
    const std::string link_local = device.link_local("eth0");
    const std::map<std::string, std::string> expected{{"1", "2001:db8::5/64 Static"},
                                                      {"2", link_local + " Link-Local"}};
    EXPECT_EQ(nodes(), expected);
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64"));
}

TEST_F(NodeNameTest, NamesOfNodesThatCannotBeReadAreTaken) {
    store.write(kt::paths::address(1, "1") + "/Comment", "neither address nor type");
    store.write(kt::paths::addresses(1) + "/2", "a leaf");
    store.write(kt::paths::address_value(1, "3"), "half an address");
    store.write(kt::paths::address_value(1, "4"), "2001:db8::4/64");
    store.write(kt::paths::type_value(1, "4"), "unknown");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    const std::string before = store.dump();
    start_daemon_and_wait();
    EXPECT_EQ(store.node_of(1, device.link_local("eth0")), "5");
    device.add_address("eth0", "2001:db8::7/64");
    EXPECT_TRUE(becomes([&] { return store.node_of(1, "2001:db8::7/64") == "6"; }));
    device.delete_address("eth0", "2001:db8::7/64");
    device.set_up("eth0", false);
    EXPECT_TRUE(becomes([&] { return store.dump() == before; }));
}

TEST_F(NodeNameTest, TheNameOfAJunkNodeIsFreeAgain) {
    store.set_address(1, "1", "2001:db8::9/64", "Automatic");
    store.set_address(1, "2", "2001:db8::5/64");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    start_daemon_and_wait();
    const std::map<std::string, std::string> expected{
        {"1", device.link_local("eth0") + " Link-Local"}, {"2", "2001:db8::5/64 Static"}};
    EXPECT_EQ(nodes(), expected);
}

TEST_F(NodeNameTest, AnAddressThatAppearsWhileAUserTakesItsNameGetsAnother) {
    store.make_interface(1);
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == 1; }));
    // Both at once for the daemon, which would name the new address 2.
    meanwhile([&] {
        store.set_address(1, "2", "2001:db8::5/64");
        device.add_address("eth0", "2001:db8::7/64");
    });
    EXPECT_TRUE(becomes([&] {
        return store.node_of(1, "2001:db8::5/64") == "2" &&
               store.node_of(1, "2001:db8::7/64") == "3" &&
               device.has_address("eth0", "2001:db8::5/64");
    }));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(store.has_address(1, "2001:db8::5/64", "Static"));
}

// The kernel lists its addresses in another order than the store, and announces each automatic
// address again at every advertisement: neither may move a node.
TEST_F(NodeNameTest, TwentyRestartsAmongAdvertisementsLeaveTheStoreAsItIs) {
    kt::Router router(sandbox, "peer0");
    router.start({"2001:db8:1::", "2001:db8:2::"});
    const std::string hardware = device.hardware_address("eth0");
    const std::string first = kt::automatic_address("2001:db8:1::", hardware);
    const std::string second = kt::automatic_address("2001:db8:2::", hardware);
    store.set_address(1, "1", "2001:db8::51/64");
    store.set_address(1, "3", "2001:db8::53/64");
    store.set_address(1, "office", "2001:db8::54/64");
    store.set_address(1, "office again", "2001:db8::54/64");          // two nodes, one address
    store.write(kt::paths::address_value(1, "5"), "2001:db8::55/64"); // cannot be read
    store.write(kt::paths::addresses(1) + "/note", "a leaf");
    store.set_gateway(1, "fe80::1");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] {
        return store.has_address(1, first, "Automatic") &&
               store.has_address(1, second, "Automatic") &&
               store.has_address(1, device.link_local("eth0"), "Link-Local");
    }));
    ASSERT_TRUE(settle());
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::51/64"));
    const std::string before = store.dump();
    const unsigned long advertisements = kt::received_advertisements();

    for (int restart = 0; restart < 20; ++restart) {
        ASSERT_EQ(stop_daemon(), 0);
        ASSERT_TRUE(await_advertisements(1));
        start_daemon_and_wait();
        ASSERT_TRUE(await_advertisements(3));
        ASSERT_TRUE(settle());
        ASSERT_EQ(store.dump(), before) << "after restart " << restart + 1;
        ASSERT_EQ(log().count_containing("Caught exception"), 0U);
    }
    EXPECT_GE(kt::received_advertisements(), advertisements + 80);
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
    std::cout << "20 restarts, " << kt::received_advertisements() - advertisements
              << " advertisements: the store's dump is the same\n";
}

} // namespace
