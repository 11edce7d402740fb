// Refusals by the kernel: the table is corrected, so that the next synchronisation tries again.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using fake_libnl::datagram_t;
using fake_libnl::message_t;

constexpr int esrch = -3;
constexpr int ebusy = -16;
constexpr int eexist = -17;
constexpr int einval = -22;
constexpr int eaddrnotavail = -99;
constexpr int enetdown = -100;
constexpr int ehostunreach = -113;

class Refusals : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        prepare();
    }
    void prepare() {
        restart_with_eth0();
        if (!fake_tav::exists(at("1"))) {
            fake_tav::put_node(at("1"));
        }
    }
    // Synchronises and returns the last message that was sent to the kernel.
    message_t last_request() {
        synchronise();
        EXPECT_FALSE(fake_libnl::state().changes.empty());
        const message_t last = fake_libnl::state().changes.back();
        forget();
        return last;
    }
    void refuse(const message_t &request, int error) {
        receive(datagram_t().error(error, request));
    }
    static strings at_level_two() {
        strings all;
        for (const auto &line : captured::log()) {
            if (line.text.find("Info: ") == 0) {
                EXPECT_EQ(line.priority, 6);
                all.push_back(line.text);
            }
        }
        return all;
    }
    // Runs `prepared_refusal` and expects one informational line at level 2, none at level 1.
    template <typename Action>
    void expect_one_line_at_level_two(const std::string &text, const Action &prepared_refusal) {
        for (const std::uint32_t level : {1U, 2U}) {
            verbosity = level;
            prepared_refusal();
            EXPECT_EQ(at_level_two(), level == 2 ? strings{"Info: " + text} : strings{});
            EXPECT_EQ(captured::log_count("Error: recv: bad msg type: 2"), 1U);
        }
        verbosity = 0;
    }
};

TEST_F(Refusals, OfAGatewayClearItInTheTableAlone) {
    for (const int error : {enetdown, ehostunreach, einval, esrch, -1}) {
        prepare();
        store_gateway(1, "fe80::9");
        const message_t request = last_request();
        refuse(request, error);
        EXPECT_EQ(gateway(3), "") << error;
        EXPECT_EQ(effects(), strings{});
        EXPECT_EQ(fake_tav::text(at("1/IPv6/Default Gateway/Value")), "fe80::9");
    }
}

TEST_F(Refusals, OfAGatewayAreRetriedByTheNextSynchronisation) {
    store_gateway(1, "fe80::9");
    refuse(last_request(), ehostunreach);
    verbosity = 4;
    engine().sync_all();
    EXPECT_EQ(fake_libnl::state().changes.size(), 1U);
    EXPECT_EQ(captured::log_count("Info: Skipping already-configured gateway..."), 0U);
    EXPECT_EQ(gateway(3), "fe80::9");
}

TEST_F(Refusals, OfAGatewayThatExistsAlreadyChangeNothing) {
    store_gateway(1, "fe80::9");
    verbosity = 2;
    refuse(last_request(), eexist);
    EXPECT_EQ(gateway(3), "fe80::9");
    EXPECT_EQ(effects(), strings{});
}

TEST_F(Refusals, OfAnEarlierGatewayLeaveThePresentOne) {
    store_gateway(1, "fe80::9");
    const message_t earlier = last_request();
    store_gateway(1, "fe80::8");
    last_request();
    refuse(earlier, ehostunreach);
    EXPECT_EQ(gateway(3), "fe80::8");
}

TEST_F(Refusals, OfAGatewayAreLoggedAtLevelTwo) {
    store_gateway(1, "fe80::9");
    const std::string text = "Kernel refused route via 'fe80::9' on interface 3: error 113";
    expect_one_line_at_level_two(text, [this] {
        prepare();
        refuse(last_request(), ehostunreach);
    });
}

TEST_F(Refusals, ToDeleteAGatewayThatTheKernelNeverHadLetTheUserRemoveIt) {
    store_gateway(1, "fe80::9");
    last_request(); // and the kernel's refusal is lost
    fake_tav::erase(at("1/IPv6/Default Gateway"));
    const message_t deletion = last_request();
    ASSERT_EQ(deletion.type, 25);
    ASSERT_TRUE(fake_tav::exists(at("1/IPv6/Default Gateway"))) << "written back in that run";
    refuse(deletion, esrch);
    EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Default Gateway)"});
    EXPECT_EQ(gateway(3), "");
    synchronise();
    EXPECT_EQ(fake_tav::writes(), 0U) << "gone for good";
    EXPECT_TRUE(fake_libnl::state().changes.empty());
}

