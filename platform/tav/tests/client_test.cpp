// The client interface against the real service.
#include "support/store_fixture.h"

#include <chrono>
#include <ctime>
#include <thread>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;
using Statuses = std::vector<api_status_t>;
using ClientTest = RunningStoreTest;

} // namespace

TEST_F(ClientTest, AFreshStoreIsEmpty) {
    Client client;
    EXPECT_EQ(client.list("/"), Names{});
}

TEST_F(ClientTest, AStringLeafComesBackWithItsTypeAndATime) {
    Client client;
    const std::string odd("any\x01\xff bytes\n");
    EXPECT_EQ(client.set("/a/b", odd), api_status_ok);
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_max_;
    ASSERT_EQ(client.tav.get_leaf("/a/b", status, value, property), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(value.type(), 6);
    EXPECT_EQ(value.to_string(), odd);
    EXPECT_GT(value.time(), 1000000000);
    EXPECT_EQ(property, element_property_none);
}

TEST_F(ClientTest, TheOtherTypesAreCheckedAndComeBack) {
    Client client;
    EXPECT_EQ(client.set("/i", "-5", element_type_integer), api_status_ok);
    EXPECT_EQ(client.set("/b", "true", element_type_boolean), api_status_ok);
    EXPECT_EQ(client.set("/r", "1.5", element_type_real), api_status_ok);
    EXPECT_EQ(client.set("/i", "five", element_type_integer), api_status_bad_value);
    EXPECT_EQ(client.set("/n", "", element_type_node), api_status_bad_value);
    EXPECT_EQ(client.get("/i"), "-5");
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    ASSERT_EQ(client.tav.list_node("/", status, children), 0);
    ASSERT_EQ(children.size(), 3U);
    EXPECT_EQ(children[0].second.first, element_type_boolean);
    EXPECT_EQ(children[1].second.first, element_type_integer);
    EXPECT_EQ(children[2].second.first, element_type_real);
}

TEST_F(ClientTest, SeveralLeavesAreReadAtOnceEachWithItsStatus) {
    Client client;
    client.set("/a/b", "1");
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    ASSERT_EQ(client.tav.get_leaves({"/a/b", "/none", "/a", "bad"}, statuses, values, properties),
              0);
    EXPECT_EQ(statuses, (Statuses{api_status_ok, api_status_absent, api_status_wrong_kind,
                                  api_status_bad_path}));
    ASSERT_EQ(values.size(), 4U);
    ASSERT_EQ(properties.size(), 4U);
    EXPECT_EQ(values[0].to_string(), "1");
    EXPECT_EQ(values[1].type(), element_type_none);
}

TEST_F(ClientTest, AListingComesInItsFixedOrder) {
    Client client;
    for (const char *name : {"b", "10", "9", "a", "1"}) {
        client.set(std::string("/n/") + name + "/x", "1");
    }
    EXPECT_EQ(client.list("/n"), (Names{"1", "9", "10", "a", "b"}));
    EXPECT_EQ(client.list("/n/1/x"), Names{"status 3"});
    EXPECT_EQ(client.list("/none"), Names{"status 2"});
}

TEST_F(ClientTest, SetLeavesIsAllOrNothing) {
    Client client;
    client.set("/a/leaf", "1");
    EXPECT_EQ(client.set_all({"/x", "/a", "/y"}, {"1", "2", "3"}),
              (Statuses{api_status_not_done, api_status_wrong_kind, api_status_not_done}));
    EXPECT_EQ(client.get("/x"), "status 2");
    EXPECT_EQ(client.set_all({"/x", "/y"}, {"1", "3"}), (Statuses{api_status_ok, api_status_ok}));
    EXPECT_EQ(client.get("/y"), "3");
    EXPECT_EQ(client.set_all({}, {}), Statuses{});
}

TEST_F(ClientTest, RemoveNodeTakesTheSubtreeAndNothingElse) {
    Client client;
    client.set_all({"/a/b/c", "/a/d", "/ab"}, {"1", "2", "3"});
    EXPECT_EQ(client.remove("/a"), api_status_ok);
    EXPECT_EQ(client.get("/a/b/c"), "status 2");
    EXPECT_EQ(client.get("/ab"), "3");
    EXPECT_EQ(client.remove("/a"), api_status_absent);
    EXPECT_EQ(client.remove("/ab"), api_status_wrong_kind);
    EXPECT_EQ(client.remove("/"), api_status_refused);
}

TEST_F(ClientTest, PathsAndValuesOfDifferentNumberAreRefusedWithoutHarm) {
    Client client;
    EXPECT_EQ(client.set_all({"/a", "/b"}, {"1"}),
              (Statuses{api_status_bad_value, api_status_bad_value}));
    EXPECT_EQ(client.get("/a"), "status 2");
}

TEST_F(ClientTest, ACallBeyondTheFrameIsRefusedWithoutHarm) {
    Client client;
    const std::string big(65536, 'x');
    Names paths;
    Names values;
    for (int i = 0; i < 300; ++i) {
        paths.push_back("/big/" + std::to_string(i));
        values.push_back(big);
    }
    EXPECT_EQ(client.set_all(paths, values), Statuses(300, api_status_too_large));
    EXPECT_EQ(client.get("/big/0"), "status 2");
    EXPECT_EQ(client.set("/" + std::string(5000, 'x'), "1"), api_status_path_too_long);
}

TEST_F(ClientTest, AReplyBeyondTheFrameGivesWhatFits) {
    Client client;
    client.set_numbered("/big/0", 150, std::string(65536, 'x'));
    client.set_numbered("/big/1", 150, std::string(65536, 'x'));
    Names paths;
    for (const std::string &name : client.list("/big")) {
        paths.push_back("/big/" + name);
    }
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    ASSERT_EQ(client.tav.get_leaves(paths, statuses, values, properties), 0);
    EXPECT_EQ(statuses.front(), api_status_ok);
    EXPECT_EQ(statuses.back(), api_status_too_large);
    EXPECT_EQ(values.front().to_string().size(), 65536U);
}

TEST_F(ClientTest, AThousandNodesAreOneTransactionAndOneEventPerLeaf) {
    Client watcher;
    Client writer;
    watcher.watch("/lamps");
    Names paths;
    Names values;
    Names expected;
    for (int i = 1; i <= 1000; ++i) {
        const std::string node = "/lamps/" + std::to_string(i);
        for (const char *leaf : {"/Colour", "/Switch"}) {
            paths.push_back(node + leaf);
            values.emplace_back("on");
            expected.push_back("2 " + paths.back());
        }
    }
    EXPECT_EQ(writer.set_all(paths, values), Statuses(paths.size(), api_status_ok));
    EXPECT_EQ(watcher.wait_events(expected.size()), expected);
}

TEST_F(ClientTest, ACallWithoutAConnectionFails) {
    Client client;
    client.close();
    api_status_t status = api_status_ok;
    std::vector<toolkit::CEvent> events;
    std::vector<toolkit::child_t> children;
    EXPECT_LT(client.tav.list_node("/", status, children), 0);
    EXPECT_EQ(status, api_status_none);
    EXPECT_LT(client.tav.events_get(events), 0);
    EXPECT_LT(client.tav.remove_node("/a", status, ""), 0);
    EXPECT_LT(client.tav.watchdog_ping(status), 0);
    EXPECT_EQ(mlr_get_fd(nullptr), -1);
    mlr_close(nullptr);
}

// Events

TEST_F(ClientTest, EventsAreOnePerLeafInCommitOrderAndContiguousPerTransaction) {
    Client watcher;
    Client one;
    Client two;
    watcher.watch("/n");
    one.set_all({"/n/c", "/n/a", "/elsewhere"}, {"1", "1", "1"});
    two.set_all({"/n/z/1", "/n/b"}, {"1", "1"});
    one.set_all({"/n/d"}, {"1"});
    EXPECT_EQ(watcher.wait_events(5), (Names{"2 /n/c", "2 /n/a", "2 /n/z/1", "2 /n/b", "2 /n/d"}));
}

TEST_F(ClientTest, ARemovedSubtreeIsOneEventPerLeafAndNoneForNodes) {
    Client watcher;
    Client writer;
    writer.set_all({"/n/10/x", "/n/9/x", "/n/y"}, {"1", "1", "1"});
    watcher.watch("/");
    watcher.settle();
    writer.remove("/n");
    EXPECT_EQ(watcher.wait_events(3), (Names{"3 /n/9/x", "3 /n/10/x", "3 /n/y"}));
}

TEST_F(ClientTest, AWriteThatChangesNothingMakesNoEvent) {
    Client watcher;
    Client writer;
    writer.set("/n/a", "1");
    watcher.watch("/n");
    watcher.settle();
    writer.set("/n/a", "1");
    writer.set_all({"/n/a", "/n/b"}, {"1", "2"});
    EXPECT_EQ(watcher.wait_events(1), Names{"2 /n/b"});
}

TEST_F(ClientTest, AClientGetsNoEventsForItsOwnChanges) {
    Client client;
    Client other;
    client.watch("/n", false);
    client.settle();
    client.set("/n/own", "1");
    client.set_all({"/n/own", "/n/own2"}, {"2", "2"});
    client.remove("/n");
    other.set("/n/other", "1");
    EXPECT_EQ(client.wait_events(1), Names{"2 /n/other"});
}

TEST_F(ClientTest, AClientThatRegistersForItsOwnChangesGetsThemAndIsNotRefused) {
    Client client;
    client.watch("/n", true);
    client.settle();
    EXPECT_EQ(client.set("/n/own", "1"), api_status_ok);
    EXPECT_EQ(client.set("/n/own", "2"), api_status_ok) << "it knows of its own change";
    EXPECT_EQ(client.wait_events(1), Names{"2 /n/own"});
}

TEST_F(ClientTest, ARegistrationIsFollowedByOneNotice) {
    Client client;
    EXPECT_EQ(client.watch("/n"), api_status_ok);
    ASSERT_TRUE(becomes_readable(client.fd()));
    std::vector<toolkit::CEvent> events;
    EXPECT_EQ(client.tav.events_get(events), 1);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].command, 1);
    EXPECT_FALSE(readable(client.fd()));
}

