// Reading one interface, and the whole store.
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

const std::string all_listed =
    "tavcfg_map_t CSync::read_all_tav_ipv6_settings(): CTav::list_node() returned ";

class ReadInterface : public EngineTest {
protected:
    tavcfg_t read(const tk_string &name) { return engine().read_tav_ipv6_interface(name); }
};

TEST_F(ReadInterface, NamesTheKernelInterfaceOneBelowItsNumber) {
    EXPECT_EQ(read("1").iface.name, "eth0");
    EXPECT_EQ(read("1").iface.number, 1);
    EXPECT_EQ(read("2").iface.name, "eth1");
    EXPECT_EQ(read("12").iface.name, "eth11");
    EXPECT_EQ(read("12").iface.number, 12);
    for (const std::string another_one : {"01", " 1", "+1"}) {
        EXPECT_EQ(read(another_one).iface.name, "eth0") << '"' << another_one << '"';
        EXPECT_EQ(read(another_one).iface.number, 1) << '"' << another_one << '"';
    }
    restart("lan");
    EXPECT_EQ(read("3").iface.name, "lan2");
}

TEST_F(ReadInterface, TheKernelNameIsCutAt255Characters) {
    restart(std::string(254, 'p'));
    EXPECT_EQ(read("12").iface.name, std::string(254, 'p') + "1");
}

TEST_F(ReadInterface, ReadsItsGatewayAndThenItsAddresses) {
    store_gateway(2, "fe80::1");
    store(2, {"2001:db8::1/64 Static 1"});
    const tavcfg_t stored = read("2");
    ASSERT_TRUE(stored.gateway);
    EXPECT_EQ(text_of(stored.gateway->gateway), "fe80::1");
    ASSERT_EQ(stored.addresses.size(), 1U);
    EXPECT_EQ(stored.addresses[0].node, "1");
    EXPECT_EQ(effects(),
              (strings{"get_leaf(~/2/IPv6/Default Gateway/Value)", "list_node(~/2/IPv6/Addresses)",
                       "get_leaves(~/2/IPv6/Addresses/1/Address/Value, "
                       "~/2/IPv6/Addresses/1/Type/Value)"}));
}

TEST_F(ReadInterface, ReadsUnderTheNameThatIsListed) {
    read("01");
    EXPECT_EQ(effects(), (strings{"get_leaf(~/01/IPv6/Default Gateway/Value)",
                                  "list_node(~/01/IPv6/Addresses)"}));
}

TEST_F(ReadInterface, IsAnnouncedAtLevelFour) {
    expect_info_at(4, "Discovering IPv6 TAV settings on interface '1'", [this] { read("1"); });
}

TEST_F(ReadInterface, IsAnnouncedBeforeItsNameIsJudged) {
    verbosity = 4;
    EXPECT_THROW(read("eth"), sync_minor_err);
    EXPECT_EQ(record(), strings{"6 Info: Discovering IPv6 TAV settings on interface 'eth'"});
}

TEST_F(ReadInterface, ANameThatIsNoPositiveNumberIsAMinorErrorWithoutSignature) {
    for (const std::string name : {"0", "-1", "x", "1a", "eth", ""}) {
        forget();
        EXPECT_EQ(thrown<sync_minor_err>([this, &name] { read(name); }),
                  "Ignoring unknown interface path '" + name + "'");
        EXPECT_EQ(effects(), strings{});
    }
    const std::string long_name(300, 'x');
    EXPECT_EQ(thrown<sync_minor_err>([this, &long_name] { read(long_name); }),
              ("Ignoring unknown interface path '" + long_name + "'").substr(0, 255));
}

TEST_F(ReadInterface, ABadGatewayIsDroppedAndTheAddressesAreKept) {
    store(1, {"2001:db8::1/64 Static 1"});
    store_gateway(1, "nonsense");
    tavcfg_t stored = read("1");
    EXPECT_FALSE(stored.gateway);
    EXPECT_EQ(stored.addresses.size(), 1U);
    expect_info_at(2,
                   "Ignoring gateway: 'static CAddress CSync::str_to_addr(const "
                   "tk_string&, bool): Can't convert string 'nonsense' to IPv6 address'",
                   [this] { read("1"); });
    const tk_string leaf = at("1/IPv6/Default Gateway/Value");
    fake_tav::put(leaf, toolkit::CElement(element_type_boolean, "true", -1));
    stored = read("1");
    EXPECT_FALSE(stored.gateway);
    EXPECT_EQ(stored.addresses.size(), 1U);
    expect_info_at(2,
                   "Ignoring gateway: 'boost::optional<CTavRoute> "
                   "CSync::read_tav_ipv6_gateway(const tk_string&): '" +
                       leaf + "' is not a string type'",
                   [this] { read("1"); });
}

