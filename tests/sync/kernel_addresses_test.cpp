#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_os.h"
#include "sync/errors.h"

namespace {

constexpr int scope_link = 253;
constexpr int scope_host = 254;

class KernelAddresses : public EngineTest {
protected:
    static constexpr int added = 20;
    static constexpr int removed = 21;

    void SetUp() override {
        EngineTest::SetUp();
        restart_with_eth0(1);
    }
    void announce(int type, const std::vector<CKernAddress> &addrs) {
        engine().nl_addr_update(type, addrs);
    }
};

TEST_F(KernelAddresses, OfUntrackedLinksAreOnlyLogged) {
    const std::string line = "void CSync::nl_addr_update(int, const std::vector<CKernAddress>&): "
                             "Ignoring event on unknown interface '1'";
    expect_info_at(3, line, [this] { announce(added, {kern_addr(1, "::1", 128, scope_host)}); });
    verbosity = 4;
    for (const int type : {added, removed, 99}) {
        forget();
        announce(type, {kern_addr(1, "::1", 128, scope_host)});
        EXPECT_EQ(record(), strings{"6 Info: " + line});
    }
}

TEST_F(KernelAddresses, AreLoggedAtLevelTwo) {
    expect_info_at(2, "ADDING addr [3]: 2001:db8::5/64 [scope:link]", [this] {
        restart_with_eth0(1);
        announce(added, {kern_addr(3, "2001:db8::5", 64)});
    });
    expect_info_at(2, "REMOVING addr [3]: 2001:db8::5/64 [scope:link]", [this] {
        restart_with_eth0(1);
        announce(removed, {kern_addr(3, "2001:db8::5", 64)});
    });
}

TEST_F(KernelAddresses, HaveTheirScopePrintedAsHostOrLink) {
    verbosity = 2;
    announce(added, {kern_addr(3, "::2", 128, scope_host), kern_addr(3, "fe80::1", 64, scope_link),
                     kern_addr(3, "2001:db8::5", 0, 0), kern_addr(3, "2001:db8::6", 255, 255)});
    EXPECT_EQ(lines(), (strings{"ADDING addr [3]: ::2/128 [scope:host]",
                                "ADDING addr [3]: fe80::1/64 [scope:link]",
                                "ADDING addr [3]: 2001:db8::5/0 [scope:link]",
                                "ADDING addr [3]: 2001:db8::6/255 [scope:link]"}));
}

TEST_F(KernelAddresses, AnAddressThatCannotBePrintedIsLoggedEmpty) {
    engine().state = 2;
    verbosity = 2;
    fake_os::state().inet_ntop.returns(0, 28);
    announce(added, {kern_addr(3, "2001:db8::5", 64)});
    EXPECT_EQ(lines(), strings{"ADDING addr [3]: /64 [scope:link]"});
}

TEST_F(KernelAddresses, AreConvertedToTextOnlyForALineThatIsWritten) {
    engine().state = 2;
    verbosity = 1;
    fake_os::state().inet_ntop.returns(1).returns(0, 28); // one text, then no more
    announce(added, {kern_addr(3, "2001:db8::5", 64)});
    verbosity = 2;
    announce(added, {kern_addr(3, "2001:db8::5", 64), kern_addr(3, "2001:db8::5", 64)});
    EXPECT_EQ(lines(), (strings{"ADDING addr [3]: 2001:db8::5/64 [scope:link]",
                                "ADDING addr [3]: /64 [scope:link]"}));
}

TEST_F(KernelAddresses, OfAnotherKindOfEventAreNeitherTakenNorLogged) {
    verbosity = 4;
    announce(22, {kern_addr(3, "2001:db8::5", 64)});
    EXPECT_EQ(record(), strings{});
    EXPECT_EQ(table(3), strings{});
}

TEST_F(KernelAddresses, AreNamedFromOneOnAndTypedByTheirScope) {
    announce(added, {kern_addr(3, "fe80::1", 64, scope_link), kern_addr(3, "2001:db8::5", 64),
                     kern_addr(3, "::3", 128, scope_host)});
    EXPECT_EQ(table(3), (strings{"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic 2",
                                 "::3/128 Automatic 3"}));
    EXPECT_EQ(effects(), (strings{address_write("1", "fe80::1/64", "Link-Local"),
                                  address_write("2", "2001:db8::5/64", "Automatic"),
                                  address_write("3", "::3/128", "Automatic")}));
}

TEST_F(KernelAddresses, KeepTheirFieldsFromTheKernel) {
    announce(added, {kern_addr(3, "fe80::1", 64, scope_link)});
    const CFullAddress &known = entry(3).addresses.at(0);
    EXPECT_EQ(known.ifindex, 3);
    EXPECT_EQ(known.scope, scope_link);
    EXPECT_EQ(known.prefix_len, 64);
}

TEST_F(KernelAddresses, FillTheGapBetweenNames) {
    know(3, {"2001:db8::1/64 Automatic 1", "2001:db8::3/64 Automatic 3",
             "2001:db8::4/64 Automatic 02", "2001:db8::5/64 Static office"});
    announce(added, {kern_addr(3, "2001:db8::a", 64), kern_addr(3, "2001:db8::b", 64)});
    EXPECT_EQ(entry(3).addresses.at(4).node, "2");
    EXPECT_EQ(entry(3).addresses.at(5).node, "4");
}

TEST_F(KernelAddresses, CountBeyondTenInDecimal) {
    for (int i = 1; i <= 12; ++i) {
        announce(added, {kern_addr(3, "2001:db8::" + std::to_string(i), 64)});
    }
    EXPECT_EQ(entry(3).addresses.back().node, "12");
}

TEST_F(KernelAddresses, AreNeverTypedStatic) {
    for (int scope = 0; scope <= 255; ++scope) {
        restart_with_eth0(1);
        announce(added, {kern_addr(3, "2001:db8::5", 64, scope)});
        EXPECT_EQ(entry(3).addresses.at(0).type, scope == scope_link ? 1 : 2) << scope;
    }
}

TEST_F(KernelAddresses, AnnouncedAgainTakeTheNewLengthAndAreRewritten) {
    know(3, {"2001:db8::5/64 Automatic office"});
    announce(added, {kern_addr(3, "2001:db8::5", 48)});
    EXPECT_EQ(table(3), strings{"2001:db8::5/48 Automatic office"});
    EXPECT_EQ(effects(), strings{address_write("office", "2001:db8::5/48", "Automatic")});
    forget();
    announce(added, {kern_addr(3, "2001:db8::5", 48)});
    EXPECT_EQ(effects(), strings{address_write("office", "2001:db8::5/48", "Automatic")})
        << "also when nothing changed";
}

TEST_F(KernelAddresses, AnnouncedAgainKeepScopeTypeAndName) {
    know(3, {"2001:db8::5/64 Static 7"});
    announce(added, {kern_addr(3, "2001:db8::5", 64, scope_link)});
    EXPECT_EQ(entry(3).addresses.at(0).scope, 0);
    EXPECT_EQ(entry(3).addresses.at(0).ifindex, 3);
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static 7"});
    EXPECT_EQ(effects(), strings{address_write("7", "2001:db8::5/64", "Static")});
}

TEST_F(KernelAddresses, OfSeveralEqualEntriesAllTakeTheLengthAndTheLastIsWritten) {
    know(3,
         {"2001:db8::5/64 Automatic 1", "2001:db8::6/64 Automatic 2", "2001:db8::5/64 Static 3"});
    announce(added, {kern_addr(3, "2001:db8::5", 48)});
    EXPECT_EQ(table(3), (strings{"2001:db8::5/48 Automatic 1", "2001:db8::6/64 Automatic 2",
                                 "2001:db8::5/48 Static 3"}));
    EXPECT_EQ(effects(), strings{address_write("3", "2001:db8::5/48", "Static")});
}

TEST_F(KernelAddresses, DuringDiscoveryAreOnlyRecorded) {
    for (const int state : {0, 1, 2, 3}) {
        restart_with_eth0(1);
        engine().state = state;
        announce(added, {kern_addr(3, "2001:db8::5", 64), kern_addr(3, "2001:db8::5", 48),
                         kern_addr(3, "fe80::1", 64, scope_link)});
        EXPECT_EQ(table(3), (strings{"2001:db8::5/48 Automatic 1", "fe80::1/64 Link-Local 2"}));
        announce(removed, {kern_addr(3, "2001:db8::5", 48)});
        EXPECT_EQ(table(3), strings{"fe80::1/64 Link-Local 2"});
        EXPECT_EQ(effects(), strings{}) << "state " << state;
    }
}

TEST_F(KernelAddresses, RemovedAreTakenOutOfStoreAndTable) {
    know(3, {"2001:db8::5/64 Automatic 1", "2001:db8::6/64 Automatic 2"});
    verbosity = 2;
    announce(removed, {kern_addr(3, "2001:db8::5", 64), kern_addr(3, "2001:db8::6", 48)});
    EXPECT_EQ(record(), (strings{"remove_node(~/1/IPv6/Addresses/1)",
                                 "6 Info: Error when removing '~/1/IPv6/Addresses/1': 2",
                                 "6 Info: REMOVING addr [3]: 2001:db8::5/64 [scope:link]",
                                 "6 Info: REMOVING addr [3]: 2001:db8::6/48 [scope:link]"}));
    EXPECT_EQ(table(3), strings{"2001:db8::6/64 Automatic 2"});
}

TEST_F(KernelAddresses, AreLoggedAfterTheyWereHandled) {
    verbosity = 2;
    announce(added, {kern_addr(3, "2001:db8::5", 64), kern_addr(9, "2001:db8::6", 64),
                     kern_addr(3, "2001:db8::7", 64)});
    EXPECT_EQ(record(), (strings{address_write("1", "2001:db8::5/64", "Automatic"),
                                 "6 Info: ADDING addr [3]: 2001:db8::5/64 [scope:link]",
                                 address_write("2", "2001:db8::7/64", "Automatic"),
                                 "6 Info: ADDING addr [3]: 2001:db8::7/64 [scope:link]"}));
}

TEST_F(KernelAddresses, AFailingWriteEndsTheBatchAndKeepsTheTable) {
    fake_tav::on_call("set_leaves", 2).returns(-1);
    EXPECT_THROW(announce(added, {kern_addr(3, "2001:db8::1", 64), kern_addr(3, "2001:db8::2", 64),
                                  kern_addr(3, "2001:db8::3", 64)}),
                 sync_err);
    EXPECT_EQ(table(3), (strings{"2001:db8::1/64 Automatic 1", "2001:db8::2/64 Automatic 2"}));
}

TEST_F(KernelAddresses, ARefusedWriteDoesNotEndTheBatch) {
    fake_tav::on_call("set_leaves").statuses({8});
    announce(added, {kern_addr(3, "2001:db8::1", 64), kern_addr(3, "2001:db8::2", 64)});
    EXPECT_EQ(table(3).size(), 2U);
    EXPECT_EQ(effects().size(), 2U);
}

TEST_F(KernelAddresses, OfOneLinkDoNotTouchAnother) {
    track(4, "eth1", 2);
    know(4, {"2001:db8::5/64 Automatic 1"});
    announce(added, {kern_addr(3, "2001:db8::5", 48)});
    EXPECT_EQ(table(4), strings{"2001:db8::5/64 Automatic 1"});
    EXPECT_EQ(table(3), strings{"2001:db8::5/48 Automatic 1"});
    EXPECT_EQ(effects(), strings{address_write("1", "2001:db8::5/48", "Automatic")});
}

} // namespace
