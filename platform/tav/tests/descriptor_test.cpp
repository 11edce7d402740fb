// The descriptor that a client waits on, against the real service. No test here depends on speed:
// times are compared with lower bounds only.
#include "support/store_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace tavtest;

namespace {

using Names = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class DescriptorTest : public RunningStoreTest {
protected:
    void SetUp() override {
        RunningStoreTest::SetUp();
        client = std::make_unique<Client>();
        writer = std::make_unique<Client>();
        client->watch("/n", false);
        client->settle();
    }

    void change() { writer->set("/n/" + std::to_string(++number), "x"); }

    std::unique_ptr<Client> client;
    std::unique_ptr<Client> writer;
    int number = 0;
};

} // namespace

TEST_F(DescriptorTest, AnEventMakesItReadableAndAFetchSilent) {
    EXPECT_FALSE(readable(client->fd()));
    change();
    ASSERT_TRUE(becomes_readable(client->fd()));
    EXPECT_EQ(client->fetch(), Names{"2 /n/1"});
    EXPECT_FALSE(readable(client->fd()));
}

TEST_F(DescriptorTest, OtherCallsLeaveItReadable) {
    change();
    ASSERT_TRUE(becomes_readable(client->fd()));
    client->get("/n/1");
    client->list("/n");
    client->set("/elsewhere", "x");
    client->ping();
    EXPECT_TRUE(readable(client->fd()));
}

TEST_F(DescriptorTest, APingDoesNotSilenceAByteThatThePreviousPingCannotHaveSeen) {
    for (int round = 0; round < 20; ++round) {
        client->ping();
        change();
        ASSERT_TRUE(becomes_readable(client->fd()));
        client->ping(); // the byte may have come after the wait before this ping
        ASSERT_TRUE(readable(client->fd()));
        client->settle();
    }
}

TEST_F(DescriptorTest, AClientThatDoesNotFetchIsNotWokenAfterTwoPings) {
    change();
    ASSERT_TRUE(becomes_readable(client->fd()));
    client->ping();
    client->ping();
    EXPECT_FALSE(readable(client->fd()));
    // Pings alone do not bring it back.
    std::this_thread::sleep_for(milliseconds(120));
    client->ping();
    std::this_thread::sleep_for(milliseconds(120));
    EXPECT_FALSE(readable(client->fd()));
    // A later fetch still delivers the events.
    EXPECT_EQ(client->fetch(), Names{"2 /n/1"});
}

TEST_F(DescriptorTest, AWriterAtFullSpeedDoesNotKeepItReadable) {
    std::atomic<bool> stop{false};
    std::thread busy([&stop] {
        Client fast;
        for (int i = 0; !stop; ++i) {
            fast.set("/n/busy", std::to_string(i));
        }
    });
    for (int round = 0; round < 6; ++round) {
        ASSERT_TRUE(becomes_readable(client->fd()));
        client->ping();
        const Clock::time_point before = Clock::now();
        client->ping(); // acknowledges
        ASSERT_TRUE(becomes_readable(client->fd()));
        EXPECT_GE(Clock::now() - before, milliseconds(50));
    }
    stop = true;
    busy.join();
    EXPECT_EQ(client->fetch(), Names{"2 /n/busy"});
}

TEST_F(DescriptorTest, EventsThatOnlyPingsAcknowledgedAreSignalledAgainByTheNextRequest) {
    change();
    ASSERT_TRUE(becomes_readable(client->fd()));
    client->ping();
    client->ping();
    ASSERT_FALSE(readable(client->fd()));
    client->list("/");
    ASSERT_TRUE(becomes_readable(client->fd()));
    EXPECT_EQ(client->fetch(), Names{"2 /n/1"});
}

TEST_F(DescriptorTest, AfterARequestTheNextWakeUpWaitsUntilTheClientWasQuiet) {
    for (int round = 0; round < 5; ++round) {
        const Clock::time_point before = Clock::now();
        client->list("/");
        change();
        ASSERT_TRUE(becomes_readable(client->fd()));
        EXPECT_GE(Clock::now() - before, milliseconds(50));
        client->settle();
    }
}

TEST_F(DescriptorTest, AClientThatIsNeverQuietIsStillWoken) {
    change();
    const Clock::time_point give_up = Clock::now() + milliseconds(patience_ms);
    while (!readable(client->fd())) {
        client->get("/n/1");
        ASSERT_LT(Clock::now(), give_up);
    }
    EXPECT_EQ(client->fetch(), Names{"2 /n/1"});
}

TEST_F(DescriptorTest, NothingIsLostUnderAStormOfWritesAndFetches) {
    constexpr int changes = 3000;
    std::thread storm([] {
        Client fast;
        for (int i = 1; i <= changes; ++i) {
            fast.set("/n/storm/" + std::to_string(i), "x");
        }
    });
    // The loop of a client in normal operation: wait, ping, fetch what the wait saw.
    int seen = 0;
    while (seen < changes) {
        if (!becomes_readable(client->fd())) {
            break;
        }
        client->ping();
        for (const std::string &event : client->fetch()) {
            EXPECT_EQ(event, "2 /n/storm/" + std::to_string(++seen));
        }
    }
    storm.join();
    EXPECT_EQ(seen, changes);
}

TEST_F(DescriptorTest, AClientThatNeverFetchesIsDisconnectedAndTheOthersAreNot) {
    std::string stem = "/n";
    for (int i = 0; i < 15; ++i) {
        stem += "/" + std::string(250, 'x');
    }
    for (int part = 0; part < 6; ++part) {
        EXPECT_EQ(writer->set_numbered(stem + "/" + std::to_string(part) + "-", 3000, "x"),
                  api_status_ok);
    }
    std::vector<toolkit::CEvent> events;
    EXPECT_LT(client->tav.events_get(events), 0);
    EXPECT_TRUE(tavd->wait_for_error_text("was disconnected: the client did not fetch its events"));
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_EQ(reports()[0].second,
              "connection to the settings service lost: the client did not fetch its events");
    EXPECT_EQ(writer->get(stem + "/0-0"), "x");
    EXPECT_TRUE(has(tav({"status"}).output, "overflows  1\n"));
}
