// A discovery that does not end: some dump was never answered to its end.
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <linux/rtnetlink.h>

#include "fakes/fake_libnl.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "netlink/channel.h"
#include "shell/run_loop.h"
#include "shell/signals.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

class DiscoveryTime : public DaemonTest {
protected:
    DiscoveryTime() {
        exit_pipe[0] = 80;
        os.select.arm();
        tav.handle = mlr_init();
        os.clock.set(hours(1000));
    }
    ~DiscoveryTime() override { mlr_close(tav.handle); }

    static std::function<void()> after(std::chrono::nanoseconds time) {
        return [time] { fake_os::state().clock.advance(time); };
    }
    // A cycle that ends by time-out after this time.
    void quiet(std::chrono::nanoseconds time) { os.select.timeout(after(time)); }
    // One that receives this datagram after this time.
    void receives(const fake_libnl::bytes_t &datagram, std::chrono::nanoseconds time) {
        fake_libnl::queue_datagram(datagram);
        os.select.ready({fake_libnl::state().fd}, after(time));
    }
    void ends() {
        os.select.ready({80}, [] { exit_requested = 1; });
    }
    static fake_libnl::bytes_t done(int result = 0) {
        return fake_libnl::datagram_t().done(result);
    }

    fake_os::state_t &os = fake_os::state();
    toolkit::CTav tav;
    CNetlink channel;
    CSync engine{&tav, &channel, "eth"};
};

TEST_F(DiscoveryTime, ADumpThatIsNeverAnsweredFailsAfterThirtySeconds) {
    quiet(milliseconds(29900));
    quiet(milliseconds(200));
    EXPECT_THROW(engine.run(), sync_err);
    EXPECT_EQ(os.select.left(), 0U);
    EXPECT_EQ(os.select.calls().size(), 2U);
}

TEST_F(DiscoveryTime, IsLookedAtAfterEachCycleWhateverItServed) {
    for (int i = 0; i < 10; ++i) {
        receives(fake_libnl::datagram_t().link(RTM_NEWLINK, 5, "veth0"), milliseconds(3100));
    }
    EXPECT_THROW(engine.run(), sync_err);
    EXPECT_EQ(os.select.calls().size(), 10U);
}

TEST_F(DiscoveryTime, AnErrorForAnAnswerDoesNotProlongIt) {
    receives(fake_libnl::datagram_t().error(-16, {RTM_GETLINK, 257, {}}), seconds(1));
    quiet(milliseconds(29100));
    EXPECT_THROW(engine.run(), sync_err);
}

TEST_F(DiscoveryTime, EachRequestBeginsItAnew) {
    receives(done(), seconds(29)); // links; asks for the addresses
    receives(done(), seconds(29)); // addresses; asks for the routes
    quiet(seconds(29));
    quiet(milliseconds(1100));
    EXPECT_THROW(engine.run(), sync_err);
    EXPECT_EQ(os.select.left(), 0U);
    EXPECT_EQ(fake_libnl::state().requests.size(), 3U);
}

TEST_F(DiscoveryTime, ARepeatedRequestBeginsItAnewToo) {
    receives(done(-4), seconds(29)); // an incomplete dump: the links are asked for again
    quiet(seconds(29));
    quiet(milliseconds(1100));
    EXPECT_THROW(engine.run(), sync_err);
    EXPECT_EQ(os.select.left(), 0U);
    EXPECT_EQ(fake_libnl::state().requests.size(), 2U);
}

TEST_F(DiscoveryTime, DoesNotLimitNormalOperation) {
    receives(done(), seconds(1));
    receives(done(), seconds(1));
    receives(done(), seconds(1));
    quiet(seconds(31));
    quiet(hours(24));
    ends();
    EXPECT_EQ(engine.run(), 1);
}

TEST_F(DiscoveryTime, TheRunLoopBuildsTheEngineAnew) {
    verbosity = 3;
    os.setsockopt.returns(0);
    quiet(seconds(31));
    os.select.timeout(); // the pause
    ends();
    os.select.timeout(); // the last pause
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(captured::log_count("Error: Caught exception"), 1U);
    EXPECT_EQ(captured::log_count("Info: void CSync::discover(): requesting link state"), 2U);
}

} // namespace