TEST_F(Refusals, ToDeleteAGatewayForAnotherReasonChangeNothing) {
    know_gateway(3, "fe80::9");
    const message_t deletion = last_request();
    ASSERT_EQ(deletion.type, 25);
    for (const int error : {einval, enetdown, eexist, -1}) {
        refuse(deletion, error);
        EXPECT_EQ(gateway(3), "fe80::9") << error;
        EXPECT_EQ(effects(), strings{});
    }
}

TEST_F(Refusals, ToDeleteAReplacedGatewayLeaveThePresentOne) {
    know_gateway(3, "fe80::1");
    receive(datagram_t().route(24, 3, "fe80::2"));
    const message_t deletion = fake_libnl::state().changes.at(0);
    forget();
    refuse(deletion, esrch);
    EXPECT_EQ(gateway(3), "fe80::2");
    EXPECT_EQ(effects(), strings{});
}

TEST_F(Refusals, ToDeleteAGatewayDoNotWriteTheStoreDuringDiscovery) {
    know_gateway(3, "fe80::9");
    entry(3).iface.number = 1;
    const message_t deletion = last_request();
    engine().state = 3;
    refuse(deletion, esrch);
    EXPECT_EQ(gateway(3), "");
    EXPECT_EQ(effects(), strings{});
}

TEST_F(Refusals, ToDeleteAGatewayAreLoggedAtLevelTwo) {
    const std::string text = "Kernel has no route via 'fe80::9' on interface 3 to remove";
    expect_one_line_at_level_two(text, [this] {
        prepare();
        know_gateway(3, "fe80::9");
        refuse(last_request(), esrch);
    });
}

TEST_F(Refusals, OfAnAddressDropItFromTheTableAlone) {
    store(1, {"2001:db8::5/64 Static 7"});
    know(3, {"fe80::1/64 Link-Local 1"});
    for (const int error : {-13, einval, enetdown, -12}) {
        const message_t request = last_request();
        ASSERT_EQ(request.type, 20);
        refuse(request, error);
        EXPECT_EQ(table(3), strings{"fe80::1/64 Link-Local 1"}) << error;
        EXPECT_EQ(effects(), strings{});
        EXPECT_TRUE(fake_tav::exists(at("1/IPv6/Addresses/7")));
    }
}

TEST_F(Refusals, OfAnEarlierLengthLeaveThePresentAddress) {
    store(1, {"2001:db8::5/64 Static 7"});
    const message_t earlier = last_request();
    store(1, {"2001:db8::5/48 Static 7"});
    last_request();
    refuse(earlier, -12);
    EXPECT_EQ(table(3), strings{"2001:db8::5/48 Static 7"});
}

TEST_F(Refusals, OfAnAddressKeepItsNameFromOthers) {
    store(1, {"2001:db8::5/64 Static 1"});
    refuse(last_request(), -13);
    receive(datagram_t().address(20, 3, "fe80::1", 64, 253));
    EXPECT_EQ(table(3), strings{"fe80::1/64 Link-Local 2"});
    EXPECT_EQ(fake_tav::text(at("1/IPv6/Addresses/1/Address/Value")), "2001:db8::5/64");
}

TEST_F(Refusals, OfAnAddressThatExistsAlreadyChangeNothing) {
    store(1, {"2001:db8::5/64 Static 7"});
    refuse(last_request(), eexist);
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static 7"});
}

TEST_F(Refusals, ToDeleteAnAddressChangeNothing) {
    know(3, {"2001:db8::5/64 Static 7"});
    store(1, {"2001:db8::5/48 Static 7"});
    synchronise();
    ASSERT_EQ(fake_libnl::state().changes.size(), 2U);
    const message_t deletion = fake_libnl::state().changes.at(0);
    ASSERT_EQ(deletion.type, 21);
    for (const int error : {eaddrnotavail, esrch, einval}) {
        refuse(deletion, error);
        EXPECT_EQ(table(3), strings{"2001:db8::5/48 Static 7"}) << error;
    }
}

TEST_F(Refusals, ToDeleteAnAddressThatWasAddedAgainChangeNothing) {
    know(3, {"2001:db8::5/64 Static 7"});
    const message_t deletion = last_request();
    ASSERT_EQ(deletion.type, 21);
    ASSERT_EQ(table(3), strings{});
    store(1, {"2001:db8::5/64 Static 7"});
    last_request();
    for (const int error : {eaddrnotavail, esrch, einval}) {
        refuse(deletion, error);
        EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static 7"}) << error;
        EXPECT_EQ(effects(), strings{});
    }
}

TEST_F(Refusals, OfAnAddressAreLoggedAtLevelTwo) {
    store(1, {"2001:db8::5/64 Static 7"});
    const std::string text = "Kernel refused address '2001:db8::5/64' on interface 3: error 13";
    expect_one_line_at_level_two(text, [this] {
        prepare();
        refuse(last_request(), -13);
    });
}

