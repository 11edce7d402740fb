// Answers from memory: the same as the service's, never older than an acknowledged change, and only
// as long as the connection exists.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

#include "client/admin.h"
#include "protocol/limits.h"

using namespace tavtest;
using tav::Op;
using tav::Reader;
using tav::Writer;
namespace limits = tav::limits;

namespace {

using Names = std::vector<std::string>;

class ReadAheadTest : public RunningStoreTest {
protected:
    void SetUp() override {
        RunningStoreTest::SetUp();
        other = std::make_unique<Client>();
        other->set_all({"/n/1/a", "/n/1/b", "/n/2/a", "/n/x", "/m/y"},
                       {"one", "two", "three", "four", "five"});
        client = std::make_unique<Client>();
        read_ahead(*client);
    }

    // Like a program that synchronises: with the second call in a row below the listed node.
    static void read_ahead(Client &reader) {
        EXPECT_EQ(reader.list("/n"), (Names{"1", "2", "x"}));
        EXPECT_EQ(reader.get("/n/1/a"), "one");
        EXPECT_EQ(reader.get("/n/1/b"), "two");
    }
    // What the client reads while the service cannot answer.
    std::string alone(const std::string &path) {
        tavd->signal(SIGSTOP);
        std::thread later([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            tavd->signal(SIGCONT);
        });
        const auto begin = std::chrono::steady_clock::now();
        const std::string found = client->get(path);
        const bool at_once =
            std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(250);
        later.join();
        return at_once ? found : "not from memory";
    }
    tav::LimitStatus shown(const std::string &name) { return other->limit(name); }

    std::unique_ptr<Client> other;
    std::unique_ptr<Client> client;
};

// Bytes that have arrived and were not read, once there are `wanted` or no more come.
int arrived(const RawPeer &peer, int wanted) {
    int bytes = 0;
    for (int i = 0; i < 300; ++i) {
        ::ioctl(peer.fd(), FIONREAD, &bytes);
        if (bytes >= wanted) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return bytes;
}

bool is_notice(const std::string &body) {
    return body == std::string("\0\0\0\1\4", 5);
}

} // namespace

TEST_F(ReadAheadTest, WhatWasReadAheadIsAnsweredWithoutTheService) {
    EXPECT_EQ(alone("/n/2/a"), "three");
    EXPECT_EQ(alone("/n/x"), "four");
    EXPECT_EQ(alone("/n/1"), "status 3");
    EXPECT_EQ(alone("/n/1/none"), "status 2");
    EXPECT_EQ(alone("/n/x/none"), "status 2");
    EXPECT_EQ(alone("/m/y"), "not from memory");
}

TEST_F(ReadAheadTest, AChangeOfAnotherClientIsSeenByTheNextCall) {
    other->set("/n/2/a", "changed");
    EXPECT_EQ(client->get("/n/2/a"), "changed");
    read_ahead(*client);
    other->set("/n/3/a", "created");
    EXPECT_EQ(client->list("/n"), (Names{"1", "2", "3", "x"}));
    EXPECT_EQ(client->get("/n/3/a"), "created");
    other->remove("/n/3");
    EXPECT_EQ(client->list("/n"), (Names{"1", "2", "x"}));
    read_ahead(*client);
    other->remove("/n");
    EXPECT_EQ(client->list("/n"), Names{"status 2"});
    EXPECT_EQ(client->get("/n/1/a"), "status 2");
}

TEST_F(ReadAheadTest, AClientsOwnChangeIsSeenByItsNextCall) {
    client->set("/n/2/a", "mine");
    EXPECT_EQ(client->get("/n/2/a"), "mine");
    read_ahead(*client);
    client->remove("/n/2");
    EXPECT_EQ(client->get("/n/2/a"), "status 2");
}

TEST_F(ReadAheadTest, WhatChangesNothingBelowTheNodeVoidsNothing) {
    other->set("/m/y", "changed");
    other->set("/n2", "created");
    client->set("/n/1/a", "one");
    EXPECT_EQ(shown("read-aheads of all clients").used, 1U);
    EXPECT_EQ(alone("/n/2/a"), "three");
    other->set("/n/x", "changed");
    EXPECT_EQ(shown("read-aheads of all clients").used, 0U);
}

TEST_F(ReadAheadTest, ANewerTimeStampIsAChange) {
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    std::vector<api_status_t> statuses;
    ASSERT_EQ(tav::transact(other->tav.handle,
                            {{tav::ItemKind::remove, "/n/x", {}},
                             {tav::ItemKind::set, "/n/x", {element_type_string, "four", 12345}}},
                            statuses),
              0);
    ASSERT_EQ(client->tav.get_leaf("/n/x", status, value, property), 0);
    EXPECT_EQ(value.time(), 12345);
}

namespace {

// What the calls answer about this path, as text.
std::string answers(Client &client, const std::string &path) {
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    EXPECT_EQ(client.tav.get_leaves({path, "/n/1"}, statuses, values, properties), 0);
    std::ostringstream text;
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        text << statuses[i] << ' ' << properties[i] << ' ' << values[i].type() << ' '
             << values[i].to_string() << ' ' << values[i].time() << '\n';
    }
    std::vector<toolkit::child_t> children;
    EXPECT_EQ(client.tav.list_node(path, statuses[0], children), 0);
    text << statuses[0] << '\n';
    for (const auto &[name, kind] : children) {
        text << name << ' ' << kind.first << ' ' << kind.second << '\n';
    }
    return text.str();
}

} // namespace