TEST_F(ClientTest, AFetchGivesANoticeRatherThanNothing) {
    Client client;
    std::vector<toolkit::CEvent> events(3);
    EXPECT_EQ(client.tav.events_get(events), 1);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].command, 1);
}

TEST_F(ClientTest, SetAndRemovedAreDistinguishedAndTheLastOneRemains) {
    Client watcher;
    Client writer;
    watcher.watch("/");
    watcher.settle();
    writer.set("/n/a", "1");
    writer.remove("/n");
    writer.set("/n/b", "1");
    writer.set("/n/a", "1");
    EXPECT_EQ(watcher.fetch(), (Names{"3 /n/a", "2 /n/b", "2 /n/a"}));
}

TEST_F(ClientTest, BadRegistrationsAreRefused) {
    Client client;
    EXPECT_EQ(client.watch("n"), api_status_bad_path);
    api_status_t status = api_status_none;
    EXPECT_EQ(client.tav.event_register("/", api_event_none, false, status), 0);
    EXPECT_EQ(status, api_status_refused);
}

// Stale writes

namespace {

// A client that watches "/n", with an unfetched change by another client.
class StaleTest : public RunningStoreTest {
protected:
    void SetUp() override {
        RunningStoreTest::SetUp();
        client = std::make_unique<Client>();
        other = std::make_unique<Client>();
        other->set_all({"/n/1/a", "/n/1/b", "/n/2/a"}, {"old", "old", "old"});
        client->watch("/n", false);
        client->settle();
        other->set("/n/1/a", "theirs");
    }

