// Reading one gateway, one address, and the addresses of one interface.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using toolkit::CElement;

const std::string in_gateway =
    "boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string&): ";
const std::string in_addrs =
    "std::vector<CTavAddress> CSync::read_tav_ipv6_addrs(const tk_string&): ";
const std::string in_addr =
    "CTavAddress CSync::read_tav_ipv6_addr(const tk_string&, const tk_string&): ";
const std::string in_str_to_addr = "static CAddress CSync::str_to_addr(const tk_string&, bool): ";

std::string text(const CTavAddress &address) {
    return text_of(address.addr) + "/" + std::to_string(address.prefix_len) + " " +
           std::to_string(address.type) + " " + address.node;
}

CElement number_element(const std::string &value) {
    return {element_type_integer, value, CElement::_invalid_time};
}

class Reading : public EngineTest {
protected:
    virtual void attempt() = 0;
    std::string error() {
        return thrown<sync_err>([this] { attempt(); });
    }
    std::string minor_error() {
        return thrown<sync_minor_err>([this] { attempt(); });
    }
    std::string address_error() {
        return thrown<sync_addr_err>([this] { attempt(); });
    }
};

class ReadGateway : public Reading {
protected:
    const tk_string ipv6 = at("1/IPv6");
    const tk_string leaf = at("1/IPv6/Default Gateway/Value");
    boost::optional<CTavRoute> read() { return engine().read_tav_ipv6_gateway(ipv6); }
    void attempt() override { read(); }
};

TEST_F(ReadGateway, YieldsADefaultRouteThroughTheStoredAddress) {
    fake_tav::put(leaf, "fe80::1");
    const auto route = read();
    ASSERT_TRUE(route);
    EXPECT_EQ(text_of(route->gateway), "fe80::1");
    EXPECT_EQ(text_of(route->dst), "::");
    EXPECT_EQ(route->dst_len, 0);
    EXPECT_EQ(effects(), strings{"get_leaf(~/1/IPv6/Default Gateway/Value)"});
}

TEST_F(ReadGateway, LogsWhatItReadsAtLevelFour) {
    fake_tav::put(leaf, "fe80::1");
    expect_info_at(4, "Discovering TAV gateway on '" + ipv6 + "'", [this] { read(); });
    expect_info_at(4, "Read TAV gateway address 'fe80::1' on '" + ipv6 + "'", [this] { read(); });
    verbosity = 4;
    forget();
    read();
    EXPECT_EQ(record(), (strings{"6 Info: Discovering TAV gateway on '~/1/IPv6'",
                                 "get_leaf(~/1/IPv6/Default Gateway/Value)",
                                 "6 Info: Read TAV gateway address 'fe80::1' on '~/1/IPv6'"}));
}

TEST_F(ReadGateway, FindsNoneWhereTheStoreHasNone) {
    EXPECT_FALSE(read());
    expect_info_at(4, "No gateway specified.", [this] { read(); });
    fake_tav::put(leaf, "fe80::1");
    fake_tav::on_call("get_leaf").statuses({api_status_refused});
    EXPECT_FALSE(read()) << "any status but 1 means that there is none";
}

TEST_F(ReadGateway, TheStatusIsJudgedBeforeTheValue) {
    verbosity = 4;
    for (const CElement &value : {CElement("fe80::1", -1), number_element("5")}) {
        forget();
        fake_tav::on_call("get_leaf").statuses({api_status_absent}).fills(value);
        EXPECT_FALSE(read());
        EXPECT_EQ(lines(),
                  (strings{"Discovering TAV gateway on '" + ipv6 + "'", "No gateway specified."}));
    }
}

TEST_F(ReadGateway, AFailedCallIsAnError) {
    fake_tav::put(leaf, "fe80::1");
    fake_tav::on_call("get_leaf").returns(-7).statuses({1});
    EXPECT_EQ(error(), in_gateway + "CTav::get_leaf() returned -7");
    fake_tav::on_call("get_leaf").returns(3);
    EXPECT_EQ(error(), in_gateway + "CTav::get_leaf() returned 3");
}

