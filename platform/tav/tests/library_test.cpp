// The client library against a service that the test plays.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "protocol/limits.h"

using namespace tavtest;
using tav::Writer;

namespace {

class LibraryTest : public StoreTest {
protected:
    // A client of a service that answers one request with the result of `answer` for its serial
    // number, then keeps the connections open until the client closes them.
    void play_answer(std::function<std::string(std::uint32_t)> answer) {
        service = std::make_unique<FakeService>(
            socket, [answer = std::move(answer)](RawPeer &calls, RawPeer &) {
                calls.send(answer(serial_of(calls.receive())));
                calls.closed();
            });
    }

    // The answer makes the connection unusable: this call fails, and each later one.
    void expect_refused(const std::string &why) {
        Client client;
        ASSERT_TRUE(client.connected());
        api_status_t status = api_status_ok;
        EXPECT_LT(client.tav.watchdog_register(status, "x", 1, true), 0);
        EXPECT_EQ(status, api_status_none);
        std::vector<toolkit::CEvent> events;
        EXPECT_LT(client.tav.events_get(events), 0);
        ASSERT_EQ(reports().size(), 1U);
        EXPECT_TRUE(has(reports()[0].second, why)) << reports()[0].second;
    }

    std::unique_ptr<FakeService> service;
};

void put_status(Writer &out) {
    put(out, api_status_ok);
}

} // namespace

TEST_F(LibraryTest, AReplyThatAcknowledgesDrainsExactlyOneByte) {
    // The second byte belongs to an event between the reply and the drain.
    FakeService fake(socket, [](RawPeer &calls, RawPeer &wake) {
        const std::uint32_t serial = serial_of(calls.receive());
        wake.send(std::string(2, tav::wake_byte));
        calls.send(reply_frame(serial, true, [](Writer &out) {
            put_all(out, std::vector<tav::Event>{{mlr_event_set, "/a"}});
        }));
        calls.closed();
    });
    Client client;
    EXPECT_EQ(client.fetch(), std::vector<std::string>{"2 /a"});
    EXPECT_TRUE(readable(client.fd())) << "the wake-up of a later event was swallowed";
    char byte = 0;
    EXPECT_EQ(::read(client.fd(), &byte, 1), 1);
    EXPECT_FALSE(readable(client.fd()));
    client.close();
}

TEST_F(LibraryTest, EventsComeInSeveralListsAndFrames) {
    FakeService fake(socket, [](RawPeer &calls, RawPeer & /*wake*/) {
        const std::uint32_t serial = serial_of(calls.receive());
        const auto frame = [serial](const std::vector<std::string> &paths) {
            return reply_frame(serial, false, [&paths](Writer &out) {
                for (const std::string &path : paths) {
                    put_all(out, std::vector<tav::Event>{{mlr_event_set, path}});
                }
            });
        };
        calls.send(tav::mark_more(frame({"/a", "/b"})));
        calls.send(frame({"/c"}));
        calls.closed();
    });
    Client client;
    EXPECT_EQ(client.fetch(), (std::vector<std::string>{"2 /a", "2 /b", "2 /c"}));
    client.close();
}

TEST_F(LibraryTest, AReplyThatDoesNotAcknowledgeLeavesTheByte) {
    FakeService fake(socket, [](RawPeer &calls, RawPeer &wake) {
        const std::uint32_t serial = serial_of(calls.receive());
        wake.send(std::string(1, tav::wake_byte));
        calls.send(reply_frame(serial, false, put_status));
        calls.closed();
    });
    Client client;
    EXPECT_EQ(client.watch("/a"), api_status_ok);
    EXPECT_TRUE(readable(client.fd()));
    client.close();
}

TEST_F(LibraryTest, AFetchBetweenTwoPingsKeepsTheNextByte) {
    FakeService fake(socket, [](RawPeer &calls, RawPeer &wake) {
        wake.send(std::string(2, tav::wake_byte)); // the second one belongs to a later event
        calls.receive();
        const std::uint32_t serial = serial_of(calls.receive());
        calls.send(reply_frame(serial, true, [](Writer &out) {
            put_all(out, std::vector<tav::Event>{{mlr_event_set, "/a"}});
        }));
        calls.closed();
    });
    Client client;
    ASSERT_TRUE(becomes_readable(client.fd()));
    client.ping();
    client.fetch();
    client.ping();
    EXPECT_TRUE(readable(client.fd()));
    client.close();
}

TEST_F(LibraryTest, AReplyThatIsTooLongIsRefused) {
    play_answer([](std::uint32_t serial) {
        return reply_frame(serial, false, [](Writer &out) {
            put_status(out);
            out.u8(0);
        });
    });
    expect_refused("malformed");
}

TEST_F(LibraryTest, AnOversizedFrameIsRefusedByItsLength) {
    play_answer([](std::uint32_t) { return std::string("\x7f\xff\xff\xff", 4); });
    expect_refused("too large");
}

TEST_F(LibraryTest, AConnectionThatEndsInTheMiddleOfAReplyIsLost) {
    FakeService fake(socket, [](RawPeer &calls, RawPeer &wake) {
        const std::string reply = reply_frame(serial_of(calls.receive()), false, put_status);
        calls.send(reply.substr(0, reply.size() - 1));
        calls.close();
        wake.close();
    });
    expect_refused("closed the connection");
}

TEST_F(LibraryTest, ATrickleOfBytesDoesNotProlongTheTimeLimit) {
    ::setenv("TAV_TIMEOUT_MS", "400", 1);
    FakeService fake(socket, [](RawPeer &calls, RawPeer &) {
        calls.receive();
        std::string frame = std::string("\0\x10\0\0", 4) + std::string(4096, 'x');
        // Far longer than the limit, unless the client gives up.
        for (const char byte : frame) {
            if (!calls.send(std::string(1, byte))) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    expect_refused("did not answer in time");
}

TEST_F(LibraryTest, MoreAnswersThanQuestionsTakeNoMemory) {
    play_answer([](std::uint32_t serial) {
        return reply_frame(serial, false, [](Writer &out) {
            constexpr std::uint32_t many = 12U << 20U; // one byte each
            out.u32(many);
            for (std::uint32_t i = 0; i < many; ++i) {
                put(out, api_status_absent);
            }
        });
    });
    Client client;
    const auto peak = [] {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss / 1024; // MiB
    };
    const auto before = peak();
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    EXPECT_LT(client.tav.get_leaves({"/a"}, statuses, values, properties), 0);
    EXPECT_LT(peak() - before, 300);
    client.close();
}