    std::unique_ptr<Client> client;
    std::unique_ptr<Client> other;
};

} // namespace

TEST_F(StaleTest, AWriteOfALeafWithAnUnfetchedEventIsRefusedUntilTheFetch) {
    EXPECT_EQ(client->set("/n/1/a", "mine"), api_status_stale);
    EXPECT_EQ(other->get("/n/1/a"), "theirs");
    EXPECT_EQ(client->fetch(), Names{"2 /n/1/a"});
    EXPECT_EQ(client->set("/n/1/a", "mine"), api_status_ok);
    EXPECT_EQ(other->get("/n/1/a"), "mine");
}

TEST_F(StaleTest, ATransactionIsRefusedWhole) {
    EXPECT_EQ(client->set_all({"/n/2/a", "/n/1/a", "/n/3/a"}, {"mine", "mine", "mine"}),
              (Statuses{api_status_not_done, api_status_stale, api_status_not_done}));
    EXPECT_EQ(other->get("/n/2/a"), "old");
    EXPECT_EQ(other->get("/n/3/a"), "status 2");
}

TEST_F(StaleTest, ARemovalIsRefusedWhole) {
    EXPECT_EQ(client->remove("/n/1"), api_status_stale);
    EXPECT_EQ(client->remove("/n"), api_status_stale);
    EXPECT_EQ(other->get("/n/1/a"), "theirs");
    EXPECT_EQ(other->get("/n/1/b"), "old");
    client->fetch();
    EXPECT_EQ(client->remove("/n/1"), api_status_ok);
}