TEST_F(ReadGateway, AValueOfAnotherTypeIsAMinorError) {
    fake_tav::put(leaf, number_element("5"));
    EXPECT_EQ(minor_error(), in_gateway + "'" + leaf + "' is not a string type");
}

TEST_F(ReadGateway, AcceptsAPrefixLengthThoughNoneIsNeeded) {
    fake_tav::put(leaf, "fe80::1/64");
    const auto route = read();
    ASSERT_TRUE(route);
    EXPECT_EQ(text_of(route->gateway), "fe80::1");
    EXPECT_EQ(route->dst_len, 0);
}

TEST_F(ReadGateway, ItsTextIsLoggedBeforeItIsConverted) {
    fake_tav::put(leaf, "nonsense");
    verbosity = 4;
    EXPECT_THROW(read(), sync_addr_err);
    EXPECT_EQ(lines(), (strings{"Discovering TAV gateway on '" + ipv6 + "'",
                                "Read TAV gateway address 'nonsense' on '" + ipv6 + "'"}));
}

TEST_F(ReadGateway, ABadTextIsAnAddressError) {
    fake_tav::put(leaf, "fe80::1/0");
    EXPECT_EQ(address_error(), in_str_to_addr + "Invalid prefix length '0'");
    fake_tav::put(leaf, "nonsense");
    EXPECT_EQ(address_error(), in_str_to_addr + "Can't convert string 'nonsense' to IPv6 address");
}

class ReadAddress : public Reading {
protected:
    const tk_string addresses = at("1/IPv6/Addresses");
    const tk_string node = at("1/IPv6/Addresses/7");
    const std::string returned = in_addr + "CTav::get_leaves(" + node + ") returned ";
    CTavAddress read() { return engine().read_tav_ipv6_addr(addresses, "7"); }
    void attempt() override { read(); }
};

TEST_F(ReadAddress, TakesAddressLengthTypeAndNodeInOneCall) {
    store(1, {"2001:db8::5/64 Static 7"});
    EXPECT_EQ(text(read()), "2001:db8::5/64 3 7");
    EXPECT_EQ(effects(), strings{"get_leaves(~/1/IPv6/Addresses/7/Address/Value, "
                                 "~/1/IPv6/Addresses/7/Type/Value)"});
    store(1, {"2001:db8::5/64 Automatic 7"});
    EXPECT_EQ(read().type, 2);
    store(1, {"fe80::5/128 Link-Local 7"});
    EXPECT_EQ(text(read()), "fe80::5/128 1 7");
}

TEST_F(ReadAddress, LogsWhatItReadsAtLevelFour) {
    store(1, {"2001:DB8::5/64 Static 7"});
    expect_info_at(4, "Discovering TAV addr on '" + node + "'", [this] { read(); });
    expect_info_at(4, "Read TAV address 7 ('2001:DB8::5/64') (Static) on '" + node + "'",
                   [this] { read(); });
}

TEST_F(ReadAddress, AFailedCallIsAnErrorEvenWithoutOutputs) {
    store(1, {"2001:db8::5/64 Static 7"});
    fake_tav::on_call("get_leaves").returns(-5).statuses({0, 0});
    EXPECT_EQ(error(), returned + "-5/0/0");
    fake_tav::on_call("get_leaves").returns(-5).statuses({1, 1});
    EXPECT_EQ(error(), returned + "-5/1/1");
    fake_tav::on_call("get_leaves").returns(-5); // the vectors stay as they were
    EXPECT_EQ(thrown<sync_err>([this] { read(); }).find(returned + "-5/"), 0U);
}

TEST_F(ReadAddress, AMissingLeafIsAMinorErrorThatNamesBothStatuses) {
    fake_tav::put(node + "/Address/Value", "2001:db8::5/64");
    EXPECT_EQ(minor_error(), returned + "0/1/2");
    fake_tav::erase(node);
    fake_tav::put(node + "/Type/Value", "Static");
    EXPECT_EQ(minor_error(), returned + "0/2/1");
}

