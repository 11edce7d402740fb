// The steps of discovery, and the handling of each datagram.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using fake_libnl::bytes_t;
using fake_libnl::datagram_t;

class Discovery : public EngineTest {};

TEST_F(Discovery, BeginsWithNothingRequested) {
    EXPECT_EQ(engine().state, 0);
    EXPECT_EQ(engine().if_prefix, "eth");
    EXPECT_TRUE(engine().interfaces.empty());
    EXPECT_EQ(engine().interfaces.bucket_count(), 11U);
}

TEST_F(Discovery, RequestsLinksAddressesAndRoutesAndThenSynchronises) {
    verbosity = 3;
    const std::vector<std::pair<int, strings>> steps = {
        {1, {"6 Info: void CSync::discover(): requesting link state", "kernel: dump links"}},
        {2, {"6 Info: void CSync::discover(): requesting addrs", "kernel: dump addrs"}},
        {3, {"6 Info: void CSync::discover(): requesting routes", "kernel: dump routes"}},
        {4, {"6 Info: void CSync::discover(): beginning normal operation", "list_node(~)"}},
        {4, {}},
        {4, {}}};
    for (const auto &step : steps) {
        forget();
        engine().discover();
        EXPECT_EQ(engine().state, step.first);
        EXPECT_EQ(record(), step.second);
    }
}

TEST_F(Discovery, IsLoggedAtLevelThree) {
    const std::vector<std::string> texts = {"requesting link state", "requesting addrs",
                                            "requesting routes", "beginning normal operation"};
    for (std::size_t state = 0; state < texts.size(); ++state) {
        expect_info_at(3, "void CSync::discover(): " + texts[state], [this, state] {
            engine().state = static_cast<int>(state);
            engine().discover();
        });
    }
}

TEST_F(Discovery, EntersNormalOperationBeforeItSynchronises) {
    engine().state = 3;
    int seen = -1;
    fake_tav::on_call("list_node").runs([this, &seen] { seen = engine().state; });
    engine().discover();
    EXPECT_EQ(seen, 4);
}

TEST_F(Discovery, DoesNothingInAnUnknownState) {
    verbosity = 4;
    for (const int state : {5, -1, 100}) {
        engine().state = state;
        engine().discover();
        EXPECT_EQ(engine().state, state);
        EXPECT_EQ(record(), strings{});
    }
}

TEST_F(Discovery, AFailedRequestIsThrownAndDoesNotAdvance) {
    for (const int state : {0, 1, 2}) {
        engine().state = state;
        fake_libnl::state().send_simple.then(0);
        EXPECT_EQ(thrown<netlink_err>([this] { engine().discover(); }), "nl_send_simple");
        EXPECT_EQ(engine().state, state);
    }
}

class Dispatch : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        verbosity = 4;
        track(3, "eth0");
        forget();
    }
    // A datagram of a type without a handler.
    static bytes_t other(int type) {
        const std::int32_t body = 0;
        return datagram_t().message(type, &body, sizeof body);
    }
};

TEST_F(Dispatch, NamesTheClassificationAtLevelFour) {
    for (const int type : {16, 17, 19, 20, 21, 24, 25, 18, 26, 200}) {
        expect_info_at(4, "Received netlink update (type " + std::to_string(type) + ")",
                       [this, type] { receive(other(type)); });
    }
    verbosity = 4;
    forget();
    fake_libnl::queue_recv_result(0);
    engine().handle_netlink();
    EXPECT_EQ(lines(), strings{"Received netlink update (type 0)"});
    forget();
    receive(datagram_t().done());
    EXPECT_EQ(lines().front(), "Received netlink update (type 1)");
}

TEST_F(Dispatch, HandsLinksToTheLinkHandler) {
    receive(datagram_t().link(16, 4, "eth1").link(16, 5, "eth2"));
    EXPECT_EQ(record(), (strings{"6 Info: Received netlink update (type 16)",
                                 "6 Info: Adding new link: 'eth1' (4)",
                                 "6 Info: ADDING link [4]: eth1 : 02:00:00:00:00:01",
                                 "6 Info: Adding new link: 'eth2' (5)",
                                 "6 Info: ADDING link [5]: eth2 : 02:00:00:00:00:01"}));
    forget();
    receive(datagram_t().link(19, 4, "eth1").link(19, 9, "veth"));
    EXPECT_EQ(lines(),
              (strings{"Received netlink update (type 19)", "Skipping update for link 'veth'"}));
    forget();
    receive(datagram_t().link(17, 4, "eth1"));
    EXPECT_EQ(lines().back(), "REMOVING link [4]: eth1 : 02:00:00:00:00:01");
    EXPECT_EQ(engine().interfaces.count(4), 0U);
}

TEST_F(Dispatch, HandsAddressesToTheAddressHandler) {
    receive(datagram_t().address(20, 3, "2001:db8::5", 64).address(20, 3, "fe80::1", 64, 253));
    EXPECT_EQ(table(3), (strings{"2001:db8::5/64 Automatic 1", "fe80::1/64 Link-Local 2"}));
    receive(datagram_t().address(21, 3, "2001:db8::5", 64));
    EXPECT_EQ(table(3), strings{"fe80::1/64 Link-Local 2"});
}

