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
};

// What the real store answers for settings that the daemon cannot use: each is named and ignored.
TEST_F(StoreReadingTest, SettingsThatCannotBeUsedAreNamedAndIgnored) {
    const std::string no_type = kt::paths::address_value(1, "no type");
    const std::string number = kt::paths::address_value(1, "number");
    const std::string type = kt::paths::type_value(1, "boolean type");
    add_eth(1);
    store.write(no_type, "2001:db8::9/64");
    store.write_typed(number, element_type_integer, "7");
    store.write(kt::paths::type_value(1, "number"), "Static");
    store.write(kt::paths::address_value(1, "boolean type"), "2001:db8::9/64");
    store.write_typed(type, element_type_boolean, "true");
    store.set_address(1, "unknown type", "2001:db8::9/64", "static");
    store.set_address(1, "no length", "2001:db8::9");
    store.set_gateway(1, "not-an-address");
    store.write_typed(kt::paths::gateway(2), element_type_integer, "7");
    store.write(stem + "/0", "a leaf");
    store.write(kt::paths::addresses(1) + "/7", "a leaf");
    store.set_address(1, "good", "2001:db8::5/64");
    start_daemon_and_wait();
    EXPECT_TRUE(device.has_address("eth0", "2001:db8::5/64"));
    for (const std::string &line :
         {"address: '" + read_addr + "CTav::get_leaves(" + one +
              "/Addresses/no type) returned 0/1/2'",
          "address: '" + read_addr + "'" + number + "' is not a string type'",
          "address: '" + read_addr + "'" + type + "' is not a string type'",
          "address: '" + read_addr + "Unknown addr type 'static''",
          "address: '" + str_to_addr + "No prefix specified in address string: '2001:db8::9''",
          "gateway: '" + str_to_addr + "Can't convert string 'not-an-address' to IPv6 address'",
          "gateway: '" + read_gateway + "'" + kt::paths::gateway(2) + "' is not a string type'"}) {
        EXPECT_NE(log().find("Info: Ignoring " + line), -1) << line;
    }
    EXPECT_EQ(log().count_containing("interface '0'"), 0U);
    EXPECT_EQ(log().count("Info: Found TAV address '7'"), 0U);
    for (const auto &address : device.addresses("eth0")) {
        EXPECT_EQ(address.text.find("2001:db8::9"), std::string::npos);
    }
    EXPECT_TRUE(device.static_gateways("eth0").empty());
    EXPECT_EQ(store.gateway(1), "not-an-address") << "left as it is";
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
    ignores(stem + "/1/Label", "Info: Ignoring update to non-IPv6 settings");
    ignores(one + "/Addresses/3/Address/Value/x",
            "Info: Ignoring TAV update to non-value attribute '" + one +
                "/Addresses/3/Address/Value/x'");
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
    ASSERT_TRUE(logged(kt::normal_operation));
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
