// Which client is served when: the service's loop with real connections and a clock that the test
// moves. What clients send while the loop does not run has arrived when it reads for the first
// time.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "protocol/limits.h"
#include "service/server.h"

using namespace tavtest;
using tav::Op;
using tav::Writer;
namespace limits = tav::limits;

namespace {

std::atomic<int> trims{0};
std::atomic<int> looks{0};
std::atomic<int> waits{0}; // looks for which nothing came in time
std::atomic<int> unwatched{0};
std::function<void(int)> at_look; // called before the look of this number

} // namespace

// Replaces that of the C library, which gives memory back to the system.
extern "C" int malloc_trim(std::size_t /*pad*/) {
    return ++trims;
}

// Replaces that of the C library, which the service looks for requests with.
extern "C" int epoll_wait(int epoll, epoll_event *events, int size, int most) {
    const int look = ++looks;
    if (at_look) {
        at_look(look);
    }
    const int ready = ::epoll_pwait(epoll, events, size, most, nullptr);
    waits += ready == 0 && most != 0 ? 1 : 0;
    return ready;
}

// The same for a descriptor that is to be watched: it fails so many times.
extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) {
    if (operation == EPOLL_CTL_ADD && unwatched > 0) {
        --unwatched;
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

namespace {

// In memory, but its commits may be left to another thread.
class SlowStorage : public tav::NoStorage {
public:
    bool is_slow(const tav::Edit::Changes & /*changes*/) const override { return slow; }
    std::atomic<bool> slow{false};
};

// While there is one, no thread can be created.
class NoThreads {
public:
    NoThreads() {
        pthread_attr_t attributes{};
        EXPECT_EQ(::pthread_getattr_default_np(&attributes), 0);
        EXPECT_EQ(::pthread_attr_getstacksize(&attributes, &stack), 0);
        set(SIZE_MAX / 2);
    }
    ~NoThreads() { set(stack); }
    NoThreads(const NoThreads &) = delete;
    NoThreads &operator=(const NoThreads &) = delete;

private:
    static void set(std::size_t size) {
        pthread_attr_t attributes{};
        EXPECT_EQ(::pthread_attr_init(&attributes), 0);
        EXPECT_EQ(::pthread_attr_setstacksize(&attributes, size), 0);
        EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
    }

    std::size_t stack = 0;
};

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

    // A third client uses so much time that the credit of both is the same, however long their
    // connecting took.
    void have_used_the_same() {
        while_served([this] {
            RawClient third(socket);
            send_pings(third, 4000);
            send_reads(third, 1);
            take_replies(third, 1);
        });
    }

    static tav::Item item(const std::string &path, const std::string &number) {
        return {tav::ItemKind::set, path, {element_type_integer, number, tav::no_time}};
    }
    // Writes one number after the other.
    static void send_writes(const RawClient &client, int from, int to) {
        std::string frames;
        for (int i = from; i <= to; ++i) {
            frames += write_frame({item("/n", std::to_string(i))});
        }
        ASSERT_TRUE(client.calls.send(frames));
    }
    static void send_pings(const RawClient &client, int number) {
        for (int i = 0; i < number; ++i) {
            ASSERT_TRUE(client.calls.send(request_frame(Op::watchdog_ping)));
        }
    }
    static void send_reads(const RawClient &client, int number) {
        std::string frames;
        for (int i = 0; i < number; ++i) {
            frames += read_frame({"/n"});
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

    std::atomic<int> milliseconds{1000000}; // not every processor has 64-bit atomics
    SlowStorage *storage = new SlowStorage;
    tav::Store store{std::unique_ptr<tav::Storage>(storage)};
    tav::Service service;
    tav::Listener listener;
    tav::UniqueFd end;
    std::unique_ptr<tav::Server> server;
    std::unique_ptr<RawClient> first;
    std::unique_ptr<RawClient> second;
};

} // namespace

// A transaction of many items takes many slices of time.
TEST_F(TurnsTest, ALongTransactionDelaysNoReader) {
    std::vector<tav::Item> items{item("/n", "7")};
    while (items.size() < limits::paths_per_request) {
        items.push_back(item("/x/" + std::to_string(items.size()), "1"));
    }
    bool asked = false;
    at_look = [&](int /*look*/) {
        if (!asked && service.may_precede() != nullptr) { // the transaction is at work
            asked = true;
            send_reads(*second, 1);
        }
    };
    while_served([&] {
        first->calls.send(write_frame(items));
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{-1});
        take_replies(*first, 1);
        send_reads(*second, 1);
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{7});
    });
    at_look = nullptr;
}

// A registration waits for the transaction, which would otherwise wait for each of its user's
// other connections between its turns.
TEST_F(TurnsTest, ATransactionThatOthersWaitForGetsEverySecondTurn) {
    const auto leaves = [](const std::string &stem, int number) {
        std::vector<tav::Item> items;
        for (int i = 0; i < number; ++i) {
            items.push_back(item(stem + std::to_string(i), "1"));
        }
        return write_frame(items);
    };
    const std::string dump = path_frame(Op::dump, "/");
    std::vector<std::unique_ptr<RawClient>> readers;
    std::vector<std::thread> threads;
    std::atomic<int> frames{0}; // of their dumps
    while_served([&] {
        ASSERT_TRUE(first->calls.send(leaves("/first", limits::paths_per_request)));
        take_replies(*first, 1);
        for (int i = 0; i < 20; ++i) {
            readers.push_back(std::make_unique<RawClient>(socket));
            for (int again = 0; again < 10; ++again) {
                ASSERT_TRUE(readers.back()->calls.send(dump));
            }
            threads.emplace_back([&frames, &reader = *readers.back()] {
                while (!reader.calls.receive().empty()) {
                    ++frames;
                }
            });
        }
        ASSERT_TRUE(first->calls.send(leaves("/second", limits::paths_per_request)));
    });
    while (!service.busy()) {
        // On one processor it would otherwise end before it has begun.
        while_served([] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
    }
    ASSERT_TRUE(second->calls.send(request_frame(Op::event_register, [](Writer &out) {
        put(out, tav::Registration{"/", api_event_change, false});
    })));
    frames = 0;
    while_served([&] { take_replies(*second, 1); });
    EXPECT_LT(frames, 120) << "each reader had as many turns as the transaction";
    for (std::size_t i = 0; i < readers.size(); ++i) {
        ::shutdown(readers[i]->calls.fd(), SHUT_RDWR);
        threads[i].join();
    }
}

TEST_F(TurnsTest, ManyPingsDelayNoOtherClient) {
    have_used_the_same();
    send_pings(*first, 10);
    send_writes(*first, 7, 7);
    send_reads(*second, 1);
    while_served([&] {
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{-1});
        take_replies(*first, 1);
    });
}

TEST_F(TurnsTest, AClientThatSendsAheadIsServedInTurnWithTheOthers) {
    have_used_the_same();
    send_writes(*first, 1, 1000);
    send_reads(*second, 1);
    while_served([&] {
        EXPECT_LT(take_numbers(*second, 1).front(), 10)
            << "requests of the flood were served first";
        take_replies(*first, 1000);
        send_reads(*second, 1);
        EXPECT_EQ(take_numbers(*second, 1), std::vector<int>{1000}) << "none of them is refused";
    });
}

// Only large requests once had memory given back, so that the answers that clients had not taken
// stayed when these left.
TEST_F(TurnsTest, MemoryIsGivenBackFiveSecondsAfterAnythingWasDone) {
    constexpr int pause = 5000;
    const auto serve = [this] {
        while_served([this] {
            send_reads(*first, 1);
            take_replies(*first, 1);
        });
    };
    const auto wait_for_trims = [this](int number) {
        while_served([number] {
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (trims < number && std::chrono::steady_clock::now() < limit) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        EXPECT_EQ(trims, number);
    };
    milliseconds += pause;
    wait_for_trims(trims + 1); // after the connections
    trims = 0;
    serve();
    milliseconds += pause - 1;
    serve();
    EXPECT_EQ(trims, 0);
    milliseconds += 1;
    wait_for_trims(1);
    second.reset();
    serve();
    milliseconds += pause;
    wait_for_trims(2);
    // Without anything to do the service sleeps.
    milliseconds += 10 * pause;
    const int before = looks;
    while_served([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    EXPECT_EQ(looks, before + 1);
    EXPECT_EQ(trims, 2);
}

// With 5,000 requests that have already been received, the service once looked for others only
// every 2 ms. On a busy machine it looks more often for each request, not less.
TEST_F(TurnsTest, AClientThatSendsManyRequestsDelaysNoOther) {
    constexpr int requests = 20000;
    looks = 0;
    while_served([&] {
        std::thread sender([&] { send_reads(*first, requests); });
        take_replies(*first, requests);
        sender.join();
    });
    EXPECT_GT(looks, requests / 100);
}

// The service once read the request again after its memory had been freed.
TEST_F(TurnsTest, AWriterThatLeavesWhileItWaitsIsForgotten) {
    constexpr tav::SessionId another = 100;
    ASSERT_TRUE(service.take_turn(another));
    const std::string small = write_frame(std::vector<tav::Item>(65, item("/n", "1")));
    tav::Item large = item("/n", "1");
    large.value = {element_type_string, std::string(limits::value_bytes, 'v'), tav::no_time};
    for (const std::string &frame : {small, write_frame(std::vector<tav::Item>(254, large))}) {
        std::unique_ptr<RawClient> leaving;
        while_served([&] {
            leaving = std::make_unique<RawClient>(socket);
            ASSERT_TRUE(leaving->calls.send(frame));
        });
        while (!service.others_wait()) {
            while_served([] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
        }
        leaving.reset();
        while_served([this] {
            send_reads(*first, 1);
            take_replies(*first, 1);
        });
        EXPECT_EQ(service.sessions().size(), 2U);
        EXPECT_FALSE(service.others_wait());
        service.writers(1, true);
        EXPECT_TRUE(service.short_ones_wait());
        service.writers(-1, true);
    }
    service.end_turn();
}

// Nobody once noticed the end of the commit after one for which there was no thread.
TEST_F(TurnsTest, WritesContinueAfterACommitForWhichThereWasNoThread) {
    const timeval limit{10, 0};
    ::setsockopt(first->calls.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    storage->slow = true;
    while_served([this] {
        {
            const NoThreads none;
            EXPECT_THROW(std::thread([] {}), std::system_error);
            send_writes(*first, 1, 1);
            take_replies(*first, 1);
        }
        send_writes(*first, 2, 3);
        take_replies(*first, 2);
    });
}

// When the only client that was being served left, what waited for it once went on only at the next
// timer.
TEST_F(TurnsTest, AWriteContinuesAsSoonAsTheTransactionThatItWaitsForIsGone) {
    // It takes long, and leaves little memory to give back, which would keep the loop going.
    const std::string same =
        write_frame(std::vector<tav::Item>(limits::paths_per_request, item("/n", "1")));
    const std::string waiting = write_frame(std::vector<tav::Item>(65, item("/second", "1")));
    std::atomic<bool> sent{false};
    std::atomic<bool> left{false};
    at_look = [&](int /*look*/) {
        if (!sent && service.may_precede() != nullptr) { // the transaction is at work
            sent = true;
            second->calls.send(waiting);
        } else if (!left && service.others_wait()) {
            left = true;
            waits = 0;
            ::shutdown(first->wake.fd(), SHUT_RDWR);
        }
    };
    while_served([&] {
        while (!left) { // on a busy machine the transaction may end before the other has its turn
            sent = false;
            ASSERT_TRUE(first->calls.send(same));
            take_replies(*second, 1);
        }
    });
    at_look = nullptr;
    EXPECT_EQ(service.sessions().size(), 1U);
    EXPECT_EQ(waits, 0);
}

// The first commit on the other thread once ended the service if it could not be watched.
TEST_F(TurnsTest, ACommitThatCannotBeWatchedIsWaitedFor) {
    const timeval limit{10, 0};
    ::setsockopt(first->calls.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    storage->slow = true;
    while_served([this] {
        unwatched = 2;
        send_writes(*first, 1, 1);
        take_replies(*first, 1);
        send_writes(*first, 2, 4);
        take_replies(*first, 3);
    });
    EXPECT_EQ(unwatched, 0);
}