TEST_F(ReadAddress, AValueOfAnotherTypeIsAMinorErrorThatNamesItsLeaf) {
    fake_tav::put(node + "/Address/Value", number_element("1"));
    fake_tav::put(node + "/Type/Value", number_element("3"));
    EXPECT_EQ(minor_error(), in_addr + "'" + node + "/Address/Value' is not a string type");
    fake_tav::put(node + "/Address/Value", "2001:db8::5/64");
    EXPECT_EQ(minor_error(), in_addr + "'" + node + "/Type/Value' is not a string type");
}

TEST_F(ReadAddress, TheStatusesAreJudgedBeforeTheValues) {
    for (const CElement &value : {CElement("2001:db8::5/64", -1), number_element("5")}) {
        fake_tav::on_call("get_leaves").statuses({1, 2}).fills(value);
        EXPECT_EQ(minor_error(), returned + "0/1/2");
        fake_tav::on_call("get_leaves").statuses({5, 1}).fills(value);
        EXPECT_EQ(minor_error(), returned + "0/5/1");
    }
}

// The address sanitizer reports a read beyond the end.
TEST_F(ReadAddress, AnAnswerForFewerLeavesIsAMinorError) {
    store(1, {"2001:db8::5/64 Static 7"});
    fake_tav::on_call("get_leaves").shortens_statuses(1);
    EXPECT_EQ(minor_error(), returned + "0/1/0");
    fake_tav::on_call("get_leaves").shortens_statuses(0);
    EXPECT_EQ(minor_error(), returned + "0/0/0");
    fake_tav::on_call("get_leaves").shortens_values(1);
    EXPECT_EQ(minor_error(), in_addr + "'" + node + "/Type/Value' is not a string type");
    fake_tav::on_call("get_leaves").shortens_values(0);
    EXPECT_EQ(minor_error(), in_addr + "'" + node + "/Address/Value' is not a string type");
}

TEST_F(ReadAddress, AnAddressWithoutPrefixLengthIsRefused) {
    store(1, {"2001:db8::5 Static 7"});
    EXPECT_EQ(address_error(),
              in_str_to_addr + "No prefix specified in address string: '2001:db8::5'");
}

TEST_F(ReadAddress, TheAddressIsJudgedBeforeTheType) {
    store(1, {"nonsense/64 nonsense 7"});
    EXPECT_EQ(address_error(), in_str_to_addr + "Can't convert string 'nonsense' to IPv6 address");
}

TEST_F(ReadAddress, AnUnknownTypeTextIsAMinorError) {
    for (const std::string type : {"static", "Dynamic", "", "Static "}) {
        store(1, "7", "2001:db8::5/64", type);
        EXPECT_EQ(minor_error(), in_addr + "Unknown addr type '" + type + "'");
    }
}

TEST_F(ReadAddress, ALongErrorTextIsCutAt255Characters) {
    const tk_string name(300, 'n');
    const std::string whole =
        in_addr + "CTav::get_leaves(" + addresses + "/" + name + ") returned 0/2/2";
    EXPECT_EQ(
        thrown<sync_minor_err>([this, &name] { engine().read_tav_ipv6_addr(addresses, name); }),
        whole.substr(0, 255));
}

class ReadAddresses : public EngineTest {
protected:
    const tk_string ipv6 = at("1/IPv6");
    strings read() {
        strings texts;
        for (const auto &address : engine().read_tav_ipv6_addrs(ipv6)) {
            texts.push_back(text(address));
        }
        return texts;
    }
    std::string error() {
        return thrown<sync_err>([this] { read(); });
    }
};

TEST_F(ReadAddresses, KeepTheOrderOfTheListingAndTheNamesOfTheNodes) {
    store(1, {"2001:db8::9/64 Static 9", "2001:db8::2/64 Automatic office",
              "fe80::1/64 Link-Local 1"});
    EXPECT_EQ(read(), (strings{"2001:db8::9/64 3 9", "2001:db8::2/64 2 office", "fe80::1/64 1 1"}));
}

TEST_F(ReadAddresses, AreNoneWhereTheStoreHasNoSuchNode) {
    EXPECT_EQ(read(), strings{});
    expect_info_at(4, "No addresses specified (" + ipv6 + "/Addresses).", [this] { read(); });
}

