#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class Links : public EngineTest {
protected:
    static constexpr int added = 16;
    static constexpr int removed = 17;
    static constexpr int changed = 19;

    void announce(int type, const std::vector<CKernInterface> &links) {
        verbosity = 4;
        engine().nl_link_update(type, links);
    }
};

TEST_F(Links, AreTrackedByThePrefixOfTheirName) {
    announce(added, {kern_link(1, "lo"), kern_link(2, "eth0"), kern_link(3, "eth1.5"),
                     kern_link(4, "veth0"), kern_link(5, "et"), kern_link(6, "eth"),
                     kern_link(7, "Eth1")});
    EXPECT_EQ(engine().interfaces.size(), 3U);
    EXPECT_EQ(entry(2).iface.name, "eth0");
    EXPECT_EQ(entry(3).iface.name, "eth1.5");
    EXPECT_EQ(entry(6).iface.name, "eth");
    EXPECT_EQ(
        lines(),
        (strings{"Skipping update for link 'lo'", "Adding new link: 'eth0' (2)",
                 "ADDING link [2]: eth0 : 02:00:00:00:00:01", "Adding new link: 'eth1.5' (3)",
                 "ADDING link [3]: eth1.5 : 02:00:00:00:00:01", "Skipping update for link 'veth0'",
                 "Skipping update for link 'et'", "Adding new link: 'eth' (6)",
                 "ADDING link [6]: eth : 02:00:00:00:00:01", "Skipping update for link 'Eth1'"}));
}

TEST_F(Links, AreAllTrackedWithAnEmptyPrefix) {
    restart("");
    announce(added, {kern_link(1, "lo"), kern_link(2, "")});
    EXPECT_EQ(engine().interfaces.size(), 2U);
}

TEST_F(Links, EnterTheTableWithEverythingElseAtItsDefault) {
    announce(added, {kern_link(2, "eth0", "00:1a:2b:3c:4d:5e")});
    const ifcfg_t &fresh = entry(2);
    EXPECT_EQ(fresh.iface.ifindex, 2);
    EXPECT_EQ(fresh.iface.hwaddr, "00:1a:2b:3c:4d:5e");
    EXPECT_EQ(fresh.iface.number, 0);
    EXPECT_FALSE(fresh.gateway);
    EXPECT_TRUE(fresh.addresses.empty());
}

TEST_F(Links, AreLoggedAtLevelsTwoAndThree) {
    const auto add = [this] {
        restart();
        engine().nl_link_update(added, {kern_link(2, "eth0"), kern_link(3, "veth0")});
    };
    expect_info_at(3, "Skipping update for link 'veth0'", add);
    expect_info_at(3, "Adding new link: 'eth0' (2)", add);
    expect_info_at(2, "ADDING link [2]: eth0 : 02:00:00:00:00:01", add);
    const auto remove = [this] {
        restart();
        track(2, "eth0");
        engine().nl_link_update(removed, {kern_link(2, "eth0")});
    };
    expect_info_at(3, "Erasing existing link: 'eth0' (2)", remove);
    expect_info_at(2, "REMOVING link [2]: eth0 : 02:00:00:00:00:01", remove);
}

TEST_F(Links, AnnouncedAgainKeepTheirFirstNameAndAddress) {
    announce(added, {kern_link(2, "eth0", "00:00:00:00:00:01")});
    know(2, {"fe80::1/64 Link-Local 1"});
    forget();
    announce(added, {kern_link(2, "eth7", "00:00:00:00:00:02")});
    EXPECT_EQ(record(), strings{"6 Info: ADDING link [2]: eth7 : 00:00:00:00:00:02"});
    EXPECT_EQ(entry(2).iface.name, "eth0");
    EXPECT_EQ(entry(2).iface.hwaddr, "00:00:00:00:00:01");
    EXPECT_EQ(table(2).size(), 1U);
    engine().state = 4;
    forget();
    announce(added, {kern_link(2, "eth0")});
    EXPECT_EQ(effects(), strings{}) << "no synchronisation for a link that is known";
}

