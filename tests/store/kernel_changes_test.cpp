// Which changes of the kernel are written to the store, and which are not.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class WriteKernelRoute : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        track(5, "eth0", 1);
    }
    void write() {
        CTavInterface stored;
        stored.number = 4;
        engine().write_kern_route_to_tav(stored, entry(5));
    }
};

TEST_F(WriteKernelRoute, WritesTheRecordedGatewayToTheGivenInterface) {
    know_gateway(5, "fe80::1");
    write();
    EXPECT_EQ(effects(), strings{"set_leaf(~/4/IPv6/Default Gateway/Value = fe80::1)"});
}

TEST_F(WriteKernelRoute, NamesTheKernelInterfaceInItsLineBeforeWriting) {
    know_gateway(5, "fe80::1");
    expect_info_at(4, "Writing kernel route to TAV on interface 5", [this] { write(); });
    verbosity = 4;
    forget();
    write();
    EXPECT_EQ(record(), (strings{"6 Info: Writing kernel route to TAV on interface 5",
                                 "set_leaf(~/4/IPv6/Default Gateway/Value = fe80::1)"}));
}

TEST_F(WriteKernelRoute, DoesNothingWithoutARecordedGateway) {
    verbosity = 4;
    write();
    EXPECT_EQ(record(), strings{});
}

class RemoveKernelRoute : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
        track(5, "eth0", 1);
        know_gateway(5, "fe80::1");
        store_gateway(1, "fe80::1");
    }
};

TEST_F(RemoveKernelRoute, OfAnUnknownInterfaceDoesNothing) {
    engine().remove_kern_route_from_tav(kern_route(6, "fe80::1"));
    engine().remove_kern_addr_from_tav(kern_addr(6, "2001:db8::5", 64));
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(gateway(5), "fe80::1");
}

TEST_F(RemoveKernelRoute, TakesTheGatewayOutOfStoreAndTable) {
    engine().remove_kern_route_from_tav(kern_route(5, "fe80::1"));
    EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Default Gateway)"});
    EXPECT_EQ(gateway(5), "");
}

TEST_F(RemoveKernelRoute, ActsOnlyOnTheKnownStaticDefaultRoute) {
    for (const CKernRoute &other :
         {kern_route(5, "::"), kern_route(5, "fe80::1", 4, "2001:db8::", 32),
          kern_route(5, "fe80::1", 9), kern_route(5, "fe80::1", 3), kern_route(5, "fe80::1", 0),
          kern_route(5, "fe80::2")}) {
        engine().remove_kern_route_from_tav(other);
        EXPECT_EQ(effects(), strings{});
        EXPECT_EQ(gateway(5), "fe80::1");
    }
    entry(5).gateway = boost::none;
    engine().remove_kern_route_from_tav(kern_route(5, "fe80::1"));
    EXPECT_EQ(effects(), strings{});
}

TEST_F(RemoveKernelRoute, TheLengthOfTheDestinationDoesNotMatter) {
    engine().remove_kern_route_from_tav(kern_route(5, "fe80::1", 4, "::", 64));
    EXPECT_EQ(gateway(5), "");
}

TEST_F(RemoveKernelRoute, OutsideTheNormalStateTheTableFollowsAndTheStoreDoesNot) {
    for (const int state : {0, 1, 2, 3}) {
        engine().state = state;
        know_gateway(5, "fe80::1");
        engine().remove_kern_route_from_tav(kern_route(5, "fe80::1"));
        EXPECT_EQ(effects(), strings{}) << "state " << state;
        EXPECT_EQ(gateway(5), "") << "state " << state;
    }
}

TEST_F(RemoveKernelRoute, ARefusedRemovalStillClearsTheTable) {
    fake_tav::on_call("remove_node").statuses({5});
    engine().remove_kern_route_from_tav(kern_route(5, "fe80::1"));
    EXPECT_EQ(gateway(5), "");
}

TEST_F(RemoveKernelRoute, OneWithoutAGatewayIsNotTheKnownOneEvenIfThatHasNoneEither) {
    know_gateway(5, "::");
    engine().remove_kern_route_from_tav(kern_route(5, "::"));
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(gateway(5), "::");
}

TEST_F(RemoveKernelRoute, AFailedStoreIsAnErrorAndTheTableKeepsTheGateway) {
    fake_tav::on_call("remove_node").returns(-1);
    EXPECT_THROW(engine().remove_kern_route_from_tav(kern_route(5, "fe80::1")), sync_err);
    EXPECT_EQ(gateway(5), "fe80::1");
}

class RemoveKernelAddress : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
        track(5, "eth0", 1);
        know(5, {"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic office",
                 "2001:db8::6/64 Static 3"});
        store(1, {"2001:db8::5/64 Automatic office"});
    }
};

TEST_F(RemoveKernelAddress, TakesTheAddressOutOfStoreAndTableUnderItsOwnName) {
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 64));
    EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
    EXPECT_EQ(table(5), (strings{"fe80::1/64 Link-Local 1", "2001:db8::6/64 Static 3"}));
}

TEST_F(RemoveKernelAddress, AnotherPrefixLengthLeavesStoreAndTableUntouched) {
    const strings before = table(5);
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 48));
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::7", 64));
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(table(5), before);
}

TEST_F(RemoveKernelAddress, OutsideTheNormalStateTheTableFollowsAndTheStoreDoesNot) {
    engine().state = 3;
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 64));
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(table(5), (strings{"fe80::1/64 Link-Local 1", "2001:db8::6/64 Static 3"}));
}

TEST_F(RemoveKernelAddress, StepsOverTheEntryThatMovedIntoTheErasedPlace) {
    entry(5).addresses.clear();
    know(5, {"2001:db8::5/64 Automatic 1", "2001:db8::5/64 Automatic 2",
             "2001:db8::5/64 Automatic 3"});
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 64));
    EXPECT_EQ(table(5), strings{"2001:db8::5/64 Automatic 2"});
    EXPECT_EQ(effects(),
              (strings{"remove_node(~/1/IPv6/Addresses/1)", "remove_node(~/1/IPv6/Addresses/3)"}));
}

TEST_F(RemoveKernelAddress, ARefusedRemovalStillErasesTheEntry) {
    fake_tav::on_call("remove_node").statuses({5});
    engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 64));
    EXPECT_EQ(table(5), (strings{"fe80::1/64 Link-Local 1", "2001:db8::6/64 Static 3"}));
}

TEST_F(RemoveKernelAddress, AFailedStoreIsAnErrorAndTheTableKeepsTheAddress) {
    const strings before = table(5);
    fake_tav::on_call("remove_node").returns(-1);
    EXPECT_THROW(engine().remove_kern_addr_from_tav(kern_addr(5, "2001:db8::5", 64)), sync_err);
    EXPECT_EQ(table(5), before);
}

} // namespace
