// Which client is served when: the service's loop with real connections and a clock that the test
// moves. What clients send while the loop does not run has arrived when it reads for the first
// time.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>

#include "protocol/limits.h"
#include "service/server.h"

using namespace tavtest;
using tav::Op;
using tav::Writer;
namespace limits = tav::limits;

namespace {

constexpr int share = limits::requests_per_second / 10;
constexpr int share_milliseconds = 100;

class TurnsTest : public StoreTest {
protected:
    TurnsTest()
        : service(store, "", [this] { return tav::Time(std::chrono::milliseconds(milliseconds)); }),
          listener(socket), end(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        listener.listen(0660);
        server = std::make_unique<tav::Server>(service, listener, end.get(),
                                               tav::Rights{::geteuid(), {}, {}});
        while_served([this] {
            first = std::make_unique<RawClient>(socket);
            second = std::make_unique<RawClient>(socket);
        });
    }

    // Runs the loop until `what` is done.
    void while_served(const std::function<void()> &what) {
        std::thread loop([this] { server->run(); });
        what();
        const std::uint64_t one = 1;
        EXPECT_EQ(::write(end.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
        loop.join();
        std::uint64_t value = 0;
        EXPECT_EQ(::read(end.get(), &value, sizeof value), static_cast<ssize_t>(sizeof value));
    }

    // Writes one number after the other.
    static void send_writes(const RawClient &client, int from, int to) {
        std::string frames;
        for (int i = from; i <= to; ++i) {
            frames += request_frame(Op::transact, [i](Writer &out) {
                put_all(out, std::vector<tav::Item>{
                                 {tav::ItemKind::set,
                                  "/n",
                                  {element_type_integer, std::to_string(i), tav::no_time}}});
            });
        }
        ASSERT_TRUE(client.calls.send(frames));
    }
    static void send_reads(const RawClient &client, int number) {
        std::string frames;
        for (int i = 0; i < number; ++i) {
            frames += request_frame(
                Op::read, [](Writer &out) { put_all(out, std::vector<std::string>{"/n"}); });
        }
        ASSERT_TRUE(client.calls.send(frames));
    }
    static void take_replies(RawClient &client, int number) {
        for (int i = 0; i < number; ++i) {
            ASSERT_FALSE(client.calls.receive().empty()) << i;
        }
    }
    // The values found by `count` reads.
    static std::vector<int> take_numbers(RawClient &client, int number) {
        std::vector<int> found;
        for (int i = 0; i < number; ++i) {
            const std::string body = client.calls.receive();
            tav::Reader reader(body);
            tav::ReplyHeader header;
            std::vector<tav::LeafAnswer> answers;
            get(reader, header);
            get_all(reader, answers);
            const bool there = answers.size() == 1 && answers[0].status == api_status_ok;
            found.push_back(there ? std::stoi(answers[0].value.text) : -1);
        }
        return found;
    }

    tav::LimitStatus rate() {
        return service.usage().status().at(static_cast<std::size_t>(tav::Limit::request_rate));
    }

    // In parts that fit a socket's buffer, each served before the next.
    void use_up_share(RawClient &client) {
        while_served([&] {
            for (int done = 0; done < share; done += 100) {
                send_writes(client, done + 1, done + 100);
                take_replies(client, 100);
            }
        });
    }

    std::atomic<int> milliseconds{1000000}; // not every processor has 64-bit atomics
    tav::Store store;
    tav::Service service;
    tav::Listener listener;
    tav::UniqueFd end;
    std::unique_ptr<tav::Server> server;
    std::unique_ptr<RawClient> first;
    std::unique_ptr<RawClient> second;
};

} // namespace

TEST_F(TurnsTest, AClientThatIsAloneIsServedBeyondItsShare) {
    // Other clients are connected, and were just served.
    send_reads(*second, 1);
    while_served([&] { take_replies(*second, 1); });
    for (int i = 0; i < 3; ++i) {
        use_up_share(*first);
    }
    EXPECT_EQ(rate().refused, 0U);
    EXPECT_EQ(rate().used, 3U * limits::requests_per_second) << "the clock does not move";
}

TEST_F(TurnsTest, AClientThatHasUsedItsShareComesAfterAllOthers) {
    use_up_share(*first);
    send_writes(*first, 10001, 10010);
    send_reads(*second, 20);
    std::vector<int> found;
    while_served([&] {
        found = take_numbers(*second, 20);
        take_replies(*first, 10);
    });
    EXPECT_EQ(found, std::vector<int>(20, share)) << "a request of the first one was served before";
    EXPECT_GT(rate().refused, 0U);
}

TEST_F(TurnsTest, ANewShareBeginsSoon) {
    use_up_share(*first);
    milliseconds += share_milliseconds;
    send_writes(*first, 10001, 10010);
    send_reads(*second, 20);
    std::vector<int> found;
    while_served([&] {
        found = take_numbers(*second, 20);
        take_replies(*first, 10);
    });
    EXPECT_EQ(found.back(), 10010) << "they take turns again";
    EXPECT_EQ(rate().refused, 0U);
}

TEST_F(TurnsTest, ClientsThatHaveAllUsedTheirShareTakeTurns) {
    use_up_share(*first);
    use_up_share(*second);
    send_writes(*first, 10001, 10010);
    send_reads(*second, 20);
    std::vector<int> found;
    while_served([&] {
        found = take_numbers(*second, 20);
        take_replies(*first, 10);
    });
    EXPECT_GE(found[9], 10009);
    EXPECT_EQ(rate().refused, 0U);
}

TEST_F(TurnsTest, HalfARequestDelaysNoOtherClient) {
    use_up_share(*first);
    send_writes(*first, 10001, 10010);
    ASSERT_TRUE(second->calls.send(request_frame(Op::watchdog_ping).substr(0, 2)));
    while_served([&] { take_replies(*first, 10); });
    EXPECT_EQ(rate().refused, 0U);
}

TEST_F(TurnsTest, APingAndTheRequestAfterItAreOneTurn) {
    ASSERT_TRUE(first->calls.send(request_frame(Op::watchdog_ping)));
    send_writes(*first, 7, 8);
    send_reads(*second, 1);
    while_served([&] {
        take_replies(*first, 2);
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{7});
    });
}

TEST_F(TurnsTest, ManyPingsDelayNoOtherClient) {
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(first->calls.send(request_frame(Op::watchdog_ping)));
    }
    send_writes(*first, 7, 7);
    send_reads(*second, 1);
    while_served([&] {
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{-1});
        take_replies(*first, 1);
    });
}
