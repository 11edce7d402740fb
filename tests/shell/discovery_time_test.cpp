// A discovery that makes no progress: the answer to a dump does not end.
#include <chrono>
#include <functional>

#include <linux/rtnetlink.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_os.h"
#include "shell/signals.h"
#include "sync/errors.h"

namespace {

using fake_libnl::datagram_t;
using std::chrono::milliseconds;
using std::chrono::seconds;

dump_watch::time_point the_time;

class DiscoveryTime : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        exit_pipe[0] = 80;
        os.select.arm();
        engine().dumps = dump_watch([] { return the_time; });
    }

    static std::function<void()> after(std::chrono::nanoseconds time) {
        return [time] { the_time += time; };
    }
    // A cycle that ends by time-out after this time.
    void quiet(std::chrono::nanoseconds time) { os.select.timeout(after(time)); }
    // A cycle that receives this datagram after this time.
    void receives(const fake_libnl::bytes_t &datagram, std::chrono::nanoseconds time) {
        fake_libnl::queue_datagram(datagram);
        os.select.ready({fake_libnl::state().fd}, after(time));
    }
    static datagram_t notice() { return datagram_t().link(RTM_NEWLINK, 5, "veth0"); }
    static datagram_t record() {
        return datagram_t().address(RTM_NEWADDR, 5, "2001:db8::1", 64, 0, NLM_F_MULTI);
    }
    // Discovery fails in the last of the cycles, and not before.
    void expect_failure() {
        EXPECT_EQ(thrown<sync_err>([this] { engine().run(); }),
                  "int CSync::run(): discovery did not end in time");
        EXPECT_EQ(os.select.left(), 0U);
    }

    fake_os::state_t &os = fake_os::state();
};

constexpr std::chrono::nanoseconds a_bit(1);
constexpr std::chrono::nanoseconds nearly = seconds(30) - a_bit;

TEST_F(DiscoveryTime, EndsThirtySecondsAfterARequestThatIsNotAnswered) {
    quiet(nearly);
    quiet(a_bit);
    expect_failure();
}

TEST_F(DiscoveryTime, IsNotProlongedByNotificationsOrErrors) {
    for (int i = 0; i < 9; ++i) {
        receives(notice(), seconds(3));
    }
    receives(datagram_t().error(-16, {RTM_GETLINK, 257, {}}), seconds(3));
    expect_failure();
}

TEST_F(DiscoveryTime, BeginsAgainWithEachRequest) {
    receives(datagram_t().done(), nearly);   // links; requests the addresses
    receives(datagram_t().done(-4), nearly); // incomplete: requests the addresses again
    receives(datagram_t().done(), nearly);   // requests the routes
    quiet(nearly);
    quiet(a_bit);
    expect_failure();
    EXPECT_EQ(fake_libnl::state().requests.size(), 4U);
}

TEST_F(DiscoveryTime, BeginsAgainWithEachDatagramOfTheDump) {
    receives(datagram_t().done(), nearly);
    for (int i = 0; i < 10; ++i) {
        receives(record(), nearly);
    }
    quiet(nearly);
    quiet(a_bit);
    expect_failure();
}

// The lines of one datagram's records can take longer than thirty seconds on a slow console.
TEST_F(DiscoveryTime, BeginsWhenADatagramIsHandledNotWhenItArrives) {
    verbosity = 3;
    engine().dumps = dump_watch([] {
        const std::size_t lines = journal::count("log 6 Info: void CSync::nl_addr_update");
        return the_time + static_cast<int>(lines) * seconds(40);
    });
    receives(datagram_t().done(), seconds(1));
    receives(record(), seconds(1));
    quiet(nearly);
    quiet(a_bit);
    expect_failure();
}

TEST_F(DiscoveryTime, DoesNotLimitNormalOperation) {
    for (int i = 0; i < 3; ++i) {
        receives(datagram_t().done(), seconds(1));
    }
    quiet(seconds(31));
    quiet(std::chrono::hours(24));
    os.select.ready({80}, [] { exit_requested = 1; });
    EXPECT_EQ(engine().run(), 1);
}

} // namespace