TEST_F(ReadAheadTest, EveryCallIsAnsweredAsByTheService) {
    const Names values{"x", std::string(300, 'y'), "", "1"};
    std::mt19937 random(1);
    const auto name = [&] {
        return std::string("/") + Names{"1", "10", "2", "a", "b", "ab"}[random() % 6];
    };
    std::vector<std::string> paths{"",
                                   "/",
                                   "n",
                                   "/n",
                                   "/n/",
                                   "/n//1",
                                   "//",
                                   "/n/1",
                                   "/n/1/a/",
                                   "/n/1/a/",
                                   "/nn",
                                   "/n/x/",
                                   "/.",
                                   "/n/..",
                                   "/" + std::string(256, 'l'),
                                   "/n/" + std::string(256, 'l'),
                                   "/n/" + std::string(4096, 'l'),
                                   std::string("/n/\0", 4)};
    paths.emplace_back("/n");
    for (int i = 0; i < 70; ++i) {
        paths.back() += "/d";
    }
    for (int i = 0; i < 300; ++i) {
        paths.push_back("/n" + name() + name() + (i % 2 == 0 ? "" : name()));
        std::vector<api_status_t> statuses;
        tav::transact(
            other->tav.handle,
            {{tav::ItemKind::set,
              paths.back(),
              {element_type_string, values[random() % 4], static_cast<int>(random() % 9)}}},
            statuses);
    }
    ::setenv("TAV_READ_AHEAD", "0", 1);
    Client plain;
    ::unsetenv("TAV_READ_AHEAD");
    for (const char *top : {"/", "/n"}) {
        Client reader;
        reader.list(top);
        reader.get("/n/1/a");
        reader.get("/n/1/a");
        ASSERT_EQ(shown("read-aheads of all clients").used, 1U);
        for (const std::string &path : paths) {
            EXPECT_EQ(answers(reader, path), answers(plain, path)) << path;
        }
        ASSERT_EQ(shown("read-aheads of all clients").used, 1U);
    }
}

TEST_F(ReadAheadTest, AReadIsAsLargeAsTheServiceAllows) {
    other->set("/n/big", std::string(65536, 'x'));
    client->list("/n");
    EXPECT_EQ(client->get("/n/big").size(), 65536U);
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    ASSERT_EQ(client->tav.get_leaves(Names(300, "/n/big"), statuses, values, properties), 0);
    EXPECT_EQ(statuses.front(), api_status_ok);
    EXPECT_EQ(statuses.back(), api_status_too_large);
    ASSERT_EQ(client->tav.get_leaves(Names(50001, "/n/x"), statuses, values, properties), 0);
    EXPECT_EQ(statuses.back(), api_status_too_large);
    ASSERT_EQ(client->tav.get_leaves({}, statuses, values, properties), 0);
}

TEST_F(ReadAheadTest, ItEndsWithTheConnection) {
    tavd->signal(SIGKILL);
    tavd->wait();
    EXPECT_LT(client->try_get("/n/2/a"), 0);
    start();
    EXPECT_LT(client->try_get("/n/2/a"), 0);
}

TEST_F(ReadAheadTest, AClientWithoutItAsksTheService) {
    client->close();
    EXPECT_EQ(shown("read-aheads of all clients").used, 0U);
    ::setenv("TAV_READ_AHEAD", "0", 1);
    client = std::make_unique<Client>();
    read_ahead(*client);
    read_ahead(*client);
    EXPECT_EQ(shown("read-aheads of all clients").used, 0U);
    EXPECT_EQ(reports().size(), 0U);
    ::setenv("TAV_READ_AHEAD", "no", 1);
    client = std::make_unique<Client>();
    ::unsetenv("TAV_READ_AHEAD");
    read_ahead(*client);
    EXPECT_EQ(shown("read-aheads of all clients").used, 1U);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].second, "TAV_READ_AHEAD='no' is neither 0 nor 1, using 1");
    reports().clear();
}

