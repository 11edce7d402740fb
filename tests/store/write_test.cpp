// Writing and removing one gateway and one address.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using toolkit::CElement;

CTavInterface numbered(std::int32_t number) {
    CTavInterface interface;
    interface.number = number;
    interface.name = "eth7";
    return interface;
}

CTavAddress address(const std::string &text, int prefix_len, std::int32_t type,
                    const tk_string &node) {
    CTavAddress result;
    result.addr = fake_libnl::addr(text);
    result.prefix_len = static_cast<std::uint8_t>(prefix_len);
    result.type = type;
    result.node = node;
    return result;
}

// The arguments of every write besides paths and texts.
void expect_plain_write(const fake_tav::call_t &call) {
    EXPECT_EQ(call.reserved, "");
    EXPECT_EQ(call.values.size(), call.paths.size());
    EXPECT_EQ(call.flags.size(), call.paths.size());
    for (const auto &value : call.values) {
        EXPECT_EQ(value.type(), 6);
        EXPECT_EQ(value.time(), CElement::_invalid_time);
    }
    for (const auto flag : call.flags) {
        EXPECT_EQ(flag, 2);
    }
}

class WriteGateway : public EngineTest {
protected:
    const tk_string leaf = at("3/IPv6/Default Gateway/Value");
    void write(const std::string &gateway) {
        CTavRoute route;
        route.gateway = fake_libnl::addr(gateway);
        route.dst_len = 64; // only the gateway's address is used
        engine().write_tav_ipv6_gateway(numbered(3), route);
    }
};

TEST_F(WriteGateway, WritesTheBareAddressAsAStringWithoutTime) {
    write("fe80::1");
    EXPECT_EQ(effects(), strings{"set_leaf(~/3/IPv6/Default Gateway/Value = fe80::1)"});
    expect_plain_write(fake_tav::calls("set_leaf").at(0));
    EXPECT_EQ(fake_tav::text(leaf), "fe80::1");
}

TEST_F(WriteGateway, ReplacesTheValueOfAnExistingOneWithoutRemovingIt) {
    store_gateway(3, "fe80::1");
    write("2001:db8::ff");
    EXPECT_EQ(effects(), strings{"set_leaf(~/3/IPv6/Default Gateway/Value = 2001:db8::ff)"});
    EXPECT_EQ(fake_tav::text(leaf), "2001:db8::ff");
}

TEST_F(WriteGateway, AFailedCallIsAnError) {
    fake_tav::on_call("set_leaf").returns(-3).statuses({1});
    EXPECT_EQ(thrown<sync_err>([this] { write("fe80::1"); }),
              "void CSync::write_tav_ipv6_gateway(const CTavInterface&, const CTavRoute&): "
              "CTav::set_leaf() returned -3");
}

TEST_F(WriteGateway, ARefusedPathIsOnlyLoggedAtLevelTwo) {
    expect_info_at(2, "Error when writing '" + leaf + "': 5", [this] {
        fake_tav::on_call("set_leaf").statuses({5});
        EXPECT_NO_THROW(write("fe80::1"));
    });
}

class RemoveGateway : public EngineTest {
protected:
    const tk_string node = at("3/IPv6/Default Gateway");
    void remove() { engine().remove_tav_ipv6_gateway(numbered(3)); }
};

TEST_F(RemoveGateway, RemovesTheNodeWithItsValue) {
    store_gateway(3, "fe80::1");
    remove();
    EXPECT_EQ(effects(), strings{"remove_node(~/3/IPv6/Default Gateway)"});
    EXPECT_EQ(fake_tav::calls("remove_node").at(0).reserved, "");
    EXPECT_FALSE(fake_tav::exists(node));
}

TEST_F(RemoveGateway, AFailedCallIsAnError) {
    fake_tav::on_call("remove_node").returns(-3).statuses({1});
    EXPECT_EQ(thrown<sync_err>([this] { remove(); }),
              "void CSync::remove_tav_ipv6_gateway(const CTavInterface&): CTav::remove_node(" +
                  node + ") returned -3");
}

TEST_F(RemoveGateway, ARefusedPathIsOnlyLoggedAtLevelTwo) {
    expect_info_at(2, "Error when removing '" + node + "': 2",
                   [this] { EXPECT_NO_THROW(remove()); });
}

class WriteAddress : public EngineTest {
protected:
    const tk_string node = at("3/IPv6/Addresses/7");
    void write(std::int32_t type) {
        engine().write_tav_ipv6_addr(numbered(3), address("2001:db8::5", 64, type, "7"));
    }
};