TEST_F(Refusals, OfAGatewayThatTheUserRemovedMeanwhileDoNotBringItBack) {
    store_gateway(1, "fe80::9");
    const message_t addition = last_request();
    fake_tav::erase(at("1/IPv6/Default Gateway"));
    const message_t deletion = last_request();
    ASSERT_EQ(deletion.type, 25);
    ASSERT_TRUE(fake_tav::exists(at("1/IPv6/Default Gateway"))) << "written back in that run";
    refuse(addition, ehostunreach);
    EXPECT_EQ(effects(), strings{});
    refuse(deletion, esrch);
    EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Default Gateway)"});
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Default Gateway")));
    EXPECT_EQ(gateway(3), "");
}

TEST_F(Refusals, OfAGatewayThatWasRemovedAndAddedAgainClearIt) {
    store_gateway(1, "fe80::9");
    last_request();
    fake_tav::erase(at("1/IPv6/Default Gateway"));
    ASSERT_EQ(last_request().type, 25);
    store_gateway(1, "fe80::9");
    const message_t addition = last_request();
    ASSERT_EQ(addition.type, 24);
    refuse(addition, ehostunreach);
    EXPECT_EQ(gateway(3), "");
    EXPECT_EQ(fake_tav::text(at("1/IPv6/Default Gateway/Value")), "fe80::9");
}

TEST_F(Refusals, OfAGatewayThatWasAdoptedInPlaceOfARemovedOneClearIt) {
    store_gateway(1, "fe80::8");
    const message_t addition = last_request();
    store_gateway(1, "fe80::9");
    last_request();
    fake_tav::erase(at("1/IPv6/Default Gateway"));
    ASSERT_EQ(last_request().type, 25);
    receive(datagram_t().route(24, 3, "fe80::8"));
    ASSERT_EQ(gateway(3), "fe80::8");
    refuse(addition, ehostunreach);
    EXPECT_EQ(gateway(3), "");
    EXPECT_EQ(fake_tav::text(at("1/IPv6/Default Gateway/Value")), "fe80::8");
}

TEST_F(Refusals, AcknowledgementsAreNotRefusals) {
    store_gateway(1, "fe80::9");
    store(1, {"2001:db8::5/64 Static 7"});
    synchronise();
    const auto sent = fake_libnl::state().changes;
    ASSERT_EQ(sent.size(), 2U);
    for (const auto &request : sent) {
        forget();
        verbosity = 2;
        refuse(request, 0);
        EXPECT_EQ(lines(), strings{"recv: bad msg type: 2"});
    }
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static 7"});
    EXPECT_EQ(gateway(3), "fe80::9");
}

TEST_F(Refusals, OfADumpAreNotTakenForAnythingElse) {
    engine().state = 2;
    engine().discover();
    know(3, {"2001:db8::5/64 Static 7"});
    know_gateway(3, "fe80::9");
    const message_t request = fake_libnl::state().requests.at(0);
    forget();
    refuse(request, ebusy);
    EXPECT_EQ(effects(), strings{});
    EXPECT_EQ(engine().state, 3);
    EXPECT_EQ(table(3).size(), 1U);
    EXPECT_EQ(gateway(3), "fe80::9");
}

TEST_F(Refusals, ForALinkThatIsGoneAreIgnored) {
    store_gateway(1, "fe80::9");
    store(1, {"2001:db8::5/64 Static 7"});
    synchronise();
    const auto sent = fake_libnl::state().changes;
    engine().interfaces.clear();
    for (const auto &request : sent) {
        EXPECT_NO_THROW(refuse(request, -19));
    }
    EXPECT_TRUE(engine().interfaces.empty()) << "no entry is made for them";
}

TEST_F(Refusals, OfOneLinkLeaveAnother) {
    track(4, "eth1");
    fake_tav::put_node(at("2"));
    store_gateway(1, "fe80::9");
    store_gateway(2, "fe80::9");
    const message_t second = last_request();
    refuse(second, ehostunreach);
    EXPECT_EQ(gateway(3), "fe80::9");
    EXPECT_EQ(gateway(4), "");
}

TEST_F(Refusals, AFailureOfTheStoreIsThrown) {
    know_gateway(3, "fe80::9");
    const message_t deletion = last_request();
    fake_tav::on_call("remove_node").returns(-1);
    EXPECT_THROW(refuse(deletion, esrch), sync_err);
}

TEST_F(Refusals, OfAStaticAddressLeaveAnAddressOfAnotherType) {
    know(3, {"fe80::5/64 Link-Local 1"});
    store(1, {"fe80::5/64 Static 9"});
    const message_t addition = last_request();
    refuse(addition, -12);
    EXPECT_EQ(table(3), strings{"fe80::5/64 Link-Local 1"});
}

} // namespace
