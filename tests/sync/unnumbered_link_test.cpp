// A tracked link that has no interface in the store: its table follows the kernel, and the store is
// not written for it. Its addresses were once stored under an interface 0, which then made every
// reading of the store fail.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"

namespace {

using fake_libnl::datagram_t;

class UnnumberedLink : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
        track(4, "eth1");
        fake_tav::put_node(at("1"));
        before = fake_tav::dump();
        forget();
    }
    void expect_store_untouched() {
        EXPECT_EQ(fake_tav::writes(), 0U);
        EXPECT_EQ(fake_tav::dump(), before);
    }
    strings before;
};

TEST_F(UnnumberedLink, ItsAddressesChangeOnlyInTheTable) {
    receive(datagram_t().address(20, 4, "fe80::1", 64, 253).address(20, 4, "2001:db8::5", 64));
    EXPECT_EQ(table(4), (strings{"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic 2"}));
    receive(datagram_t().address(20, 4, "2001:db8::5", 48));
    EXPECT_EQ(table(4), (strings{"fe80::1/64 Link-Local 1", "2001:db8::5/48 Automatic 2"}));
    receive(datagram_t().address(21, 4, "fe80::1", 64, 253));
    EXPECT_EQ(table(4), strings{"2001:db8::5/48 Automatic 2"});
    expect_store_untouched();
}

TEST_F(UnnumberedLink, ItsGatewayChangesOnlyInTheTable) {
    receive(datagram_t().route(24, 4, "fe80::1"));
    EXPECT_EQ(gateway(4), "fe80::1");
    receive(datagram_t().route(24, 4, "fe80::2"));
    EXPECT_EQ(gateway(4), "fe80::2");
    EXPECT_EQ(effects(), strings{"kernel: delete ::/0 via fe80::1 dev 4"});
    receive(datagram_t().route(25, 4, "fe80::2"));
    EXPECT_EQ(gateway(4), "");
    expect_store_untouched();
}

TEST_F(UnnumberedLink, IsUnnumberedAgainWhenItsInterfaceIsGone) {
    track(3, "eth0");
    fake_tav::put_node(at("2"));
    engine().sync_all();
    ASSERT_EQ(entry(4).iface.number, 2);
    ASSERT_EQ(entry(3).iface.number, 1);
    receive(datagram_t().address(20, 4, "2001:db8::5", 64));
    fake_tav::erase(at("2"));
    engine().sync_all();
    EXPECT_EQ(entry(4).iface.number, 0);
    EXPECT_EQ(entry(3).iface.number, 1) << "the other one keeps its number";
    forget();
    receive(datagram_t().address(20, 4, "2001:db8::6", 64));
    receive(datagram_t().address(21, 4, "2001:db8::5", 64));
    receive(datagram_t().route(24, 4, "fe80::1"));
    receive(datagram_t().route(25, 4, "fe80::1"));
    expect_store_untouched();
    EXPECT_EQ(table(4), strings{"2001:db8::6/64 Automatic 2"});
}

TEST_F(UnnumberedLink, TakesANewNumberFromALaterSnapshot) {
    fake_tav::put_node(at("2"));
    engine().sync_all();
    fake_tav::erase(at("2"));
    fake_tav::put_node(at("002"));
    engine().sync_all();
    EXPECT_EQ(entry(4).iface.number, 2);
}

TEST_F(UnnumberedLink, AFailedReadingIsNoSnapshot) {
    fake_tav::put_node(at("2"));
    engine().sync_all();
    fake_tav::on_call("list_node").returns(-1);
    EXPECT_ANY_THROW(engine().sync_all());
    EXPECT_EQ(entry(4).iface.number, 2);
}

// A link was renamed away and another took its name; an entry keeps the name of its first sight.
// Both were once written to the one node.
class SecondLinkOfOneName : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
        track(3, "eth0");
        track(5, "eth0");
        know(3, {"fe80::3/64 Link-Local 1"});
        know(5, {"fe80::5/64 Link-Local 1"});
        know_gateway(5, "fe80::99");
        fake_tav::put_node(at("1"));
    }
};

TEST_F(SecondLinkOfOneName, IsNotWritten) {
    engine().sync_all();
    EXPECT_EQ(entry(3).iface.number, 1);
    EXPECT_EQ(entry(5).iface.number, 0);
    EXPECT_EQ(fake_tav::writes(), 1U);
    EXPECT_EQ(stored(1), strings{"fe80::3/64 Link-Local 1"});
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Default Gateway")));
}

TEST_F(SecondLinkOfOneName, LosesTheNumberThatItHad) {
    entry(5).iface.number = 1;
    entry(5).listed_nodes = {"1"};
    engine().sync_all();
    EXPECT_EQ(entry(5).iface.number, 0);
    EXPECT_TRUE(entry(5).listed_nodes.empty());
    forget();
    receive(datagram_t().address(20, 5, "2001:db8::5", 64));
    EXPECT_EQ(fake_tav::writes(), 0U);
}

} // namespace