TEST_F(StaleTest, ANodeThatSomebodyIsJustAddingIsNotOverwritten) {
    client->fetch();
    other->set_all({"/n/3/a", "/n/3/b"}, {"theirs", "theirs"});
    EXPECT_EQ(client->set_all({"/n/3/a", "/n/3/b"}, {"mine", "mine"}),
              (Statuses{api_status_stale, api_status_stale}));
    EXPECT_EQ(other->get("/n/3/b"), "theirs");
}

TEST_F(StaleTest, ANodeThatAnotherClientJustRemovedIsNotCreatedAgainByAWriteBelowIt) {
    client->fetch();
    other->remove("/n/1");
    EXPECT_EQ(client->set("/n/1/x/c", "mine"), api_status_stale);
    EXPECT_EQ(client->set_all({"/n/2/a", "/n/1/c"}, {"mine", "mine"}),
              (Statuses{api_status_not_done, api_status_stale}));
    EXPECT_EQ(client->set("/n/10/c", "mine"), api_status_ok) << "that is another one";
    EXPECT_EQ(client->fetch(), (Names{"3 /n/1/a", "3 /n/1/b"}));
    EXPECT_EQ(client->set("/n/1/x/c", "mine"), api_status_ok);
}

TEST_F(StaleTest, BesideALeafThatSomebodyJustRemovedOthersAreWritten) {
    client->fetch();
    other->remove("/n/1/a");
    EXPECT_EQ(client->set("/n/1/c", "mine"), api_status_ok) << "the node is there";
}

TEST_F(StaleTest, ALeafThatSomebodyJustRemovedIsNotBroughtBack) {
    client->fetch();
    other->remove("/n/2");
    EXPECT_EQ(client->set("/n/2/a", "old"), api_status_stale);
    EXPECT_EQ(other->get("/n/2/a"), "status 2");
}

TEST_F(StaleTest, AWriteThatDoesNotChangeTheLeafIsAllowed) {
    EXPECT_EQ(client->set("/n/1/a", "theirs"), api_status_ok);
    EXPECT_EQ(client->set("/n/1/b", "mine"), api_status_ok);
    EXPECT_EQ(client->remove("/n/2"), api_status_ok);
}

TEST_F(StaleTest, OnlyAClientThatGetsEventsForTheLeafIsRefused) {
    Client unregistered;
    EXPECT_EQ(unregistered.set("/n/1/a", "x"), api_status_ok);
    Client elsewhere;
    elsewhere.watch("/m");
    EXPECT_EQ(elsewhere.set("/n/1/a", "y"), api_status_ok);
}

TEST_F(StaleTest, TheRefusalWakesAClientWhoseByteWasAcknowledgedByPings) {
    ASSERT_TRUE(becomes_readable(client->fd()));
    client->ping();
    client->ping();
    ASSERT_FALSE(readable(client->fd()));
    EXPECT_EQ(client->set("/n/1/a", "mine"), api_status_stale);
    ASSERT_TRUE(becomes_readable(client->fd()));
    EXPECT_EQ(client->fetch(), Names{"2 /n/1/a"});
}

// Watchdog

TEST_F(ClientTest, TheWatchdogIsAnnouncedPingedAndWithdrawn) {
    Client client;
    api_status_t status = api_status_none;
    EXPECT_EQ(client.ping(), api_status_absent);
    EXPECT_EQ(client.tav.watchdog_register(status, "worker", 60, true), 0);
    EXPECT_EQ(status, api_status_ok);
    EXPECT_EQ(client.ping(), api_status_ok);
    EXPECT_TRUE(has(tav({"status"}).output, "worker"));
    EXPECT_EQ(client.tav.watchdog_register(status, "worker", 60, false), 0);
    EXPECT_EQ(client.ping(), api_status_absent);
    EXPECT_FALSE(has(tav({"status"}).output, "worker"));
}