TEST_F(WriteAddress, WritesBothLeavesInOneCall) {
    write(3);
    EXPECT_EQ(effects(), strings{"set_leaves(~/3/IPv6/Addresses/7/Address/Value = 2001:db8::5/64, "
                                 "~/3/IPv6/Addresses/7/Type/Value = Static)"});
    expect_plain_write(fake_tav::calls("set_leaves").at(0));
    EXPECT_EQ(fake_tav::text(node + "/Address/Value"), "2001:db8::5/64");
    EXPECT_EQ(fake_tav::text(node + "/Type/Value"), "Static");
}

TEST_F(WriteAddress, SpellsEachTypeAndAnyOtherAsAnEmptyText) {
    const std::vector<std::pair<std::int32_t, std::string>> cases = {
        {1, "Link-Local"}, {2, "Automatic"}, {3, "Static"}, {0, ""}, {4, ""}, {-1, ""}};
    for (const auto &one : cases) {
        write(one.first);
        EXPECT_EQ(fake_tav::text(node + "/Type/Value"), one.second);
    }
}

TEST_F(WriteAddress, UsesTheNameOfTheNode) {
    engine().write_tav_ipv6_addr(numbered(12), address("fe80::1", 128, 1, "my office"));
    EXPECT_EQ(fake_tav::text(at("12/IPv6/Addresses/my office/Address/Value")), "fe80::1/128");
}

TEST_F(WriteAddress, AFailedCallIsAnErrorEvenWithoutStatuses) {
    fake_tav::on_call("set_leaves").returns(-3);
    EXPECT_EQ(thrown<sync_err>([this] { write(3); }),
              "void CSync::write_tav_ipv6_addr(const CTavInterface&, const CTavAddress&): "
              "CTav::set_leaves() returned -3");
}

TEST_F(WriteAddress, EachRefusedPathIsLoggedInOrderAtLevelTwo) {
    verbosity = 2;
    fake_tav::on_call("set_leaves").statuses({9, 5});
    write(3);
    EXPECT_EQ(lines(), (strings{"Error when writing '" + node + "/Address/Value': 9",
                                "Error when writing '" + node + "/Type/Value': 5"}));
    forget();
    fake_tav::on_call("set_leaves").statuses({1, 8});
    write(3);
    EXPECT_EQ(lines(), strings{"Error when writing '" + node + "/Type/Value': 8"});
    expect_info_at(2, "Error when writing '" + node + "/Address/Value': 5", [this] {
        fake_tav::on_call("set_leaves").statuses({5, 1});
        write(3);
    });
}

TEST_F(WriteAddress, APathOfStatusZeroWasNotWritten) {
    verbosity = 2;
    fake_tav::on_call("set_leaves").statuses({0, 1});
    write(3);
    EXPECT_EQ(lines(), strings{"Error when writing '" + node + "/Address/Value': 0"});
}

TEST_F(WriteAddress, APathWithoutAStatusIsTreatedAsNotWritten) {
    verbosity = 2;
    fake_tav::on_call("set_leaves").shortens_statuses(1);
    write(3);
    EXPECT_EQ(lines(), strings{"Error when writing '" + node + "/Type/Value': 0"});
    forget();
    fake_tav::on_call("set_leaves").shortens_statuses(0);
    write(3);
    EXPECT_EQ(lines(), (strings{"Error when writing '" + node + "/Address/Value': 0",
                                "Error when writing '" + node + "/Type/Value': 0"}));
}

class RemoveAddress : public EngineTest {
protected:
    const tk_string node = at("3/IPv6/Addresses/7");
    void remove() {
        engine().remove_tav_ipv6_addr(numbered(3), address("2001:db8::5", 64, 3, "7"));
    }
};

TEST_F(RemoveAddress, RemovesTheWholeNode) {
    store(3, {"2001:db8::5/64 Static 7", "2001:db8::6/64 Static 8"});
    remove();
    EXPECT_EQ(effects(), strings{"remove_node(~/3/IPv6/Addresses/7)"});
    EXPECT_EQ(fake_tav::calls("remove_node").at(0).reserved, "");
    EXPECT_FALSE(fake_tav::exists(node));
    EXPECT_TRUE(fake_tav::exists(at("3/IPv6/Addresses/8")));
}

TEST_F(RemoveAddress, AFailedCallIsAnError) {
    fake_tav::on_call("remove_node").returns(2);
    EXPECT_EQ(thrown<sync_err>([this] { remove(); }),
              "void CSync::remove_tav_ipv6_addr(const CTavInterface&, const CTavAddress&): "
              "CTav::remove_node(" +
                  node + ") returned 2");
}

TEST_F(RemoveAddress, ARefusedPathIsOnlyLoggedAtLevelTwo) {
    expect_info_at(2, "Error when removing '" + node + "': 5", [this] {
        fake_tav::on_call("remove_node").statuses({5});
        EXPECT_NO_THROW(remove());
    });
}

} // namespace
