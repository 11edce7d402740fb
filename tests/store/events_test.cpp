// The store's change events: which of them make the engine synchronise, and what the others log.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class StoreEvents : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
    }
    void handle(const std::vector<std::string> &paths, int command = 2) {
        for (const auto &path : paths) {
            fake_tav::queue_event(command, path);
        }
        engine().handle_tav_update();
    }
    // A synchronisation begins with one listing of the interfaces.
    static std::size_t synchronisations() { return journal::count("list_node("); }
};

TEST_F(StoreEvents, OnTheMirroredLeavesSynchronise) {
    for (const std::string rest :
         {"1/IPv6/Default Gateway/Value", "1/IPv6/Addresses/7/Address/Value",
          "1/IPv6/Addresses/7/Type/Value", "12/IPv6/Addresses/my office/Type/Value",
          "01/IPv6/Default Gateway/Value", "999/IPv6/Addresses/ /Address/Value"}) {
        for (const int command : {0, 2, 3, -1, 77}) {
            forget();
            handle({at(rest)}, command);
            EXPECT_EQ(synchronisations(), 1U) << rest << " command " << command;
        }
    }
}

struct rejection_t {
    std::string path;
    std::uint32_t level;
    std::string line;
};

TEST_F(StoreEvents, OnAnythingElseAreLoggedAndIgnored) {
    const tk_string gateway_more = at("1/IPv6/Default Gateway/Value/x");
    const tk_string gateway_time = at("1/IPv6/Default Gateway/Time");
    const std::vector<rejection_t> cases = {
        {at("1"), 2, "Bad interface path component: '" + at("1") + "'"},
        {at(""), 2, "Bad interface path component: '" + at("") + "'"},
        {at("/IPv6/Default Gateway/Value"), 2,
         "Bad interface path component: '" + at("/IPv6/Default Gateway/Value") + "'"},
        {at("0/IPv6/Default Gateway/Value"), 2, "Bad interface number: '0'"},
        {at("01x/IPv6/Default Gateway/Value"), 2, "Bad interface number: '01x'"},
        {at("-1/IPv6/Default Gateway/Value"), 2, "Bad interface number: '-1'"},
        {at("eth0/IPv6/Default Gateway/Value"), 2, "Bad interface number: 'eth0'"},
        {at("1/IPv6"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1/"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1/IPv4/Address/Value"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1/ipv6/Default Gateway/Value"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1/IPv6x/Default Gateway/Value"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1//IPv6/Default Gateway/Value"), 4, "Ignoring update to non-IPv6 settings"},
        {at("1/IPv6/Default Gateway"), 2,
         "Bad subpath component: '" + at("1/IPv6/Default Gateway") + "'"},
        {at("1/IPv6/"), 2, "Bad subpath component: '" + at("1/IPv6/") + "'"},
        {gateway_more, 2, "Ignoring TAV update to non-value attribute '" + gateway_more + "'"},
        {gateway_time, 2, "Ignoring TAV update to non-value attribute '" + gateway_time + "'"},
        {at("1/IPv6/Default Gateway/"), 2,
         "Ignoring TAV update to non-value attribute '" + at("1/IPv6/Default Gateway/") + "'"},
        {at("1/IPv6/Routes/Value"), 2, "Ignoring TAV update to unknown node '/Routes'"},
        {at("1/IPv6/addresses/7/Type/Value"), 2,
         "Ignoring TAV update to unknown node '/addresses'"},
        {at("1/IPv6//Addresses/7/Type/Value"), 2, "Ignoring TAV update to unknown node '/'"},
        {at("1/IPv6/Addresses/3"), 2,
         "Bad addrlist index tail: '" + at("1/IPv6/Addresses/3") + "'"},
        {at("1/IPv6/Addresses/"), 2, "Bad addrlist index tail: '" + at("1/IPv6/Addresses/") + "'"},
        {at("1/IPv6/Addresses/3/Address"), 2,
         "Bad addrlist subpath: '" + at("1/IPv6/Addresses/3/Address") + "'"},
        {at("1/IPv6/Addresses/7/Address/Value/x"), 2,
         "Ignoring TAV update to non-value attribute '" + at("1/IPv6/Addresses/7/Address/Value/x") +
             "'"},
        {at("1/IPv6/Addresses/7/Address/value"), 2,
         "Ignoring TAV update to non-value attribute '" + at("1/IPv6/Addresses/7/Address/value") +
             "'"},
        {at("1/IPv6/Addresses/7/Label/Value"), 2, "Ignoring unknown sub-address path '/Label'"},
        {at("1/IPv6/Addresses/7//Value"), 2, "Ignoring unknown sub-address path '/'"},
        {at("1/IPv6/Addresses/7/type/Value"), 2, "Ignoring unknown sub-address path '/type'"},
        {at("1/IPv6/Addresses/7/Label/Time"), 2,
         "Ignoring TAV update to non-value attribute '" + at("1/IPv6/Addresses/7/Label/Time") +
             "'"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.path);
        expect_info_at(one.level, one.line, [this, &one] { handle({one.path}); });
        verbosity = 4;
        forget();
        handle({one.path});
        EXPECT_EQ(lines(),
                  (strings{"New TAV event arrived",
                           "Processing TAV event: cmd = 2, path = '" + one.path + "'", one.line}));
        EXPECT_EQ(effects(), strings{"events_get()"});
        verbosity = 0;
    }
}

TEST_F(StoreEvents, OutsideTheInterfacesAreWarnedAbout) {
    for (const std::string &path :
         {std::string(interfaces_node), std::string("/Software"), std::string(""),
          std::string("/Software/System Settings/Network/Interfaces/1/IPv6/Default Gateway/Value"),
          "x" + at("1/IPv6/Default Gateway/Value"),
          std::string(
              "/software/system settings/network/interface/1/IPv6/Default Gateway/Value")}) {
        expect_logged_at(1, 4, "Warning: Unexpected event path: '" + path + "'",
                         [this, &path] { handle({path}); });
        EXPECT_EQ(synchronisations(), 0U) << path;
    }
}

TEST_F(StoreEvents, AnEmptyNodeNameIsNoReasonToRefuse) {
    handle({at("1/IPv6/Addresses//Address/Value")});
    EXPECT_EQ(synchronisations(), 1U);
}

TEST_F(StoreEvents, AreLoggedWithTheirCommandAtLevelThree) {
    const std::string path = at("1/IPv6/Default Gateway/Value");
    expect_info_at(4, "New TAV event arrived", [this, &path] { handle({path}); });
    expect_info_at(3, "Processing TAV event: cmd = 3, path = '" + path + "'",
                   [this, &path] { handle({path}, 3); });
    expect_info_at(3, "Processing TAV event: cmd = -5, path = '" + path + "'",
                   [this, &path] { handle({path}, -5); });
}

TEST_F(StoreEvents, TwentyAcceptedOnesSynchroniseOnceAfterTheLast) {
    verbosity = 4;
    handle(strings(20, at("1/IPv6/Default Gateway/Value")));
    EXPECT_EQ(synchronisations(), 1U);
    EXPECT_EQ(journal::count("events_get("), 1U);
    EXPECT_EQ(journal::count("log 6 Info: Processing TAV event: "), 20U);
    const std::size_t synchronising =
        journal::find("log 6 Info: Synchronizing kernel & TAV settings...");
    ASSERT_NE(synchronising, journal::none);
    EXPECT_EQ(journal::find("log 6 Info: Processing TAV event: ", synchronising), journal::none);
}

TEST_F(StoreEvents, OneAcceptedAmongRejectedOnesIsEnough) {
    handle({"/elsewhere", at("1/IPv6/Addresses/3"), at("1/IPv6/Addresses/3/Type/Value"),
            at("1/IPv4/x")});
    EXPECT_EQ(synchronisations(), 1U);
}

TEST_F(StoreEvents, NoticesAreOnlyCountedAsAnArrival) {
    verbosity = 4;
    handle({at("1/IPv6/Default Gateway/Value"), "/elsewhere", ""}, 1);
    EXPECT_EQ(record(), (strings{"6 Info: New TAV event arrived", "events_get()"}));
}

TEST_F(StoreEvents, StayUnfetchedWhileDiscoveryRuns) {
    verbosity = 4;
    for (const int state : {0, 1, 2, 3}) {
        engine().state = state;
        forget();
        handle({at("1/IPv6/Default Gateway/Value")});
        EXPECT_EQ(record(), strings{"6 Info: New TAV event arrived"}) << "state " << state;
    }
    EXPECT_EQ(fake_tav::pending_events(), 4U);
    engine().state = 4;
    forget();
    engine().handle_tav_update();
    EXPECT_EQ(fake_tav::pending_events(), 0U);
    EXPECT_EQ(synchronisations(), 1U);
}

TEST_F(StoreEvents, AFetchThatGivesNothingOrFailsIsAnError) {
    for (const int result : {0, -1, -100}) {
        fake_tav::on_call("events_get").returns(result);
        EXPECT_EQ(thrown<sync_err>([this] { engine().handle_tav_update(); }),
                  "void CSync::handle_tav_update(): events_get() returned an error");
    }
    EXPECT_EQ(synchronisations(), 0U);
}

TEST_F(StoreEvents, AnyPositiveResultOfTheFetchIsSuccess) {
    fake_tav::on_call("events_get").returns(1000);
    handle({at("1/IPv6/Default Gateway/Value")});
    EXPECT_EQ(synchronisations(), 1U);
}

TEST_F(StoreEvents, AFailedSynchronisationIsThrown) {
    fake_tav::put_node(at("eth"));
    EXPECT_EQ(thrown<sync_minor_err>([this] { handle({at("1/IPv6/Default Gateway/Value")}); }),
              "Ignoring unknown interface path 'eth'");
}

} // namespace
