// The rules of the wake-up byte, one by one, with a clock that the test moves.
#include <gtest/gtest.h>

#include <functional>

#include "protocol/protocol.h"
#include "service/wake.h"

using namespace tav;
using std::chrono::milliseconds;

namespace {

class WakeTest : public ::testing::Test {
protected:
    void pass(int ms) { now += milliseconds(ms); }
    bool is_due() const { return wake.due() && *wake.due() <= now; }
    // Milliseconds from now until the byte is due; -1 if none is.
    long long wait() const {
        return wake.due() ? std::chrono::duration_cast<milliseconds>(*wake.due() - now).count()
                          : -1;
    }
    // Milliseconds until the byte is due while the client does this every ten of them.
    int wait_while(const std::function<void()> &busy) {
        int waited = 0;
        while (!is_due() && waited < 2000) {
            pass(10);
            waited += 10;
            busy();
        }
        return waited;
    }
    void send() {
        ASSERT_TRUE(is_due());
        wake.sent();
    }

    Wake wake;
    Time now = Time(std::chrono::seconds(1000));
};

} // namespace

TEST_F(WakeTest, AfterAnAcknowledgementWithoutAFetchTheNextByteWaits50Milliseconds) {
    wake.event(now);
    send();
    wake.acknowledge(now);
    wake.event(now);
    EXPECT_EQ(wait(), 50);
    pass(20);
    wake.event(now);
    EXPECT_EQ(wait(), 30);
}

TEST_F(WakeTest, AfterARequestTheByteWaitsFor50QuietMilliseconds) {
    wake.fetch(now);
    pass(10);
    wake.event(now);
    EXPECT_EQ(wait(), 40);
    wake.request(now, true);
    EXPECT_EQ(wait(), 50);
    pass(49);
    EXPECT_FALSE(is_due());
    pass(1);
    EXPECT_TRUE(is_due());
}

TEST_F(WakeTest, AfterRequestsTheByteWaitsAtMostOneSecond) {
    wake.request(now, false);
    wake.event(now);
    EXPECT_EQ(wait_while([&] { wake.request(now, true); }), 1000);
}

// A slow client needs longer than the pause to handle the results of its last synchronisation.
TEST_F(WakeTest, APingShowsThatTheClientIsStillAtWork) {
    wake.request(now, false);
    wake.event(now);
    pass(30);
    wake.ping(now);
    EXPECT_EQ(wait(), 50);
}

TEST_F(WakeTest, PingsDoNotDelayTheByteForEver) {
    wake.request(now, false);
    wake.event(now);
    EXPECT_EQ(wait_while([&] { wake.ping(now); }), 1000);
}

TEST_F(WakeTest, APingBeforeTheEventDoesNotDelayIt) {
    wake.request(now, false);
    pass(100);
    wake.ping(now);
    wake.event(now);
    EXPECT_TRUE(is_due());
}