TEST_F(Dispatch, HandsRoutesToTheRouteHandler) {
    receive(datagram_t().route(24, 3, "fe80::1"));
    EXPECT_EQ(gateway(3), "fe80::1");
    receive(datagram_t().route(25, 3, "fe80::1"));
    EXPECT_EQ(gateway(3), "");
}

TEST_F(Dispatch, TheFirstMessageDecidesForAllOfTheDatagram) {
    receive(datagram_t().address(20, 3, "2001:db8::5", 64).address(21, 3, "2001:db8::5", 64));
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Automatic 1"});
}

TEST_F(Dispatch, IgnoresEveryOtherType) {
    for (const int type : {18, 22, 23, 26, 27, 28, 52, 1000}) {
        forget();
        receive(other(type));
        EXPECT_EQ(record(),
                  strings{"6 Info: Received netlink update (type " + std::to_string(type) + ")"});
    }
    EXPECT_EQ(engine().state, 0);
}

TEST_F(Dispatch, IgnoresNoopsAndEmptyReads) {
    receive(other(1));
    fake_libnl::queue_recv_result(0);
    engine().handle_netlink();
    EXPECT_EQ(record(), strings(2, "6 Info: Received netlink update (type 0)"));
}

TEST_F(Dispatch, AcknowledgementsAreLoggedByTheChannelAndHaveNoFurtherEffect) {
    know(3, {"2001:db8::5/64 Static 1"});
    fake_libnl::message_t request;
    request.type = 20;
    receive(datagram_t().error(0, request));
    EXPECT_EQ(record(), (strings{"3 Error: recv: bad msg type: 2",
                                 "6 Info: Received netlink update (type 0)"}));
    EXPECT_EQ(table(3).size(), 1U);
}

TEST_F(Dispatch, AnEndOfDumpTakesTheNextStep) {
    verbosity = 3;
    for (const std::string dump : {"links", "addrs", "routes"}) {
        forget();
        receive(datagram_t().done());
        EXPECT_EQ(effects(), strings{"kernel: dump " + dump});
    }
    forget();
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 4);
    EXPECT_EQ(journal::count("list_node("), 1U);
    EXPECT_EQ(journal::count("log 4 "), 0U);
}

TEST_F(Dispatch, AnEndOfDumpInNormalOperationIsOnlyWarnedAbout) {
    engine().state = 4;
    const std::string warning =
        "Warning: Got NLMSG_DONE outside of a requested discovery operation...";
    expect_logged_at(1, 4, warning, [this] { receive(datagram_t().done()); });
    verbosity = 4;
    forget();
    receive(datagram_t().done());
    EXPECT_EQ(record(), (strings{"6 Info: Received netlink update (type 1)", "4 " + warning}));
    EXPECT_EQ(engine().state, 4);
}

TEST_F(Dispatch, AFailedReadIsThrown) {
    fake_libnl::queue_recv_result(-5);
    EXPECT_EQ(thrown<netlink_err>([this] { engine().handle_netlink(); }), "nl_recv");
    EXPECT_EQ(lines(), strings{"recv: nl_recv(): -5"});
}

TEST_F(Dispatch, FreesEachDatagramAlsoWhenItsHandlerThrows) {
    fake_libnl::state().watch_datagrams = true;
    for (const int type : {16, 17, 19, 20, 21, 24, 25, 18, 26}) {
        forget();
        receive(other(type));
        EXPECT_EQ(journal::count("free(watched)"), 1U) << type;
    }
    forget();
    receive(datagram_t().error(-16, {18, 257, {}}));
    EXPECT_EQ(journal::count("free(watched)"), 1U);
    forget();
    engine().state = 1;
    fake_libnl::state().send_simple.then(-5);
    EXPECT_THROW(receive(datagram_t().done()), netlink_err);
    EXPECT_EQ(journal::count("free(watched)"), 1U);
}

TEST_F(Dispatch, ReadsOneDatagramAtATime) {
    fake_libnl::queue_datagram(datagram_t().address(20, 3, "2001:db8::5", 64));
    fake_libnl::queue_datagram(datagram_t().address(20, 3, "2001:db8::6", 64));
    engine().handle_netlink();
    EXPECT_EQ(table(3).size(), 1U);
    EXPECT_EQ(fake_libnl::queued(), 1U);
}

// The sanitizers' leak check reports a datagram that is not released.
TEST_F(Dispatch, AnExceptionOfAHandlerPassesOn) {
    engine().state = 4;
    entry(3).iface.number = 1;
    fake_tav::on_call("set_leaves").returns(-1);
    EXPECT_THROW(receive(datagram_t().address(20, 3, "2001:db8::5", 64)), sync_err);
    fake_tav::on_call("set_leaf").returns(-1);
    EXPECT_THROW(receive(datagram_t().route(24, 3, "fe80::1")), sync_err);
    fake_tav::on_call("list_node").returns(-1);
    EXPECT_THROW(receive(datagram_t().link(16, 9, "eth9")), sync_err);
    receive(datagram_t().address(20, 3, "2001:db8::6", 64));
    EXPECT_EQ(table(3).size(), 2U) << "the engine itself is still usable";
}

} // namespace
