// The daemon's messages about things in the store that it cannot use, and that it does not act on
// them.

#include "harness/world.h"

namespace {

const std::string stem = kt::paths::interfaces;
const std::string one = kt::paths::ipv6(1);
const std::string read_addr =
    "CTavAddress CSync::read_tav_ipv6_addr(const tk_string&, const tk_string&): ";
const std::string read_gateway =
    "boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string&): ";
const std::string str_to_addr = "static CAddress CSync::str_to_addr(const tk_string&, bool): ";

class StoreReadingTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
    }

    // This address must still be read, in spite of the faults.
    void start_beside_a_good_address() {
        store.set_address(1, "good", "2001:db8::5/64");
        start_daemon_and_wait();
        EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64"));
    }
};

TEST_F(StoreReadingTest, EachStepOfReadingIsLogged) {
    store.set_address(1, "3", "2001:db8::3/64");
    store.set_gateway(1, "fe80::1");
    store.make_interface(2);
    start_daemon_and_wait();
    const std::vector<std::string> texts{
        "Discovering all IPv6 TAV settings...",
        "Discovering IPv6 TAV settings on interface '1'",
        "Discovering TAV gateway on '" + one + "'",
        "Read TAV gateway address 'fe80::1' on '" + one + "'",
        "Discovering TAV addresses on '" + one + "'",
        "Found TAV address '3'",
        "Discovering TAV addr on '" + one + "/Addresses/3'",
        "Read TAV address 3 ('2001:db8::3/64') (Static) on '" + one + "/Addresses/3'",
        "Discovering IPv6 TAV settings on interface '2'",
        "No gateway specified.",
        "No addresses specified (" + kt::paths::addresses(2) + ").",
        "Synchronizing kernel with TAV...",
        "Synchronizing TAV with kernel settings..."};
    for (const auto &text : texts) {
        EXPECT_NE(log().find("Info: " + text), -1) << text;
    }
}