TEST_F(ReadInterface, AFailedGatewayCallEndsTheReading) {
    fake_tav::on_call("get_leaf").returns(-1);
    EXPECT_EQ(thrown<sync_err>([this] { read("1"); }),
              "boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string&): "
              "CTav::get_leaf() returned -1");
    EXPECT_EQ(fake_tav::calls("list_node").size(), 0U);
}

class ReadAll : public EngineTest {
protected:
    // Key to "number name addresses".
    std::map<std::uint32_t, std::string> read() {
        std::map<std::uint32_t, std::string> all;
        for (const auto &one : engine().read_all_tav_ipv6_settings()) {
            all[one.first] = std::to_string(one.second.iface.number) + " " + one.second.iface.name +
                             " " + std::to_string(one.second.addresses.size()) +
                             (one.second.gateway ? " gateway" : "");
        }
        return all;
    }
    std::string error() {
        return thrown<sync_err>([this] { read(); });
    }
    using map = std::map<std::uint32_t, std::string>;
};

TEST_F(ReadAll, KeysAreThePositionsInTheListingAndNotTheNumbers) {
    fake_tav::put(at("note"), "a leaf");
    store(5, {"2001:db8::1/64 Static 1"});
    fake_tav::put(at("another"), "a leaf");
    store_gateway(2, "fe80::1");
    EXPECT_EQ(read(), (map{{1, "5 eth4 1"}, {3, "2 eth1 0 gateway"}}));
}

TEST_F(ReadAll, TwoNodesBeforeALeafHaveTheKeysZeroAndOne) {
    fake_tav::put_node(at("1"));
    fake_tav::put_node(at("2"));
    fake_tav::put(at("leaf"), "text");
    EXPECT_EQ(read(), (map{{0, "1 eth0 0"}, {1, "2 eth1 0"}}));
}

TEST_F(ReadAll, LeavesOfEveryTypeAreSkipped) {
    int number = 0;
    for (const element_type_t type :
         {element_type_none, element_type_boolean, element_type_integer, element_type_string}) {
        ++number;
        fake_tav::put(at(std::to_string(number)), toolkit::CElement(type, "1", -1));
    }
    EXPECT_EQ(read(), map{});
    EXPECT_EQ(effects(), strings{"list_node(~)"});
}

TEST_F(ReadAll, AnEmptyStoreYieldsAnEmptyMapOfElevenBuckets) {
    const tavcfg_map_t all = engine().read_all_tav_ipv6_settings();
    EXPECT_TRUE(all.empty());
    EXPECT_EQ(all.bucket_count(), 11U) << "the smallest prime that holds ten";
    EXPECT_EQ(effects(), strings{"list_node(~)"});
}

TEST_F(ReadAll, IsAnnouncedAtLevelFour) {
    expect_info_at(4, "Discovering all IPv6 TAV settings...", [this] { read(); });
}

TEST_F(ReadAll, AFailedListingIsAnErrorThatNamesResultAndStatus) {
    fake_tav::on_call("list_node").returns(-4).statuses({0});
    EXPECT_EQ(error(), all_listed + "-4/0");
    fake_tav::on_call("list_node").returns(-4).statuses({1});
    EXPECT_EQ(error(), all_listed + "-4/1");
    fake_tav::on_call("list_node").statuses({2});
    EXPECT_EQ(error(), all_listed + "0/2");
}

TEST_F(ReadAll, OneChildThatIsNoInterfaceEndsTheWholeReading) {
    fake_tav::put_node(at("1"));
    fake_tav::put_node(at("eth"));
    fake_tav::put_node(at("2"));
    EXPECT_EQ(thrown<sync_minor_err>([this] { read(); }), "Ignoring unknown interface path 'eth'");
    for (const auto &effect : effects()) {
        EXPECT_EQ(effect.find("~/2"), std::string::npos) << effect;
    }
}

TEST_F(ReadAll, AFailedCallFarDownEndsTheWholeReading) {
    store(1, {"2001:db8::1/64 Static 1"});
    store(2, {"2001:db8::2/64 Static 1"});
    fake_tav::on_path("list_node", at("2/IPv6/Addresses")).returns(-2);
    EXPECT_EQ(error(), "std::vector<CTavAddress> CSync::read_tav_ipv6_addrs(const tk_string&): "
                       "CTav::list_node(" +
                           at("2/IPv6/Addresses") + ") returned -2");
}

TEST_F(ReadAll, FaultsOfOneInterfaceLeaveTheOthersWhole) {
    store(1, {"bad Static 1"});
    store_gateway(1, "bad");
    store(2, {"2001:db8::2/64 Static 1"});
    store_gateway(2, "fe80::2");
    EXPECT_EQ(read(), (map{{0, "1 eth0 0"}, {1, "2 eth1 1 gateway"}}));
}

} // namespace