TEST_F(ReadAheadTest, ItsNumberAndSizeAreLimitedAndShown) {
    EXPECT_EQ(shown("read-aheads of all clients").limit, limits::connections / 2);
    EXPECT_EQ(shown("bytes of a read-ahead").limit, limits::read_ahead_bytes);
    EXPECT_GT(shown("bytes of a read-ahead").used, 19U);
    EXPECT_LT(shown("bytes of a read-ahead").used, 200U);
    EXPECT_EQ(shown("bytes of a read-ahead").refused, 0U);
    other->set_numbered("/n/1/big", 70, std::string(65536, 'x'));
    EXPECT_EQ(client->list("/n"), (Names{"1", "2", "x"}));
    EXPECT_EQ(client->get("/n/x"), "four");
    EXPECT_EQ(client->get("/n/2/a"), "three");
    EXPECT_EQ(shown("bytes of a read-ahead").refused, 1U);
    EXPECT_EQ(shown("read-aheads of all clients").used, 0U);
    other->remove("/n/1");
    EXPECT_EQ(client->list("/n"), (Names{"2", "x"}));
}

TEST_F(ReadAheadTest, ItMayBeNearlyAsLargeAsTheLimit) {
    other->set_numbered("/n/1/big", 63, std::string(65536, 'x'));
    client->list("/n");
    EXPECT_EQ(alone("/n/1/big62"), std::string(65536, 'x'));
    EXPECT_EQ(shown("bytes of a read-ahead").refused, 0U);
}

// The service's side, by hand

TEST_F(ReadAheadTest, AHolderGetsOneNoticeBeforeTheChangeIsAcknowledged) {
    const RawClient holder(socket);
    RawPeer &calls = const_cast<RawPeer &>(holder.calls);
    calls.send(path_frame(Op::read_ahead, "/n"));
    calls.receive();
    other->set("/n/x", "changed");
    EXPECT_EQ(arrived(calls, 9), 9);
    EXPECT_TRUE(is_notice(calls.receive()));
    other->set("/n/x", "again");
    EXPECT_EQ(arrived(calls, 0), 0);
    calls.send(path_frame(Op::read_ahead, "/none"));
    EXPECT_EQ(calls.receive().back(), static_cast<char>(api_status_absent));
    calls.send(path_frame(Op::read_ahead, "/n/x"));
    EXPECT_EQ(calls.receive().back(), static_cast<char>(api_status_wrong_kind));
    other->set("/none", "1");
    EXPECT_EQ(arrived(calls, 0), 0);
}

TEST_F(ReadAheadTest, ANewReadAheadGivesUpTheOneBefore) {
    RawClient holder(socket);
    for (const char *path : {"/n", "/m"}) {
        holder.calls.send(path_frame(Op::read_ahead, path));
        holder.calls.receive();
    }
    other->set("/n/x", "changed");
    EXPECT_EQ(arrived(holder.calls, 0), 0);
    other->set("/m/y", "changed");
    EXPECT_EQ(arrived(holder.calls, 9), 9);
}

