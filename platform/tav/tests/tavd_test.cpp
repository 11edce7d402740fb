// The service as a process: start, exit, what survives, and clients that misbehave.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>

#include "client/admin.h"
#include "protocol/limits.h"

using namespace tavtest;
using tav::Op;
using tav::Writer;

namespace {

using Names = std::vector<std::string>;

class TavdTest : public StoreTest {
protected:
    std::string database = dir.file("store.db");
    Names on_disk{"--database", database};
    Ran second(const Names &arguments) { return run(dir, tavd_arguments(arguments)); }
};

} // namespace

TEST_F(TavdTest, ItExitsCleanlyOnSigtermAndRemovesItsSocket) {
    start();
    EXPECT_TRUE(exists(socket));
    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(exists(socket));
    EXPECT_FALSE(exists(socket + ".lock"));
    EXPECT_FALSE(exists(socket + ".new"));
}

TEST_F(TavdTest, ItEndsCleanlyOnSigintToo) {
    start();
    tavd->signal(SIGINT);
    EXPECT_EQ(tavd->wait(), 0);
}

TEST_F(TavdTest, TheSocketOptionGoesBeforeTheEnvironment) {
    const std::string other = dir.file("a/b/c/other");
    tavd = std::make_unique<Process>(dir, "tavd", tavd_arguments({"--memory", "--socket", other}));
    EXPECT_TRUE(tavd->wait_for_error_text("serving on " + other));
    EXPECT_TRUE(exists(other));
    EXPECT_FALSE(exists(socket));
}

