// Reconciliation of the default gateway: the store wins.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

const char *const stored_leaf = "~/1/IPv6/Default Gateway/Value";

class SyncGateway : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        restart_with_eth0();
        fake_tav::put_node(at("1"));
    }
    static std::string written(const std::string &gateway) {
        return std::string("set_leaf(") + stored_leaf + " = " + gateway + ")";
    }
};

TEST_F(SyncGateway, AStoredOneIsAddedToTheKernelAndRecorded) {
    store_gateway(1, "fe80::1");
    synchronise();
    EXPECT_EQ(changes(), (strings{"kernel: add ::/0 via fe80::1 dev 3", written("fe80::1")}));
    ASSERT_TRUE(entry(3).gateway);
    EXPECT_EQ(entry(3).gateway->ifindex, 3);
    EXPECT_EQ(entry(3).gateway->protocol, 4);
    EXPECT_EQ(entry(3).gateway->dst_len, 0);
    EXPECT_TRUE(is_default_route(*entry(3).gateway));
    expect_info_at(4, "Adding TAV route 'fe80::1' to kernel on interface 3", [this] {
        restart_with_eth0();
        synchronise();
    });
}

TEST_F(SyncGateway, TheSameOneIsSentToTheKernelAgain) {
    know_gateway(3, "fe80::1");
    store_gateway(1, "fe80::1");
    synchronise();
    EXPECT_EQ(changes(), (strings{"kernel: add ::/0 via fe80::1 dev 3", written("fe80::1")}));
    expect_info_at(4, "Skipping already-configured gateway...", [this] {
        restart_with_eth0();
        know_gateway(3, "fe80::1");
        synchronise();
    });
}

TEST_F(SyncGateway, WhatIsRecordedOfTheSameOneIsTheStores) {
    know_gateway(3, "fe80::1");
    entry(3).gateway->dst_len = 96;
    store_gateway(1, "fe80::1");
    synchronise();
    EXPECT_EQ(entry(3).gateway->dst_len, 0);
}

TEST_F(SyncGateway, TheKernelsIsDeletedAsItWasAnnounced) {
    for (const bool replaced : {false, true}) {
        restart_with_eth0();
        know_gateway(3, "fe80::1");
        entry(3).gateway->dst_len = 96;
        entry(3).gateway->ifindex = 7;
        if (replaced) {
            store_gateway(1, "fe80::2");
        }
        synchronise();
        ASSERT_FALSE(changes().empty());
        EXPECT_EQ(changes().front(), "kernel: delete ::/96 via fe80::1 dev 7") << replaced;
    }
}

TEST_F(SyncGateway, AnotherOneOverridesTheKernels) {
    know_gateway(3, "fe80::1");
    store_gateway(1, "fe80::2");
    synchronise();
    EXPECT_EQ(changes(), (strings{"kernel: delete ::/0 via fe80::1 dev 3",
                                  "kernel: add ::/0 via fe80::2 dev 3", written("fe80::2")}));
    EXPECT_EQ(gateway(3), "fe80::2");
    expect_info_at(2, "New TAV route overriding existing one", [this] {
        restart_with_eth0();
        know_gateway(3, "fe80::1");
        synchronise();
    });
}

TEST_F(SyncGateway, OneThatTheStoreLacksIsDeletedInTheKernelAndStillWritten) {
    know_gateway(3, "fe80::1");
    synchronise();
    EXPECT_EQ(changes(), (strings{"kernel: delete ::/0 via fe80::1 dev 3", written("fe80::1")}));
    EXPECT_EQ(gateway(3), "fe80::1") << "only the kernel's report clears it";
    expect_info_at(2, "Removing existing static route", [this] {
        fake_tav::erase(at("1/IPv6"));
        restart_with_eth0();
        know_gateway(3, "fe80::1");
        synchronise();
    });
}

TEST_F(SyncGateway, TheKernelsReportOfThatDeletionTakesItOutOfTheStore) {
    know_gateway(3, "fe80::1");
    synchronise();
    engine().nl_route_update(25, {kern_route(3, "fe80::1")});
    EXPECT_EQ(gateway(3), "");
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Default Gateway")));
    synchronise();
    EXPECT_EQ(changes(), strings{});
}

TEST_F(SyncGateway, OfNeitherSideIsNoWork) {
    verbosity = 3;
    synchronise();
    EXPECT_EQ(changes(), strings{});
    EXPECT_EQ(lines(),
              (strings{"Synchronizing kernel interface (3) with TAV interface (1): eth0",
                       "Synchronizing TAV interface (1) with kernel interface (3): eth0"}));
}

TEST_F(SyncGateway, AnUnreadableStoredOneIsTreatedAsNone) {
    know_gateway(3, "fe80::1");
    store_gateway(1, "nonsense");
    synchronise();
    EXPECT_EQ(changes(), (strings{"kernel: delete ::/0 via fe80::1 dev 3", written("fe80::1")}));
}

TEST_F(SyncGateway, IsTheStoredRouteOnTheKernelsInterface) {
    know_gateway(3, "fe80::1");
    tavcfg_t stored;
    stored.iface.name = "eth0";
    stored.iface.number = 1;
    stored.gateway = CTavRoute();
    stored.gateway->gateway = fake_libnl::addr("fe80::2");
    stored.gateway->dst = fake_libnl::addr("2001:db8::");
    stored.gateway->dst_len = 32;
    engine().sync_kernel_with_tav(stored);
    ASSERT_TRUE(entry(3).gateway);
    EXPECT_EQ(gateway(3), "fe80::2");
    EXPECT_EQ(text_of(entry(3).gateway->dst), "2001:db8::");
    EXPECT_EQ(entry(3).gateway->dst_len, 32);
    EXPECT_EQ(entry(3).gateway->ifindex, 3);
    EXPECT_EQ(entry(3).gateway->protocol, 4);
}

TEST_F(SyncGateway, IsRecordedBeforeTheKernelIsAsked) {
    store_gateway(1, "fe80::2");
    fake_libnl::state().send_auto_complete.then(0);
    EXPECT_THROW(synchronise(), netlink_err);
    EXPECT_EQ(gateway(3), "fe80::2");
    EXPECT_EQ(fake_tav::writes(), 0U);
    restart_with_eth0();
    know_gateway(3, "fe80::1");
    fake_libnl::state().send_auto_complete.then(24).then(0);
    EXPECT_THROW(synchronise(), netlink_err);
    EXPECT_EQ(gateway(3), "fe80::2") << "the overridden one is gone by then";
}

TEST_F(SyncGateway, AFailureToDeleteTheOverriddenOneKeepsIt) {
    know_gateway(3, "fe80::1");
    store_gateway(1, "fe80::2");
    fake_libnl::state().send_auto_complete.then(0);
    EXPECT_THROW(synchronise(), netlink_err);
    EXPECT_EQ(gateway(3), "fe80::1");
    EXPECT_EQ(fake_tav::writes(), 0U);
}

} // namespace
