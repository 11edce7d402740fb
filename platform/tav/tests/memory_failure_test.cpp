// The whole service while memory is short: it lives on, serves again when there is memory, and has
// lost nothing.
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <cstdio>
#include <fstream>
#include <random>

#include "client/admin.h"

// A sanitizer has an allocator of its own.
#if !defined(__SANITIZE_ADDRESS__)

using namespace tavtest;

namespace {

class MemoryFailureTest : public StoreTest, public ::testing::WithParamInterface<std::size_t> {
protected:
    MemoryFailureTest() {
        prefix = preloading(TAV_MEMORY_PRELOAD, {"TAV_MEMORY_FAULT=" + plan});
        ::setenv("TAV_TIMEOUT_MS", "10000", 1);
    }

    // Any call, with any result.
    void call(toolkit::CTav &tav, unsigned number) {
        const std::string path =
            "/n/" + std::to_string(random() % 20) + "/" + std::string(100, 'x');
        const std::string leaf = path + "/" + std::to_string(random() % 5);
        const toolkit::CElement value(std::to_string(number) + std::string(100, 'v'), -1);
        api_status_t status = api_status_none;
        std::vector<toolkit::child_t> children;
        std::vector<toolkit::CEvent> events;
        std::vector<tav::DumpElement> elements;
        toolkit::CElement read;
        element_property_t property = element_property_none;
        tav::ServiceStatus service;
        switch (random() % 10) {
        case 0:
            tav.remove_node(path, status, "");
            break;
        case 1:
            tav.list_node("/n", status, children);
            break;
        case 2:
            tav.event_register("/", api_event_change, true, status);
            break;
        case 3:
            tav.events_get(events);
            break;
        case 4:
            tav.watchdog_register(status, "dog" + std::to_string(number), 1, true);
            break;
        case 5:
            tav.watchdog_ping(status);
            break;
        case 6:
            tav::dump(tav.handle, "/", status, elements);
            break;
        case 7:
            tav::service_status(tav.handle, service);
            break;
        case 8:
            tav.get_leaf(leaf, status, read, property);
            break;
        default:
            tav.set_leaf(leaf, value, status, mlr_tribool_unset, "");
            break;
        }
    }

    const std::string plan = dir.file("plan");
    std::mt19937 random{1};
};

using NoMemoryTest = StoreTest;

} // namespace

TEST_P(MemoryFailureTest, TheServiceLivesOnAndLosesNothing) {
    const std::vector<std::string> on_disk{"--database", dir.file("store.db"), "--durability",
                                           "normal"};
    start(on_disk);
    std::ofstream(plan) << std::string(GetParam(), 'x');
    std::vector<std::unique_ptr<Client>> clients(3);
    for (unsigned number = 0; number < 300; ++number) {
        std::unique_ptr<Client> &client = clients[random() % clients.size()];
        if (!client || random() % 20 == 0) {
            client = std::make_unique<Client>();
        }
        call(client->tav, number);
    }
    ASSERT_EQ(std::remove(plan.c_str()), 0);
    ASSERT_TRUE(tavd->running()) << "ended by " << tavd->wait() << "\n" << tavd->errors();
    Client client;
    ASSERT_TRUE(client.connected()) << tavd->errors();
    EXPECT_EQ(client.set("/after", "1"), api_status_ok);
    client.close();
    const std::string before = tav({"dump"}).output;
    EXPECT_EQ(stop(), 0);
    start(on_disk);
    EXPECT_EQ(tav({"dump"}).output, before);
}

// Its last frame once needed memory outside of any request, and the service ended.
TEST_F(NoMemoryTest, AClientIsDisconnectedAllTheSame) {
    const std::string plan = dir.file("plan");
    prefix = preloading(TAV_MEMORY_PRELOAD, {"TAV_MEMORY_FAULT=" + plan});
    start();
    RawPeer stranger(socket); // does not say who it is
    EXPECT_TRUE(Client().connected()) << "and so the first one is accepted, too";
    std::ofstream(plan) << "x";
    EXPECT_TRUE(stranger.closed());
    ASSERT_EQ(std::remove(plan.c_str()), 0);
    EXPECT_TRUE(Client().connected()) << tavd->errors();
}

INSTANTIATE_TEST_SUITE_P(EveryNth, MemoryFailureTest,
                         ::testing::Values(1, 2, 3, 5, 7, 11, 19, 31, 53, 97, 197, 397));

#endif