TEST_F(ReadAheadTest, WithAFrameThatWaitsTheNoticeComesBeforeTheAnswerIsComplete) {
    other->set("/big", std::string(65536, 'x'));
    RawClient holder(socket);
    holder.calls.send(path_frame(Op::read_ahead, "/n"));
    holder.calls.receive();
    holder.calls.send(read_frame(Names(20, "/big")));
    ASSERT_GT(arrived(holder.calls, 100000), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the socket fills up
    other->set("/n/x", "changed");
    bool noticed = false;
    for (bool more = true; more;) {
        const std::string body = holder.calls.receive();
        ASSERT_FALSE(body.empty());
        noticed = noticed || is_notice(body);
        more = is_notice(body) || (body[4] & tav::reply_more) != 0;
    }
    EXPECT_TRUE(noticed);
}

TEST_F(ReadAheadTest, AHolderWhoseSocketIsFullIsDisconnected) {
    const std::string request = read_frame({"/n/x"});
    // So many replies fill the socket, and nothing waits in the service.
    int replies = 0;
    {
        RawClient trial(socket);
        trial.calls.send(request);
        const int size = arrived(trial.calls, 1);
        do {
            ++replies;
            trial.calls.send(request);
        } while (arrived(trial.calls, (replies + 1) * size) == (replies + 1) * size);
    }
    RawClient holder(socket);
    holder.calls.send(path_frame(Op::read_ahead, "/n/1"));
    const std::string ahead = holder.calls.receive();
    holder.calls.send(request);
    const int size = arrived(holder.calls, 1);
    for (int i = 1; i < replies; ++i) {
        holder.calls.send(request);
        ASSERT_EQ(arrived(holder.calls, (i + 1) * size), (i + 1) * size);
    }
    other->set("/n/1/a", "changed");
    for (int i = 0; i < replies; ++i) {
        ASSERT_FALSE(is_notice(holder.calls.receive()));
    }
    EXPECT_EQ(holder.calls.receive(), "") << "the end, before the change was acknowledged";
    EXPECT_TRUE(tavd->wait_for_error_text("it did not read a notice"));
    EXPECT_EQ(other->get("/n/1/a"), "changed");
}

// The library's side, with a service played by hand

namespace {

// A client of a played service that has read /n ahead, with one leaf, x.
class PlayedTest : public StoreTest {
protected:
    using Script = std::function<void(RawPeer &calls)>;

    void play(const Script &then) {
        service = std::make_unique<FakeService>(socket, [this, then](RawPeer &calls, RawPeer &) {
            expect(calls, Op::list);
            calls.send(reply_frame(serial, false, [](Writer &out) {
                put(out, api_status_ok);
                put_all(out, std::vector<tav::Child>{{"x", element_type_string}});
            }));
            expect(calls, Op::read);
            answer(calls);
            expect(calls, Op::read_ahead);
            then(calls);
        });
        client = std::make_unique<Client>();
        EXPECT_EQ(client->list("/n"), Names{"x"});
        EXPECT_EQ(client->get("/n/x"), "value");
    }
    void expect(RawPeer &calls, Op wanted) {
        const std::string request = calls.receive();
        serial = serial_of(request);
        EXPECT_EQ(request.empty() ? 0 : request[0], static_cast<char>(wanted));
    }
    // To a read of one leaf.
    void answer(const RawPeer &calls, const std::string &text = "value") const {
        calls.send(reply_frame(serial, false, [&](Writer &out) {
            put_all(out,
                    std::vector<tav::LeafAnswer>{{api_status_ok, {element_type_string, text, 0}}});
        }));
    }
    void ahead(const RawPeer &calls, std::uint8_t last = tav::depth_end) const {
        calls.send(reply_frame(serial, false, [&](Writer &out) {
            put(out, api_status_ok);
            put(out, tav::AheadElement{1, "x", element_type_string, "ahead", 0});
            put(out, tav::AheadElement{last, {}, {}, {}, 0});
        }));
    }
    std::string notice() const {
        tav::Writer out;
        put(out, tav::ReplyHeader{serial, false, false, true});
        return out.finish();
    }

    std::unique_ptr<FakeService> service;
    std::unique_ptr<Client> client;
    std::uint32_t serial = 0;
};

} // namespace

TEST_F(PlayedTest, ANoticeForNothingEndsTheConnection) {
    play([this](RawPeer &calls) {
        ahead(calls);
        calls.send(notice());
        calls.send(notice());
        expect(calls, Op::read_ahead);
        ahead(calls);
        calls.closed();
    });
    EXPECT_EQ(client->get("/n/x"), "ahead");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_LT(client->try_get("/n/x"), 0);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_TRUE(has(reports()[0].second, "malformed"));
    reports().clear();
}

TEST_F(PlayedTest, AMalformedReadAheadEndsTheConnection) {
    const std::vector<std::string> wrong{
        "",
        "\1",                                       // no end
        std::string("\1\0\0", 3),                   // more after the end
        std::string("\1\2\6\0\0\0\1x", 8),          // too deep
        std::string("\2\0", 2),                     // elements of nothing
        std::string("\1\1\6\0\0\0\1x\0\0\0\0", 12), // half an element
        // An element below a leaf
        std::string("\1\1\6\0\0\0\1x\0\0\0\0\0\0\0\0\0\0\0\0\2\2\0\0\0\1y\0", 28),
    };
    for (const std::string &content : wrong) {
        SCOPED_TRACE(testing::PrintToString(content));
        play([&](RawPeer &calls) {
            calls.send(reply_frame(serial, false, [&](Writer &out) {
                for (const char byte : content) {
                    out.u8(static_cast<std::uint8_t>(byte));
                }
            }));
            calls.closed();
        });
        EXPECT_LT(client->try_get("/n/x"), 0);
        ASSERT_EQ(reports().size(), 1U);
        EXPECT_TRUE(has(reports()[0].second, "malformed"));
        reports().clear();
        client.reset();
        service.reset();
        ::unlink(socket.c_str());
    }
}