TEST_F(StoreReadingTest, AnAddressWithoutItsTypeIsIgnored) {
    store.write(kt::paths::address_value(1, "x"), "2001:db8::9/64");
    start_beside_a_good_address();
    EXPECT_TRUE(logged("Info: Ignoring address: '" + read_addr + "CTav::get_leaves(" + one +
                       "/Addresses/x) returned 0/1/2'"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::9/64"));
}

TEST_F(StoreReadingTest, AnAddressThatIsNotAStringIsIgnored) {
    store.write_typed(kt::paths::address_value(1, "x"), element_type_integer, "7");
    store.write(kt::paths::type_value(1, "x"), "Static");
    store.write(kt::paths::address_value(1, "y"), "2001:db8::9/64");
    store.write_typed(kt::paths::type_value(1, "y"), element_type_boolean, "true");
    start_beside_a_good_address();
    EXPECT_TRUE(logged("Info: Ignoring address: '" + read_addr + "'" +
                       kt::paths::address_value(1, "x") + "' is not a string type'"));
    EXPECT_TRUE(logged("Info: Ignoring address: '" + read_addr + "'" +
                       kt::paths::type_value(1, "y") + "' is not a string type'"));
}

TEST_F(StoreReadingTest, AnAddressOfAnUnknownTypeIsIgnored) {
    store.set_address(1, "x", "2001:db8::9/64", "static");
    start_beside_a_good_address();
    EXPECT_TRUE(logged("Info: Ignoring address: '" + read_addr + "Unknown addr type 'static''"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::9/64"));
}

TEST_F(StoreReadingTest, AnInvalidAddressTextIsIgnored) {
    store.set_address(1, "a", "2001:db8::9");
    store.set_address(1, "b", "2001:db8::9/0");
    store.set_address(1, "c", "2001:db8::9/129");
    store.set_address(1, "d", "2001:db8::9/64x");
    store.set_address(1, "e", "2001:db8::9/");
    store.set_address(1, "f", "not-an-address/64");
    start_beside_a_good_address();
    for (const std::string text :
         {"No prefix specified in address string: '2001:db8::9'", "Invalid prefix length '0'",
          "Invalid prefix length '129'", "Invalid prefix length '64x'", "Invalid prefix length ''",
          "Can't convert string 'not-an-address' to IPv6 address"}) {
        EXPECT_NE(log().find("Info: Ignoring address: '" + str_to_addr + text + "'"), -1) << text;
    }
    for (const auto &address : device.addresses("eth0")) {
        EXPECT_EQ(address.text.find("2001:db8::9"), std::string::npos);
    }
}

TEST_F(StoreReadingTest, AnInvalidGatewayIsIgnored) {
    store.set_gateway(1, "not-an-address");
    add_eth(1);
    store.write_typed(kt::paths::gateway(2), element_type_integer, "7");
    start_beside_a_good_address();
    EXPECT_TRUE(logged("Info: Ignoring gateway: '" + str_to_addr +
                       "Can't convert string 'not-an-address' to IPv6 address'"));
    EXPECT_TRUE(logged("Info: Ignoring gateway: '" + read_gateway + "'" + kt::paths::gateway(2) +
                       "' is not a string type'"));
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    EXPECT_EQ(store.gateway(1), "not-an-address") << "left as it is";
}

TEST_F(StoreReadingTest, LeavesAmongTheInterfacesAndAddressesAreSkipped) {
    store.write(stem + "/0", "a leaf");
    store.write(kt::paths::addresses(1) + "/7", "a leaf");
    start_beside_a_good_address();
    EXPECT_EQ(log().count_containing("interface '0'"), 0U);
    EXPECT_EQ(log().count("Info: Found TAV address '7'"), 0U);
}

TEST_F(StoreReadingTest, AnInterfaceWhoseNameIsNoNumberStopsTheDaemonUntilItIsRemoved) {
    rebuilds_allowed = true;
    store.set_address(1, "1", "2001:db8::5/64");
    store.write(stem + "/eth/IPv6/Label", "x");
    start_daemon();
    ASSERT_TRUE(logged("Error: Caught exception"));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::5/64"));
    store.remove(stem + "/eth");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    EXPECT_TRUE(settle());
}

class StoreEventTest : public StoreReadingTest {
protected:
    // Writes one leaf and waits for the one line that says why the event starts nothing.
    void ignores(const std::string &path, const std::string &line) {
        const std::size_t from = log().size();
        store.write(path, "x");
        EXPECT_TRUE(logged("Info: Processing TAV event: cmd = 2, path = '" + path + "'", from));
        EXPECT_TRUE(logged(line, from));
        EXPECT_TRUE(settle());
        EXPECT_EQ(log().count("Info: Synchronizing kernel & TAV settings...", from), 0U) << path;
    }
};

TEST_F(StoreEventTest, EventsOnOtherLeavesAreOnlyLogged) {
    start_daemon_and_wait();
    ignores(stem + "/5", "Info: Bad interface path component: '" + stem + "/5'");
    ignores(stem + "/1/IPv4/Address", "Info: Ignoring update to non-IPv6 settings");
    ignores(stem + "/1/Label", "Info: Ignoring update to non-IPv6 settings");
    ignores(one + "/Label", "Info: Bad subpath component: '" + one + "/Label'");
    ignores(one + "/Default Gateway/Metric", "Info: Ignoring TAV update to non-value attribute '" +
                                                 one + "/Default Gateway/Metric'");
    ignores(one + "/Privacy/Value", "Info: Ignoring TAV update to unknown node '/Privacy'");
    ignores(one + "/Addresses/Label",
            "Info: Bad addrlist index tail: '" + one + "/Addresses/Label'");
    ignores(one + "/Addresses/3/Label",
            "Info: Bad addrlist subpath: '" + one + "/Addresses/3/Label'");
    ignores(one + "/Addresses/3/Address/Label",
            "Info: Ignoring TAV update to non-value attribute '" + one +
                "/Addresses/3/Address/Label'");
    ignores(one + "/Addresses/3/Address/Value/x",
            "Info: Ignoring TAV update to non-value attribute '" + one +
                "/Addresses/3/Address/Value/x'");
    ignores(one + "/Addresses/3/Lifetime/Value",
            "Info: Ignoring unknown sub-address path '/Lifetime'");
}

TEST_F(StoreEventTest, AnEventOnAnInterfaceWhoseNameIsNoNumberIsNamed) {
    start_daemon_and_wait();
    for (const std::string name : {"0", "01x", "-1"}) {
        ignores(stem + "/" + name + "/IPv6/Default Gateway/Value",
                "Info: Bad interface number: '" + name + "'");
        store.remove(stem + "/" + name);
    }
    EXPECT_TRUE(settle());
}

TEST_F(StoreEventTest, AnEventOutsideTheInterfacesIsUnexpected) {
    start_daemon_and_wait();
    const std::size_t from = log().size();
    // The only other leaf, besides those below the interfaces' node, for which the daemon gets
    // events.
    store.remove(stem);
    store.write(stem, "a leaf");
    EXPECT_TRUE(logged("Info: Processing TAV event: cmd = 2, path = '" + stem + "'", from));
    EXPECT_TRUE(logged("Warning: Unexpected event path: '" + stem + "'", from));
}

TEST_F(StoreEventTest, ARemovedNodeCausesAnEventForEachLeaf) {
    store.set_address(1, "4", "2001:db8::5/64");
    start_daemon_and_wait();
    store.remove_address(1, "4");
    EXPECT_TRUE(logged("Info: Processing TAV event: cmd = 3, path = '" +
                       kt::paths::address_value(1, "4") + "'"));
    EXPECT_TRUE(logged("Info: Processing TAV event: cmd = 3, path = '" +
                       kt::paths::type_value(1, "4") + "'"));
    EXPECT_TRUE(becomes([&] { return !device.has_address("eth0", "2001:db8::5/64"); }));
}

TEST_F(StoreEventTest, TheNoticeAfterTheRegistrationIsIgnored) {
    start_daemon();
    ASSERT_TRUE(logged("Info: void CSync::discover(): beginning normal operation"));
    EXPECT_TRUE(logged("Info: New TAV event arrived"));
    EXPECT_TRUE(settle());
    EXPECT_EQ(log().count_containing("cmd = 1"), 0U);
    EXPECT_EQ(log().count_containing("Processing TAV event"), 1U) << "the test's own mark";
}

TEST_F(StoreEventTest, TheDaemonsOwnChangesCauseNoEvents) {
    store.make_interface(1);
    start_daemon_and_wait();
    device.add_address("eth0", "2001:db8::7/64");
    device.add_route({"::/0", "fe80::1", "eth0"});
    ASSERT_TRUE(becomes([&] { return store.gateway(1) == "fe80::1"; }));
    ASSERT_TRUE(settle());
    EXPECT_EQ(log().count_containing("path = '" + one), 0U);
}

class StoreWritingTest : public StoreReadingTest {};

TEST_F(StoreWritingTest, AGatewayThatTheStoreDoesNotTakeIsLogged) {
    store.write(one + "/Default Gateway", "a leaf where a node belongs");
    start_daemon_and_wait();
    device.add_route({"::/0", "fe80::1", "eth0"});
    EXPECT_TRUE(logged("Info: Error when writing '" + kt::paths::gateway(1) + "': 3"));
    device.delete_route({"::/0", "fe80::1", "eth0"});
    EXPECT_TRUE(logged("Info: Error when removing '" + one + "/Default Gateway': 3"));
    EXPECT_TRUE(settle());
}

TEST_F(StoreWritingTest, AnAddressThatTheStoreDoesNotTakeIsLogged) {
    store.write(one + "/Addresses", "a leaf where a node belongs");
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    device.add_address("eth0", "2001:db8::7/64");
    EXPECT_TRUE(
        logged_part("Info: Error when writing '" + kt::paths::address_value(1, "1") + "': "));
    EXPECT_TRUE(logged_part("Info: Error when writing '" + kt::paths::type_value(1, "1") + "': "));
    device.delete_address("eth0", "2001:db8::7/64");
    EXPECT_TRUE(logged_part("Info: Error when removing '" + one + "/Addresses/"));
    EXPECT_TRUE(settle());
}

} // namespace
