// How far one client may affect the others, and that each limit is named and counted.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <csignal>

#include "client/admin.h"
#include "protocol/limits.h"
#include "service/event_log.h"

using namespace tavtest;
using tav::Op;
using tav::Writer;
namespace limits = tav::limits;

namespace {

using Names = std::vector<std::string>;

class LimitsTest : public RunningStoreTest {
protected:
    void SetUp() override {
        RunningStoreTest::SetUp();
        good = std::make_unique<Client>();
    }

    tav::LimitStatus shown(const std::string &name) { return good->limit(name); }

    std::unique_ptr<Client> good;
};

std::string many(const std::string &part, std::size_t times) {
    std::string all;
    for (std::size_t i = 0; i < times; ++i) {
        all += part;
    }
    return all;
}

// Reads all frames of an answer; 0 if the connection ends before.
std::size_t answer_bytes(RawPeer &calls) {
    std::size_t bytes = 0;
    for (bool more = true; more;) {
        const std::string body = calls.receive();
        tav::Reader reader(body);
        tav::ReplyHeader header;
        get(reader, header);
        if (!reader.ok()) {
            return 0;
        }
        bytes += reader.remaining().size();
        more = header.more;
    }
    return bytes;
}

} // namespace

TEST_F(LimitsTest, EachLimitOfTheTreeHasItsStatusAndItsCount) {
    EXPECT_EQ(good->set("/" + std::string(limits::name_bytes, 'n'), "1"), api_status_ok);
    EXPECT_EQ(shown("bytes of a name").used, limits::name_bytes);
    EXPECT_EQ(good->set("/" + std::string(limits::name_bytes + 1, 'n'), "1"),
              api_status_name_too_long);
    EXPECT_EQ(shown("bytes of a name").refused, 1U);
    EXPECT_EQ(good->set(many("/d", limits::depth), "1"), api_status_ok);
    EXPECT_EQ(shown("names of a path").used, limits::depth);
    EXPECT_EQ(good->set(many("/d", limits::depth + 1), "1"), api_status_path_too_deep);
    EXPECT_EQ(shown("names of a path").refused, 1U);
    const std::string longest = many("/" + std::string(255, 'p'), 16);
    EXPECT_EQ(good->set(longest, "1"), api_status_ok);
    EXPECT_EQ(shown("bytes of a path").used, limits::path_bytes);
    EXPECT_EQ(good->set(longest + "/p", "1"), api_status_path_too_long);
    EXPECT_EQ(shown("bytes of a path").refused, 1U);
    EXPECT_EQ(good->set("/v", std::string(limits::value_bytes, 'v')), api_status_ok);
    EXPECT_EQ(shown("bytes of a value").used, limits::value_bytes);
    EXPECT_EQ(good->set("/v", std::string(limits::value_bytes + 1, 'v')),
              api_status_value_too_long);
    EXPECT_EQ(shown("bytes of a value").refused, 1U);
}

TEST_F(LimitsTest, ARefusedWriteDoesNotRaiseTheLargestSize) {
    good->set("/v", std::string(100, 'v'));
    EXPECT_EQ(good->set_all({"/v", "/v/below"}, {std::string(200, 'v'), "1"}),
              (std::vector<api_status_t>{api_status_not_done, api_status_wrong_kind}));
    EXPECT_EQ(shown("bytes of a value").used, 100U);
    EXPECT_EQ(shown("elements in all").used, 2U);
}

TEST_F(LimitsTest, TheBytesOfWaitingEventsAreShown) {
    Client watcher;
    watcher.watch("/");
    watcher.settle();
    good->set_all({"/a", "/b", "/c"}, {"1", "1", "1"});
    watcher.fetch();
    EXPECT_GT(shown("bytes of events that wait").used, 3 * sizeof(tav::LoggedEvent));
}

TEST_F(LimitsTest, RegistrationsOfAClientAreLimited) {
    for (std::size_t i = 0; i < limits::registrations_per_client; ++i) {
        EXPECT_EQ(good->watch("/r" + std::to_string(i)), api_status_ok);
    }
    EXPECT_EQ(good->watch("/more"), api_status_too_many_registrations);
    const tav::LimitStatus limit = shown("registrations of a client");
    EXPECT_EQ(limit.used, limits::registrations_per_client);
    EXPECT_EQ(limit.limit, limits::registrations_per_client);
    EXPECT_EQ(limit.refused, 1U);
    EXPECT_EQ(stop(), 0);
}

TEST_F(LimitsTest, ThePathsOfACallAreLimited) {
    const Names most(limits::paths_per_request, "/n");
    EXPECT_EQ(good->set_all(most, Names(most.size(), "x")).back(), api_status_ok);
    EXPECT_EQ(shown("paths of a call").used, limits::paths_per_request);
    // The library never sends more, so a client that does is disconnected.
    Names more = most;
    more.push_back("/n");
    EXPECT_EQ(good->set_all(more, Names(more.size(), "x")).back(), api_status_too_large);
    EXPECT_EQ(shown("paths of a call").refused, 0U);
    for (const std::string &frame :
         {read_frame(more), write_frame(std::vector<tav::Item>(more.size()))}) {
        RawClient other(socket);
        other.calls.send(frame);
        EXPECT_EQ(other.calls.farewell(), "the client sent an invalid request");
    }
    EXPECT_EQ(shown("paths of a call").refused, 2U);
}

