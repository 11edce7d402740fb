// The memory that one connection uses.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "protocol/limits.h"
#include "service/peer.h"

using namespace tav;

namespace {

constexpr std::size_t large = std::size_t{1} << 20;

class PeerTest : public ::testing::Test {
protected:
    PeerTest() {
        std::array<int, 2> both{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, both.data()), 0);
        other = UniqueFd(both[0]);
        peer = std::make_unique<Peer>(UniqueFd(both[1]), Credentials{}, true, Time{});
    }
    static std::string frame(std::size_t bytes) {
        Writer out;
        out.bytes(std::string(bytes, 'x'));
        return out.finish();
    }
    // Sends it to the peer, which receives it.
    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            const std::size_t part = std::min<std::size_t>(bytes.size(), 4096);
            ASSERT_EQ(::send(other.get(), bytes.data(), part, 0), static_cast<ssize_t>(part));
            ASSERT_TRUE(peer->receive());
            bytes.remove_prefix(part);
        }
    }
    // By the whole process. A sanitizer's allocator does not say it: always 0.
    static std::size_t bytes_in_use() { return ::mallinfo2().uordblks + ::mallinfo2().hblkhd; }

    UniqueFd other;
    std::unique_ptr<Peer> peer;
};

} // namespace

// The rest of a large request was once kept as long as a part of the next one was there.
TEST_F(PeerTest, ALargeRequestIsReleasedAlthoughTheNextHasBegun) {
    const std::size_t before = bytes_in_use();
    const std::string next = frame(10);
    send(frame(large) + next.substr(0, 1));
    std::string_view body;
    ASSERT_EQ(peer->request(body), FrameState::complete);
    EXPECT_EQ(peer->held(), length_bytes + large + 1);
    peer->consume(body);
    EXPECT_EQ(peer->held(), 1U);
    EXPECT_LT(bytes_in_use(), before + large / 2);
    send(next.substr(1));
    ASSERT_EQ(peer->request(body), FrameState::complete);
    EXPECT_EQ(body, std::string(10, 'x'));
}

TEST_F(PeerTest, SmallRequestsAreHeldUntilAllOfThemAreConsumed) {
    send(frame(10) + frame(20));
    std::string_view body;
    peer->request(body);
    peer->consume(body);
    EXPECT_EQ(peer->held(), 2 * length_bytes + 30);
    peer->request(body);
    EXPECT_EQ(body.size(), 20U);
    peer->consume(body);
    EXPECT_EQ(peer->held(), 0U);
}

TEST_F(PeerTest, AReplyIsHeldUntilAllOfItIsSent) {
    peer->reply(frame(large));
    ASSERT_TRUE(peer->flush());
    std::string got(length_bytes + large, '\0');
    for (std::size_t left = got.size(); left > 0;) {
        EXPECT_EQ(peer->held(), peer->has_output() ? got.size() : 0);
        const ssize_t part = ::recv(other.get(), got.data(), left, 0);
        ASSERT_GT(part, 0);
        left -= static_cast<std::size_t>(part);
        ASSERT_TRUE(peer->flush());
    }
    EXPECT_FALSE(peer->has_output());
    EXPECT_EQ(peer->held(), 0U);
}

TEST_F(PeerTest, AnIdleConnectionKeepsLittleMemory) {
    constexpr std::size_t medium = 100000;
    const std::size_t before = bytes_in_use();
    send(frame(medium));
    std::string_view body;
    peer->request(body);
    peer->consume(body);
    peer->reply(frame(medium));
    ASSERT_TRUE(peer->flush());
    ASSERT_FALSE(peer->has_output());
    EXPECT_LT(bytes_in_use(), before + medium / 2);
}
