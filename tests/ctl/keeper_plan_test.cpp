// What the keeper concludes from the store's changes, and what it then has to do.
#include "ctl/keeper_plan.h"

#include <gtest/gtest.h>

#include "ctl/keeper_settings.h"

namespace {

using ctl::fact_t;
using ctl::leaf_change_t;
using ctl::task_t;
using keeper_test::gateway;
using keeper_test::office;

const std::string top = "/Software/System Settings/Network/Interface/";

// --- facts

using text_t = std::optional<std::string>;

leaf_change_t address_leaf(const text_t &before, const text_t &after,
                           const std::string &node = "1/IPv6/Addresses/office") {
    return {top + node + "/Address/Value", before, after};
}
leaf_change_t type_leaf(const text_t &before, const text_t &after) {
    return {top + "1/IPv6/Addresses/office/Type/Value", before, after};
}
leaf_change_t gateway_leaf(const text_t &before, const text_t &after) {
    return {top + "1/IPv6/Default Gateway/Value", before, after};
}

struct facts_case_t {
    const char *name;
    std::vector<leaf_change_t> leaves;
    bool type_unchanged;
    const char *facts;
};

const facts_case_t facts_cases[] = {
    {"ARemovedStaticAddressLeft",
     {address_leaf("2001:db8::5/64", {}), type_leaf("Static", {})},
     false,
     "eth0 left 2001:db8::5/64 office\n"},
    {"ARemovedAutomaticAddressIsNoSetting",
     {address_leaf("2001:db8::5/64", {}), type_leaf("Automatic", {})},
     true,
     ""},
    {"ANewAddressHasNotLeft",
     {address_leaf({}, "2001:db8::5/64"), type_leaf({}, "Static")},
     false,
     ""},
    {"AnotherAddressInANodeOfUnchangedType",
     {address_leaf("2001:db8::5/64", "2001:db8::6/64")},
     true,
     "eth0 left 2001:db8::5/64 office\n"},
    {"AnotherAddressInANodeThatMayBeAutomatic",
     {address_leaf("2001:db8::5/64", "2001:db8::6/64")},
     false,
     ""},
    {"AnotherTextOfTheSameAddress", {address_leaf("2001:db8::5/64", "2001:DB8:0::5/48")}, true, ""},
    {"ATextThatIsNoAddress",
     {address_leaf("2001:db8::5/64", "none")},
     true,
     "eth0 left 2001:db8::5/64 office\n"},
    {"WhatWasNoAddress", {address_leaf("none", {}), type_leaf("Static", {})}, false, ""},
    {"AStaticAddressThatBecomesAutomatic", {type_leaf("Static", "Automatic")}, true, ""},
    {"AnotherLink",
     {address_leaf("2001:db8::5/64", {}, "03/IPv6/Addresses/a b")},
     true,
     "eth2 left 2001:db8::5/64 a b\n"},
    {"AGatewayThatLeft", {gateway_leaf("fe80::1", {})}, false, "eth0 left gateway fe80::1 \n"},
    {"AGatewayThatWasSet", {gateway_leaf({}, "fe80::1")}, false, "eth0 set gateway fe80::1 \n"},
    {"AnotherGateway",
     {gateway_leaf("fe80::1", "fe80::2")},
     false,
     "eth0 left gateway fe80::1 \neth0 set gateway fe80::2 \n"},
    {"ATouchedGateway", {gateway_leaf("fe80::1", "fe80::1")}, false, ""},
    {"AGatewayThatIsNoAddress", {gateway_leaf("none", "::g")}, false, ""},
    {"OtherLeaves",
     {{top + "1/IPv6/Default Gateway", "fe80::1", {}},
      {top + "1/IPv6/Default Gateway/Other", "fe80::1", {}},
      {top + "1/IPv4/Default Gateway/Value", "fe80::1", {}},
      {top + "one/IPv6/Default Gateway/Value", "fe80::1", {}},
      {top + "1/IPv6/Default Gateway/Value/Value", "fe80::1", {}},
      {top + "1/IPv6/Addresses/a/b/Address/Value", "2001:db8::5/64", {}},
      {top + "1/IPv6/Addresses/office/Value", "2001:db8::5/64", {}},
      {"/Software/tandrel/Keeper/Links/eth0/Gateway/Value", "fe80::1", {}},
      {top + "1", "x", {}},
      {"/", "x", {}}},
     true,
     ""},
};

class Facts : public testing::TestWithParam<facts_case_t> {};

TEST_P(Facts, AreWhatTheLeavesHeld) {
    std::string text;
    for (const fact_t &fact : ctl::facts_of(GetParam().leaves, "eth", GetParam().type_unchanged)) {
        text += fact.setting.link + (fact.kind == fact_t::left ? " left " : " set ") +
                text_of(fact.setting) + " " + fact.setting.node + "\n";
    }
    EXPECT_EQ(text, GetParam().facts);
}

INSTANTIATE_TEST_SUITE_P(Keeper, Facts, testing::ValuesIn(facts_cases),
                         [](const auto &one) { return one.param.name; });

TEST(KeeperFacts, GoByThePrefix) {
    const auto facts = ctl::facts_of({gateway_leaf("fe80::1", {})}, "wlan", false);
    ASSERT_EQ(facts.size(), 1U);
    EXPECT_EQ(facts[0].setting.link, "wlan0");
}

TEST(KeeperFacts, AChangeMakesTheSettingsThatItStores) {
    const auto made = ctl::settings_made(
        {address_leaf("2001:db8::5/64", "2001:db8::6/64"), gateway_leaf("fe80::1", "fe80::2")},
        "eth");
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(text_of(made[0]), "gateway fe80::2");
    EXPECT_EQ(text_of(made[1]), "2001:db8::6/64");
    EXPECT_TRUE(
        ctl::settings_made({address_leaf("2001:db8::5/64", {}), type_leaf("Static", {})}, "eth")
            .empty());
}

// --- tasks

class Plan : public LookTest {
protected:
    void keep(const ctl::setting_t &setting) { memory.kept.push_back({setting, "link down", 0}); }