TEST_F(LimitsTest, TheLimitOfConnectionsPerUserIsReportedToTheClient) {
    std::vector<std::unique_ptr<Client>> all;
    while (all.size() < limits::connections_per_user) {
        auto client = std::make_unique<Client>();
        if (!client->connected()) {
            break;
        }
        all.push_back(std::move(client));
    }
    // Two per client, and those of the fixture.
    EXPECT_EQ(all.size(), limits::connections_per_user / 2 - 1);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].second, "cannot connect to the settings service at " + socket +
                                       ": this user has reached the limit of connections per user");
    const tav::LimitStatus limit = shown("connections of a user");
    EXPECT_EQ(limit.used, limits::connections_per_user);
    EXPECT_EQ(limit.refused, 1U);
    all.pop_back();
    // The service notices the end after a while.
    Client fresh;
    for (int i = 0; i < 6000 && !fresh.connected(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        fresh.tav.handle = mlr_init();
    }
    EXPECT_TRUE(fresh.connected());
}

TEST_F(LimitsTest, AClientThatDoesNotConnectCompletelyIsDisconnected) {
    RawPeer silent(socket);
    RawPeer half(socket);
    half.greet();
    EXPECT_EQ(silent.farewell(), "the client did not connect in time");
    EXPECT_EQ(half.farewell(), "the client did not connect in time");
    EXPECT_EQ(shown("milliseconds to connect").refused, 2U);
    EXPECT_EQ(good->set("/a", "1"), api_status_ok) << "existing connections are kept";
}

TEST_F(LimitsTest, AStrangerCannotMakeTheServiceHoldALargeFirstFrame) {
    RawPeer stranger(socket);
    stranger.send(std::string("\0\xff\xff\xff", 4) + std::string(100, 'x'));
    EXPECT_EQ(stranger.farewell(), "the client sent an invalid request");
}

TEST_F(LimitsTest, ClientsThatDoNotFinishLargeRequestsAreDisconnected) {
    const std::string most_of_a_frame =
        std::string("\0\xff\xff\xff", 4) + std::string(limits::frame_bytes - 1000, 'x');
    std::vector<std::unique_ptr<RawClient>> unfinished;
    while (shown("bytes held for all clients").refused == 0) {
        ASSERT_LT(unfinished.size(), 20U);
        unfinished.push_back(std::make_unique<RawClient>(socket));
        unfinished.back()->calls.send(most_of_a_frame);
    }
    EXPECT_GE(unfinished.size(), 8U);
    EXPECT_EQ(good->set("/a", "1"), api_status_ok);
}

// Each reply that was not read once kept its own version of the tree for a minute.
TEST_F(LimitsTest, UnfinishedRepliesKeepLittleOfWhatWasReplaced) {
    constexpr std::size_t leaves = 250;
    const auto fill = [this](char text) {
        return good->set_numbered("/v", leaves, std::string(limits::value_bytes, text));
    };
    ASSERT_EQ(fill('a'), api_status_ok);
    std::vector<std::unique_ptr<RawClient>> deaf;
    for (const char text : {'b', 'c', 'd', 'e', 'f', 'g'}) {
        deaf.push_back(std::make_unique<RawClient>(socket));
        deaf.back()->calls.send(path_frame(Op::dump, "/"));
        ASSERT_EQ(good->list("/").size(), leaves); // the dump has begun
        ASSERT_EQ(fill(text), api_status_ok);
    }
    const auto refused = [this] { return shown("bytes kept for long replies").refused; };
    for (int i = 0; i < 500 && refused() < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const tav::LimitStatus limit = shown("bytes kept for long replies");
    EXPECT_EQ(limit.refused, deaf.size() - limit.limit / (leaves * limits::value_bytes));
    EXPECT_GT(limit.used, limit.limit - leaves * limits::value_bytes);
    EXPECT_LE(limit.used, limit.limit);
    EXPECT_TRUE(deaf[1]->wake.closed());
    EXPECT_GT(answer_bytes(deaf[2]->calls), leaves * limits::value_bytes) << "it is still served";
}

TEST_F(LimitsTest, ALongAnswerIsMadeAsItIsRead) {
    good->set("/big", std::string(65536, 'x'));
    RawClient deaf(socket);
    deaf.calls.send(read_frame(Names(250, "/big")));
    EXPECT_EQ(good->get("/big").size(), 65536U);
    EXPECT_LT(shown("bytes held for all clients").used, std::size_t{1} << 20);
    EXPECT_GT(answer_bytes(deaf.calls), 249U * 65536);
}