TEST_F(Links, RemovedLoseTheirAddressesAndGatewayInTheTableAlone) {
    for (const int state : {1, 4}) {
        restart();
        engine().state = state;
        track(2, "eth0", 1);
        track(3, "eth1", 2);
        know(2, {"2001:db8::5/64 Static 1"});
        know_gateway(2, "fe80::1");
        announce(removed, {kern_link(2, "eth0")});
        EXPECT_EQ(engine().interfaces.count(2), 0U);
        EXPECT_EQ(engine().interfaces.count(3), 1U);
        EXPECT_EQ(effects(), strings{});
    }
}

TEST_F(Links, RemovedUnderAnotherNameAreFoundByTheirIndexAndLoggedAsAnnounced) {
    track(2, "eth0");
    announce(removed, {kern_link(2, "eth7")});
    EXPECT_EQ(lines(), (strings{"Erasing existing link: 'eth7' (2)",
                                "REMOVING link [2]: eth7 : 02:00:00:00:00:01"}));
    EXPECT_TRUE(engine().interfaces.empty());
}

TEST_F(Links, RemovedWithoutBeingKnownAreIgnored) {
    announce(removed, {kern_link(2, "eth0")});
    EXPECT_EQ(record(), strings{"6 Info: REMOVING link [2]: eth0 : 02:00:00:00:00:01"});
    EXPECT_TRUE(engine().interfaces.empty());
}

TEST_F(Links, ChangedAreNeitherAddedNorRemovedNorLogged) {
    track(2, "eth0");
    announce(changed, {kern_link(2, "eth0"), kern_link(3, "eth1"), kern_link(4, "veth0")});
    EXPECT_EQ(record(), strings{"6 Info: Skipping update for link 'veth0'"});
    EXPECT_EQ(engine().interfaces.size(), 1U);
}

TEST_F(Links, AddedDuringDiscoveryDoNotSynchronise) {
    for (const int state : {0, 1, 2, 3}) {
        restart();
        engine().state = state;
        announce(added, {kern_link(2, "eth0")});
        EXPECT_EQ(effects(), strings{}) << "state " << state;
    }
}

TEST_F(Links, AddedInNormalOperationSynchroniseAtOnceBeforeTheirOwnLine) {
    engine().state = 4;
    fake_tav::put_node(at("1"));
    announce(added, {kern_link(2, "eth0")});
    EXPECT_EQ(entry(2).iface.number, 1);
    const strings all = record();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(all.front(), "6 Info: Adding new link: 'eth0' (2)");
    EXPECT_EQ(all.at(1), "6 Info: Synchronizing kernel & TAV settings...");
    EXPECT_EQ(all.back(), "6 Info: ADDING link [2]: eth0 : 02:00:00:00:00:01");
}

TEST_F(Links, EachNewOneInNormalOperationSynchronises) {
    engine().state = 4;
    announce(added, {kern_link(2, "eth0"), kern_link(3, "eth1"), kern_link(4, "veth0")});
    EXPECT_EQ(journal::count("log 6 Info: Synchronizing kernel & TAV settings..."), 2U);
}

TEST_F(Links, AFailingSynchronisationLeavesTheLinkInTheTable) {
    engine().state = 4;
    fake_tav::on_call("list_node").returns(-1);
    EXPECT_THROW(announce(added, {kern_link(2, "eth0"), kern_link(3, "eth1")}), sync_err);
    EXPECT_EQ(engine().interfaces.count(2), 1U);
    EXPECT_EQ(engine().interfaces.count(3), 0U) << "the links after it are not processed";
    EXPECT_EQ(captured::log_count("Info: ADDING link [2]: eth0 : 02:00:00:00:00:01"), 0U);
}

} // namespace