    // A line for each task.
    std::string plan() {
        client.require();
        ctl::links_t links(prefix);
        links.restart(kernel.links, {});
        const ctl::plan_t made =
            ctl::make_plan(memory, kernel, ctl::read_store(client.tav, prefix), links, prefix);
        unsettled = made.unsettled;
        static const char *const names[] = {"restore", "forget", "synchronise", "take out",
                                            "adopt",   "remove", "drop",        "settle"};
        std::string text;
        for (const task_t &task : made.tasks) {
            text += std::string(names[task.kind]) + " " + text_of(task.setting) +
                    (task.setting.node.empty() ? "" : " in " + task.setting.node) +
                    (task.words.empty() ? "" : ": " + task.words) + "\n";
        }
        return text;
    }

    ctl::memory_t memory;
    std::set<std::string> unsettled;
};

TEST_F(Plan, NothingIsToDoWithoutAMemory) {
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, WhatIsKeptIsSetAgainWhenTheLinkCanCarryIt) {
    keep(office());
    keep(gateway());
    kernel.links[0].up = false;
    EXPECT_EQ(plan(), "");
    kernel.links[0].up = true;
    EXPECT_EQ(plan(), "restore 2001:db8::5/64 in office: link down\n"
                      "restore gateway fe80::1: link down\n");
}

TEST_F(Plan, ATakenNodeNameIsReplacedByAFreeOne) {
    store("office", "2001:db8::6/64", "Automatic");
    store("1", "2001:db8::7/64", "Automatic");
    keep(office());
    keep(office("2", "2001:db8::8"));
    keep(office("2", "2001:db8::9"));
    EXPECT_EQ(plan(), "restore 2001:db8::5/64 in 2: link down\n"
                      "restore 2001:db8::8/64 in 3: link down\n"
                      "restore 2001:db8::9/64 in 4: link down\n");
}

TEST_F(Plan, WhatIsStoredAgainIsForgotten) {
    store("other", "2001:DB8::5/48");
    address("2001:db8::5", 48);
    store_gateway("fe80::2");
    route("fe80::2");
    keep(office());
    keep(gateway());
    EXPECT_EQ(plan(), "forget 2001:db8::5/64 in office: stored again\n"
                      "forget gateway fe80::1: a gateway is stored again\n");
}

TEST_F(Plan, EvenAGatewayThatCannotBeReadIsStored) {
    store_gateway("none");
    keep(gateway());
    EXPECT_EQ(plan(), "forget gateway fe80::1: a gateway is stored again\n");
}

TEST_F(Plan, AnEmptyGatewayNodeIsNoGateway) {
    fake_tav::put_node(at("1/IPv6/Default Gateway"));
    keep(gateway());
    EXPECT_EQ(plan(), "restore gateway fe80::1: link down\n");
}

TEST_F(Plan, WithoutTheInterfaceNodeAllIsForgotten) {
    fake_tav::erase(at("1"));
    keep(office());
    EXPECT_EQ(plan(), "forget 2001:db8::5/64 in office: interface node removed\n");
}

TEST_F(Plan, ALinkWithTwoNodesIsNotTouched) {
    fake_tav::put_node(at("01"));
    keep(office());
    store("refused", "2001:db8::6/64");
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, ALinkOfAnotherPrefixIsNotTouched) {
    keep(office());
    memory.kept[0].setting.link = "wlan0";
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, AnAddressThatTheKernelStillRejectsAsADuplicateWaits) {
    keep(office());
    address("2001:db8::5", 64).flags |= IFA_F_DADFAILED;
    EXPECT_EQ(plan(), "");
    kernel.addresses[0].flags = IFA_F_PERMANENT;
    EXPECT_EQ(plan(), "restore 2001:db8::5/64 in office: link down\n");
}

TEST_F(Plan, AStaticAddressThatTheKernelLacksIsTriedAgain) {
    store("office", "2001:db8::5/64");
    EXPECT_EQ(plan(), "synchronise 2001:db8::5/64 in office\n");
    kernel.links[0].ipv6_refused = true;
    EXPECT_EQ(plan(), "");
    kernel.links[0].ipv6_refused = false;
    address("2001:db8::5", 64);
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, WhatTheKernelNeverAcceptsIsNotTriedAgain) {
    store("multicast", "ff02::5/64");
    store("unreadable", "none");
    store("automatic", "2001:db8::5/64", "Automatic");
    store_gateway("::1");
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, ADuplicateIsTakenOut) {
    store("office", "2001:db8::5/64");
    address("2001:db8::5", 64).flags |= IFA_F_DADFAILED | IFA_F_TENTATIVE;
    EXPECT_EQ(plan(), "take out 2001:db8::5/64 in office: duplicate on the network\n");
    store("again", "2001:db8::5/64");
    EXPECT_EQ(plan(), "") << "it would stay in the kernel";
}

TEST_F(Plan, ALinkWithATentativeAddressIsUnsettled) {
    store("office", "2001:db8::5/64");
    address("2001:db8::5", 64).flags |= IFA_F_TENTATIVE;
    EXPECT_EQ(plan(), "");
    EXPECT_EQ(unsettled, std::set<std::string>{"eth0"});
    kernel.addresses[0].flags = IFA_F_PERMANENT;
    EXPECT_EQ(plan(), "");
    EXPECT_EQ(unsettled, std::set<std::string>{});
}

TEST_F(Plan, AGatewayThatTheKernelLacksIsTriedAgainWhenANetworkContainsIt) {
    store_gateway("2001:db8::1");
    EXPECT_EQ(plan(), "");
    route("::").route.dst = bytes("2001:db8::");
    kernel.routes[0].route.dst_len = 64;
    EXPECT_EQ(plan(), "synchronise gateway 2001:db8::1\n");
    kernel.routes.clear();
    store("office", "2001:db8::5/64");
    address("2001:db8::5", 64);
    EXPECT_EQ(plan(), "synchronise gateway 2001:db8::1\n");
    store("office", "2001:db8::5/64", "Automatic");
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, ALinkLocalGatewayIsAlwaysTriedAgain) {
    store_gateway("fe80::1");
    EXPECT_EQ(plan(), "synchronise gateway fe80::1\n");
    route("fe80::1", RTPROT_RA);
    EXPECT_EQ(plan(), "") << "the kernel has it, as an advertised one";
}

TEST_F(Plan, TheLinksOwnAddressIsNoGateway) {
    store_gateway("fe80::1");
    address("fe80::1", 64);
    EXPECT_EQ(plan(), "");
}

TEST_F(Plan, WhatIsOnlyStoredAsAutomaticIsNotStoredAgain) {
    keep(office());
    store("3", "2001:db8::5/64", "Automatic");
    EXPECT_EQ(plan(), "") << "the daemon has yet to see that the kernel lost it";
    address("2001:db8::5", 64);
    EXPECT_EQ(plan(), "restore 2001:db8::5/64 in office: link down\n"
                      "drop 2001:db8::5/64 in 3\n");
    kernel.addresses[0].origin = 2;
    EXPECT_EQ(plan(), "") << "a router advertises it";
    store("office", "2001:db8::5/64");
    EXPECT_EQ(plan(), "forget 2001:db8::5/64 in office: stored again\n");
}

class UnfinishedRemoval : public Plan {
protected:
    UnfinishedRemoval() {
        memory.removals.push_back({office(), ""});
        address("2001:db8::5", 64);
    }
};

TEST_F(UnfinishedRemoval, WaitsForTheDaemon) {
    EXPECT_EQ(plan(), "");
}

TEST_F(UnfinishedRemoval, IsDoneWhenTheKernelHasLostTheAddress) {
    kernel.addresses.clear();
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n");
}

TEST_F(UnfinishedRemoval, BeginsWhenTheDaemonHasStoredTheAddressAsAutomatic) {
    store("3", "2001:db8::5/64", "Automatic");
    EXPECT_EQ(plan(), "adopt 2001:db8::5/64 in 3\n");
    kernel.addresses[0].origin = 2;
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n") << "a router advertises it";
}

TEST_F(UnfinishedRemoval, EndsWithTheNodeThatTheKeeperMadeStatic) {
    store("3", "2001:db8::5/64");
    memory.removals[0].node = "3";
    EXPECT_EQ(
        plan(),
        "remove 2001:db8::5/64 in 3: removed from the store while tandrel was disconnected\n");
    memory.removals[0].node = "4";
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n") << "somebody has stored it again";
}

TEST_F(UnfinishedRemoval, LeavesOneNodeWhenTheAddressIsStoredAgain) {
    store("3", "2001:db8::5/64", "Automatic");
    store("office", "2001:db8::5/64");
    EXPECT_EQ(plan(), "drop 2001:db8::5/64 in 3\n");
    store("3", "2001:db8::5/64");
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n") << "both were stored by somebody";
    memory.removals[0].node = "3";
    EXPECT_EQ(plan(), "drop 2001:db8::5/64 in 3\n") << "the keeper made it";
    store("3", "2001:db8::5/64", "Automatic");
    memory.removals[0].node = "";
    kernel.addresses[0].origin = 2;
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n") << "a router advertises it";
}

TEST_F(UnfinishedRemoval, IsDroppedWithTheInterfaceNode) {
    fake_tav::erase(at("1"));
    EXPECT_EQ(plan(), "settle 2001:db8::5/64 in office\n");
}

// --- pace

ctl::moment_t second(int number) {
    return ctl::moment_t{} + std::chrono::hours(1) + std::chrono::seconds(number);
}

TEST(KeeperPace, DoublesToAMinute) {
    ctl::pace_t pace;
    int now = 0;
    for (const int delay : {1, 2, 4, 8, 16, 32, 60, 60}) {
        EXPECT_TRUE(pace.is_due(second(now), false));
        pace.attempted(second(now));
        EXPECT_EQ(pace.next(), second(now + delay));
        EXPECT_FALSE(pace.is_due(second(now + delay - 1), false));
        now += delay;
    }
}

TEST(KeeperPace, WaitsASecondForWhatMayComeByItself) {
    ctl::pace_t pace;
    EXPECT_FALSE(pace.is_due(second(0), true));
    EXPECT_EQ(pace.next(), second(1));
    EXPECT_FALSE(pace.is_due(second(0), true));
    EXPECT_TRUE(pace.is_due(second(1), true));
}

TEST(KeeperPace, IsNeverFasterThanOneASecond) {
    ctl::pace_t pace;
    EXPECT_TRUE(pace.is_due(second(0), false));
    pace.attempted(second(0));
    pace.attempted(second(1));
    pace.attempted(second(3));
    EXPECT_EQ(pace.next(), second(7));
    pace.reset();
    EXPECT_FALSE(pace.is_due(second(3), false));
    EXPECT_EQ(pace.next(), second(4));
    pace.attempted(second(4));
    EXPECT_EQ(pace.next(), second(5));
}

} // namespace