// The content of the listing must be ignored if the store has no such node, or refuses to list it.
TEST_F(ReadAddresses, AreNoneForARefusedListingWithAnyContent) {
    store(1, {"2001:db8::5/64 Static 7"});
    for (const int status : {0, 2, 5}) {
        fake_tav::on_call("list_node")
            .statuses({status})
            .lists({{"7", {element_type_node, element_property_none}}});
        EXPECT_TRUE(engine().read_tav_ipv6_addrs(ipv6).empty()) << status;
    }
    EXPECT_EQ(fake_tav::calls("get_leaves").size(), 0U);
}

TEST_F(ReadAddresses, LogTheListingAtLevelFour) {
    store(1, {"2001:db8::9/64 Static 9"});
    expect_info_at(4, "Discovering TAV addresses on '" + ipv6 + "'", [this] { read(); });
    expect_info_at(4, "Found TAV address '9'", [this] { read(); });
    verbosity = 4;
    forget();
    read();
    EXPECT_EQ(record(), (strings{"6 Info: Discovering TAV addresses on '~/1/IPv6'",
                                 "list_node(~/1/IPv6/Addresses)", "6 Info: Found TAV address '9'",
                                 "6 Info: Discovering TAV addr on '~/1/IPv6/Addresses/9'",
                                 "get_leaves(~/1/IPv6/Addresses/9/Address/Value, "
                                 "~/1/IPv6/Addresses/9/Type/Value)",
                                 "6 Info: Read TAV address 9 ('2001:db8::9/64') (Static) on "
                                 "'~/1/IPv6/Addresses/9'"}));
}

TEST_F(ReadAddresses, SkipLeavesWithoutALogLine) {
    fake_tav::put(ipv6 + "/Addresses/note", "text");
    store(1, {"2001:db8::1/64 Static 1"});
    verbosity = 4;
    EXPECT_EQ(read(), strings{"2001:db8::1/64 3 1"});
    EXPECT_EQ(fake_tav::calls("get_leaves").size(), 1U);
    for (const auto &line : lines()) {
        EXPECT_EQ(line.find("note"), std::string::npos) << line;
    }
}

TEST_F(ReadAddresses, LeavesOfEveryTypeAreSkipped) {
    for (const element_type_t type :
         {element_type_none, element_type_boolean, element_type_integer, element_type_string}) {
        fake_tav::put(ipv6 + "/Addresses/" + std::to_string(type), CElement(type, "1", -1));
    }
    EXPECT_EQ(read(), strings{});
    EXPECT_EQ(effects(), strings{"list_node(~/1/IPv6/Addresses)"});
}

TEST_F(ReadAddresses, ABadOneIsLoggedAtLevelTwoAndTheOthersAreKept) {
    store(1, {"2001:db8::1/64 Static 1", "2001:db8::2/64 static 2"});
    fake_tav::put(ipv6 + "/Addresses/3/Address/Value", "2001:db8::3/64");
    store(1, {"2001:db8::4/129 Static 4", "2001:db8::5/64 Automatic 5"});
    EXPECT_EQ(read(), (strings{"2001:db8::1/64 3 1", "2001:db8::5/64 2 5"}));
    for (const std::string &why :
         {in_addr + "Unknown addr type 'static'",
          in_addr + "CTav::get_leaves(" + ipv6 + "/Addresses/3) returned 0/1/2",
          in_str_to_addr + "Invalid prefix length '129'"}) {
        expect_info_at(2, "Ignoring address: '" + why + "'", [this] { read(); });
    }
}

TEST_F(ReadAddresses, AFailedListingIsAnError) {
    fake_tav::on_call("list_node").returns(-9);
    EXPECT_EQ(error(), in_addrs + "CTav::list_node(" + ipv6 + "/Addresses) returned -9");
}

TEST_F(ReadAddresses, AFailedCallForOneAddressEndsTheReading) {
    store(1, {"2001:db8::1/64 Static 1", "2001:db8::2/64 Static 2", "2001:db8::3/64 Static 3"});
    fake_tav::on_call("get_leaves", 2).returns(-5).statuses({0});
    EXPECT_EQ(error(), in_addr + "CTav::get_leaves(" + ipv6 + "/Addresses/2) returned -5/0/0");
    EXPECT_EQ(fake_tav::calls("get_leaves").size(), 2U);
}

} // namespace