TEST_F(TavdTest, TheSocketHasTheModeAskedFor) {
    start({"--memory", "--socket-mode", "0600"});
    struct stat info {};
    ASSERT_EQ(::stat(socket.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(TavdTest, ASecondServiceIsRefusedAndSaysWhy) {
    start(on_disk);
    for (const Names &arguments : {Names{"--memory"}, on_disk}) {
        EXPECT_EQ(refused(arguments), "tavd: another tavd is serving at '" + socket + "'\n");
    }
    Client client;
    EXPECT_EQ(client.set("/a", "1"), api_status_ok);
    EXPECT_EQ(stop(), 0);
}

TEST_F(TavdTest, ASecondServiceIsRefusedAlsoWhileTheFirstHangs) {
    start();
    tavd->signal(SIGSTOP);
    EXPECT_EQ(second({"--memory"}).status, 1);
    tavd->signal(SIGCONT);
    EXPECT_TRUE(Client().connected());
}

TEST_F(TavdTest, SomebodyElsesServiceIsNotReplaced) {
    const tav::UniqueFd other = listen_at(socket);
    EXPECT_TRUE(has(refused({"--memory"}), "another service is serving"));
    EXPECT_FALSE(exists(socket + ".lock"));
    EXPECT_TRUE(exists(socket));
}

TEST_F(TavdTest, ADirectoryThatOthersCanWriteToIsRefused) {
    const std::string directory = dir.file("run");
    ::mkdir(directory.c_str(), 0700);
    const std::string refusal =
        "tavd: socket '" + socket + "': other users can write to directory '" + directory + "': ";
    for (const mode_t mode : {01777U, 0777U, 0770U}) {
        ::chmod(directory.c_str(), mode);
        EXPECT_EQ(
            refused({"--memory"}),
            refusal +
                (mode == 01777
                     ? "use one inside it, which is created, such as '" + directory + "/tavd'\n"
                     : "use another one, or let only root or this user own it and write "
                       "to it\n"));
    }
    ::chmod(directory.c_str(), 0711);
    start();
    if (::geteuid() == 0 && ::chown(directory.c_str(), 54321, 0) == 0) {
        EXPECT_EQ(stop(), 0);
        EXPECT_EQ(second({"--memory"}).status, 1) << "its owner can write to it";
    }
}

TEST_F(TavdTest, TheLockIsNoLink) {
    ::mkdir(dir.file("run").c_str(), 0700);
    ASSERT_EQ(::symlink(dir.file("elsewhere").c_str(), (socket + ".lock").c_str()), 0);
    EXPECT_TRUE(has(refused({"--memory"}), "cannot open '" + socket + ".lock'"));
    EXPECT_FALSE(exists(dir.file("elsewhere")));
}

TEST_F(TavdTest, TheEndOfAServiceLeavesTheFilesOfAnother) {
    start();
    const std::unique_ptr<Process> first = std::move(tavd);
    for (const char *suffix : {"", ".lock"}) {
        ASSERT_EQ(::rename((socket + suffix).c_str(), dir.file("moved").c_str()), 0);
    }
    start();
    first->signal(SIGTERM);
    EXPECT_EQ(first->wait(), 0);
    EXPECT_TRUE(exists(socket + ".lock"));
    EXPECT_TRUE(Client().connected());
    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(exists(socket));
    EXPECT_FALSE(exists(socket + ".lock"));
}

TEST_F(TavdTest, ADatabaseInUseIsRefused) {
    start(on_disk);
    EXPECT_TRUE(has(refused({"--database", database, "--socket", dir.file("other")}),
                    "'" + database + "' is in use by another process"));
    EXPECT_FALSE(exists(dir.file("other")));
}

TEST_F(TavdTest, TheSocketOfADeadServiceIsReplaced) {
    start();
    tavd->signal(SIGKILL);
    EXPECT_EQ(tavd->wait(), 1000 + SIGKILL);
    ASSERT_TRUE(exists(socket));
    start();
    EXPECT_TRUE(Client().connected());
}

TEST_F(TavdTest, AFileThatIsNoSocketIsNotReplaced) {
    ::mkdir(dir.file("run").c_str(), 0755);
    std::ofstream(socket) << "precious";
    EXPECT_TRUE(has(refused({"--memory"}), "is not a socket"));
    EXPECT_EQ(read_file(socket), "precious");
}

TEST_F(TavdTest, UsageIsPrintedAndMistakesAreRefused) {
    const Ran help = second({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(has(help.output, "Usage: tavd"));
    EXPECT_EQ(second({"--version"}).output, "tavd " TAV_VERSION "\n");
    for (const Names &wrong : {Names{}, Names{"--memory", "--database", database}, Names{"--what"},
                               Names{"--memory", "more"}, Names{"--memory", "--socket-mode", "9"},
                               Names{"--memory", "--durability", "full"},
                               Names{"--database", database, "--durability", "some"},
                               Names{"--memory", "--initial-node", "no/path"}}) {
        EXPECT_EQ(second(wrong).status, 2);
    }
    EXPECT_FALSE(exists(database));
}

TEST_F(TavdTest, InitialNodesAreThereInAFreshStoreOnly) {
    const Names nodes{"--initial-node", "/a b/c", "--initial-node", "/d"};
    Names in_memory{"--memory"};
    Names in_file = on_disk;
    in_memory.insert(in_memory.end(), nodes.begin(), nodes.end());
    in_file.insert(in_file.end(), nodes.begin(), nodes.end());
    const std::string everything = "/\n  a b\n    c\n  d\n";
    for (const Names &arguments : {in_memory, in_file}) {
        start(arguments);
        EXPECT_EQ(tav({"tree"}).output, everything);
        EXPECT_EQ(tav({"rm", "/d"}).status, 0);
        EXPECT_EQ(stop(), 0);
    }
    start(in_file);
    EXPECT_EQ(tav({"ls"}).output, "a b\n");
    EXPECT_EQ(stop(), 0);
    start(on_disk);
    EXPECT_EQ(tav({"ls"}).output, "a b\n") << "what is there stays without the option, too";
}

// What survives

TEST_F(TavdTest, EverythingIsThereAfterARestart) {
    start(on_disk);
    EXPECT_EQ(tav({"set", "/a/b", "text", "/a/\x01\xff", "\n\xfe"}).status, 0);
    EXPECT_EQ(tav({"set", "-t", "integer", "/i", "-5"}).status, 0);
    EXPECT_EQ(tav({"mknode", "/empty/node"}).status, 0);
    const std::string before = tav({"dump"}).output;
    EXPECT_EQ(stop(), 0);
    start(on_disk);
    EXPECT_EQ(tav({"dump"}).output, before);
    EXPECT_TRUE(has(before, "/empty/node"));
}

TEST_F(TavdTest, AWriteThatChangesNothingDoesNotReachTheDisk) {
    start(on_disk);
    Client client;
    client.set_all({"/a", "/b"}, {"1", "1"});
    const std::string before = read_file(database + "-wal");
    for (int i = 0; i < 10; ++i) {
        client.set_all({"/a", "/b"}, {"1", "1"});
        tav({"touch", "/a"});
    }
    EXPECT_EQ(read_file(database + "-wal"), before);
    client.set("/a", "2");
    EXPECT_NE(read_file(database + "-wal"), before);
}

TEST_F(TavdTest, TheMemoryOfTheSettingsIsLimited) {
    start({"--memory", "--max-bytes", "100K"});
    Client client;
    EXPECT_EQ(client.set("/a", std::string(60000, 'x')), api_status_ok);
    EXPECT_EQ(client.set("/b", std::string(60000, 'x')), api_status_too_many_bytes);
    EXPECT_EQ(client.set("/a", ""), api_status_ok);
    EXPECT_EQ(client.set("/b", std::string(60000, 'x')), api_status_ok);
    EXPECT_TRUE(has(tav({"status"}).output, "bytes in all"));
    for (const char *number : {"", "0", "x", "1T", "1KK", "-1", "99999999999999999999", "1 "}) {
        const auto result = second({"--memory", "--max-bytes", number});
        EXPECT_EQ(result.status, 2) << number;
        EXPECT_TRUE(has(result.errors, "is not a number of bytes")) << number;
    }
}

TEST_F(TavdTest, AWriteBeyondTheLimitOfTheFileSizeIsRefused) {
    prefix = {"/bin/sh", "-c", "ulimit -f 2000 && exec \"$0\" \"$@\""}; // about a megabyte
    start(on_disk);
    Client client;
    const auto write = [&client](int i) {
        return client.set("/" + std::to_string(i), std::string(60000, 'x'));
    };
    int stored = 0;
    while (stored < 100 && write(stored) == api_status_ok) {
        ++stored;
    }
    EXPECT_LT(stored, 100);
    EXPECT_EQ(client.list("/").size(), static_cast<std::size_t>(stored));
}

// Clients that misbehave

namespace {

constexpr const char *no_request = "the client sent an invalid request";

class MisbehaviourTest : public TavdTest {
protected:
    void SetUp() override {
        start();
        good = std::make_unique<Client>();
        good->watch("/", true);
    }
    void TearDown() override {
        EXPECT_EQ(good->set("/still/serving", "yes"), api_status_ok);
        EXPECT_EQ(good->get("/still/serving"), "yes");
        EXPECT_TRUE(tavd->running());
        good->close();
        EXPECT_EQ(stop(), 0);
    }

    std::unique_ptr<Client> good;
};

} // namespace

namespace {

std::string random_bytes(std::mt19937 &random, std::size_t most) {
    std::string bytes(random() % (most + 1), '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// A request as a client could send it. Writes go below /junk.
std::string any_request(std::mt19937 &random) {
    const std::string path = "/junk/" + std::to_string(random() % 20);
    const Names requests{
        read_frame({path, "/junk"}),
        path_frame(Op::list, path),
        path_frame(Op::dump, "/junk"),
        path_frame(Op::read_ahead, "/junk"),
        write_frame({{tav::ItemKind::set, path, {element_type_string, "x", -1}}}),
        write_frame({{tav::ItemKind::remove, path, {}}}),
        request_frame(Op::events_get),
        request_frame(Op::ping_after_answers),
        request_frame(Op::event_register,
                      [&](Writer &out) {
                          put(out, tav::Registration{path, api_event_change, true});
                      }),
        request_frame(Op::watchdog_register, [](Writer &out) {
            put(out, tav::WatchdogRequest{"junk", 60, true});
        })};
    return requests[random() % requests.size()];
}

// Cut, altered in some bits, with another length, followed by other bytes, or unchanged.
std::string spoilt(std::mt19937 &random, std::string frame) {
    switch (random() % 5) {
    case 0:
        frame.resize(random() % frame.size());
        break;
    case 1:
        for (unsigned int i = 0; i <= random() % 4; ++i) {
            frame[random() % frame.size()] ^= static_cast<char>(1U << (random() % 8));
        }
        break;
    case 2:
        // Mostly a length that a frame may have.
        for (std::size_t i = random() % (tav::length_bytes + 1); i < tav::length_bytes; ++i) {
            frame[i] = static_cast<char>(random());
        }
        break;
    case 3:
        frame += random_bytes(random, 100);
        break;
    default:
        break;
    }
    return frame;
}

} // namespace

TEST_F(MisbehaviourTest, JunkEndsTheConnectionOnly) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
        if (random() % 2 == 0) {
            const RawPeer stranger(socket);
            stranger.send(random() % 3 == 0 ? random_bytes(random, 300)
                                            : spoilt(random, hello_frame()));
        } else {
            const RawClient client(socket);
            std::string frames;
            for (unsigned int i = 0; i <= random() % 3; ++i) {
                frames += spoilt(random, any_request(random));
            }
            client.calls.send(frames);
            client.wake.send(random() % 8 == 0 ? random_bytes(random, 10) : "");
        }
        EXPECT_EQ(good->set("/good", std::to_string(round)), api_status_ok);
        EXPECT_EQ(good->get("/good"), std::to_string(round));
    }
    // The service lets go of them all.
    tav::ServiceStatus status;
    do {
        ASSERT_EQ(tav::service_status(good->tav.handle, status), 0);
    } while (status.clients.size() > 1);
}

TEST_F(MisbehaviourTest, AnOversizedAnnouncementIsClosedAtOnce) {
    RawPeer stranger(socket);
    stranger.send("\xff\xff\xff\xff");
    EXPECT_EQ(stranger.farewell(), no_request);
    RawClient client(socket);
    client.calls.send("\xff\xff\xff\xff");
    EXPECT_EQ(client.calls.farewell(), no_request);
    EXPECT_TRUE(client.wake.closed());
}

TEST_F(MisbehaviourTest, AStrangerMustGreetProperly) {
    const auto hello = [](std::uint32_t magic, std::uint32_t version) {
        return request_frame(Op::hello, [=](Writer &out) { put(out, tav::Hello{magic, version}); });
    };
    for (const std::string &greeting :
         {read_frame({"/a"}), hello(1, 1), hello(tav::magic, tav::protocol_version + 1),
          attach_frame({1, 12345}), std::string("\0\0\0\0", 4)}) {
        RawPeer stranger(socket);
        stranger.send(greeting);
        EXPECT_EQ(stranger.farewell(), no_request);
    }
}

TEST_F(MisbehaviourTest, ATicketIsValidForOneWakeUpConnection) {
    RawClient client(socket);
    RawPeer third(socket);
    third.send(attach_frame(client.ticket));
    EXPECT_TRUE(third.closed());
    client.calls.send(request_frame(Op::events_get));
    EXPECT_FALSE(client.calls.receive().empty());
}

TEST_F(MisbehaviourTest, AGuessedTicketIsRefused) {
    RawPeer calls(socket);
    const tav::Ticket ticket = calls.greet();
    RawPeer thief(socket);
    thief.send(attach_frame({ticket.session, ticket.token ^ 1U}));
    EXPECT_EQ(thief.farewell(), no_request);
    RawPeer owner(socket);
    owner.send(attach_frame(ticket));
    EXPECT_FALSE(owner.receive().empty());
}

TEST_F(MisbehaviourTest, ACallBeforeTheWakeUpConnectionIsRefused) {
    RawPeer calls(socket);
    calls.greet();
    calls.send(request_frame(Op::events_get));
    EXPECT_EQ(calls.farewell(), no_request);
}

TEST_F(MisbehaviourTest, MalformedRequestsAreRefusedWithoutHavingDoneAnything) {
    const auto set = [](Writer &out) {
        put_all(out, std::vector<tav::Item>{
                         {tav::ItemKind::set, "/evil", {element_type_string, "1", -1}}});
    };
    std::string cut = request_frame(Op::transact, set);
    cut.pop_back();
    cut[3] = static_cast<char>(cut[3] - 1);
    const std::vector<std::string> requests{
        cut,
        request_frame(Op::transact,
                      [&set](Writer &out) {
                          set(out);
                          out.u8(0);
                      }),
        request_frame(static_cast<Op>(99)),
        request_frame(Op::hello),
        request_frame(Op::read, [](Writer &out) { out.u32(0xffffffffU); }),
        request_frame(Op::watchdog_ping, [](Writer &out) { out.u8(1); }),
        request_frame(Op::events_get, [](Writer &out) { out.u8(1); }),
    };
    for (const std::string &request : requests) {
        RawClient client(socket);
        client.calls.send(request);
        EXPECT_EQ(client.calls.farewell(), no_request);
    }
    EXPECT_EQ(good->get("/evil"), "status 2");
}

TEST_F(MisbehaviourTest, RequestsMayArriveByteByByte) {
    RawClient client(socket);
    for (const char byte : path_frame(Op::list, "/")) {
        client.calls.send(std::string(1, byte));
    }
    EXPECT_FALSE(client.calls.receive().empty());
}

TEST_F(MisbehaviourTest, AClientThatDoesNotReadItsRepliesDelaysNoOther) {
    good->set_all({"/big"}, {std::string(65536, 'x')});
    RawClient deaf(socket);
    const timeval soon{0, 200000};
    ::setsockopt(deaf.calls.fd(), SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
    const std::string request = read_frame(Names(100, "/big"));
    int sent = 0;
    while (sent < 100000 && deaf.calls.send(request)) {
        ++sent;
    }
    // The service has stopped reading from it.
    EXPECT_LT(sent, 100000);
    EXPECT_EQ(good->get("/big").size(), 65536U);
}

TEST_F(MisbehaviourTest, TheLossOfOneConnectionEndsTheOther) {
    RawClient one(socket);
    one.wake.close();
    EXPECT_TRUE(one.calls.closed());
    RawClient two(socket);
    two.calls.close();
    EXPECT_TRUE(two.wake.closed());
}

// Watchdog

TEST_F(TavdTest, OverdueAndDisconnectedWatchdogsAreLoggedAndShown) {
    start();
    Client client;
    api_status_t status = api_status_none;
    ASSERT_EQ(client.tav.watchdog_register(status, "sleepy", 1, true), 0);
    EXPECT_TRUE(tavd->wait_for_error_text("watchdog 'sleepy' (process " +
                                          std::to_string(::getpid()) + ") is overdue"));
    EXPECT_TRUE(has(tav({"status"}).output, "overdue"));
    client.ping();
    EXPECT_TRUE(tavd->wait_for_error_text("pings again"));
    client.close();
    EXPECT_TRUE(tavd->wait_for_error_text("disconnected"));
    EXPECT_TRUE(has(tav({"status"}).output, "gone"));
}
