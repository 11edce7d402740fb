// The channel's receive buffer, which the run loop widens.
#include "shell/run_loop.h"

#include <cerrno>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "fakes/fake_libnl.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "shell/signals.h"

namespace {

using entries_t = std::vector<std::string>;

std::string widening(int option) {
    return "setsockopt(70, " + std::to_string(SOL_SOCKET) + ", " + std::to_string(option) +
           ", 8388608)";
}

class ReceiveBuffer : public DaemonTest {
protected:
    ReceiveBuffer() {
        exit_pipe[0] = 80;
        os.select.arm();
        verbosity = 9;
    }
    // One engine, asked to end in its first cycle.
    void run_once() {
        os.select.ready({80}, [] { exit_requested = 1; }).timeout();
        EXPECT_EQ(run_daemon(), 0);
        EXPECT_EQ(os.select.left(), 0U);
        EXPECT_EQ(journal::count("log 3 "), 0U);
    }

    fake_os::state_t &os = fake_os::state();
};

TEST_F(ReceiveBuffer, IsForcedToEightMebibytesOnceTheChannelIsThere) {
    os.setsockopt.returns(0);
    run_once();
    EXPECT_EQ(journal::matching("setsockopt("), entries_t{widening(SO_RCVBUFFORCE)});
    EXPECT_LT(journal::find("nl_socket_set_nonblocking()"), journal::find("setsockopt("));
    EXPECT_LT(journal::find("setsockopt("), journal::find("nl_send_simple("));
}

TEST_F(ReceiveBuffer, IsAskedForWithoutForceWhereThatIsRefused) {
    os.setsockopt.returns(-1, EPERM).returns(0);
    run_once();
    EXPECT_EQ(journal::matching("setsockopt("),
              (entries_t{widening(SO_RCVBUFFORCE), widening(SO_RCVBUF)}));
}

TEST_F(ReceiveBuffer, ARefusalOfBothIsSilentAndHarmless) {
    os.setsockopt.returns(-1, EPERM);
    run_once();
    EXPECT_EQ(journal::count("setsockopt("), 2U);
    EXPECT_EQ(journal::count("log 4 "), 0U);
    EXPECT_EQ(journal::count("watchdog_register("), 1U);
}

TEST_F(ReceiveBuffer, IsWidenedForEveryNewChannel) {
    os.setsockopt.returns(0);
    os.select.fail(EBADF).timeout();
    os.select.ready({80}, [] { exit_requested = 1; }).timeout();
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(journal::count("setsockopt("), 2U);
}

TEST_F(ReceiveBuffer, AMissingDescriptorIsCaughtByTheRunLoop) {
    os.setsockopt.returns(0);
    fake_libnl::state().get_fd.then(-7);
    os.select.timeout([] { exit_requested = 1; }); // the pause
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(captured::log_count("Error: fd: nl_socket_get_fd(): -7"), 1U);
    EXPECT_EQ(captured::log_count("Error: Caught exception: nl_socket_get_fd"), 1U);
    EXPECT_EQ(journal::count("setsockopt("), 0U);
    EXPECT_EQ(fake_libnl::state().sockets_freed, 1U);
}

} // namespace
