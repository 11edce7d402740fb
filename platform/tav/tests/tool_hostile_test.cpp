// The command-line tool and a service that does not keep the protocol's promises.
#include "support/hostile_text.h"
#include "support/raw_peer.h"
#include "support/store_fixture.h"

#include <gtest/gtest.h>

#include "protocol/history.h"

using namespace tavtest;
using tav::Writer;

namespace {

class ToolHostileTest : public StoreTest {
protected:
    // Answers every request with `content`, but not for ever: a tool that would never end loses the
    // connection. A wake-up follows each registration and each fetch.
    void answer_all(const std::function<void(tav::Op, Writer &)> &content) {
        service = std::make_unique<FakeService>(socket, [=](RawPeer &calls, RawPeer &wake) {
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (std::chrono::steady_clock::now() < end) {
                const std::string request = calls.receive();
                if (request.empty()) {
                    return;
                }
                tav::Reader reader(request);
                tav::RequestHeader header;
                get(reader, header);
                const bool fetch = header.op == tav::Op::events_get;
                calls.send(reply_frame(header.serial, fetch,
                                       [&](Writer &out) { content(header.op, out); }));
                if (fetch || header.op == tav::Op::event_register) {
                    wake.send(std::string(1, tav::wake_byte));
                }
            }
        });
    }

    std::unique_ptr<FakeService> service;
};

} // namespace

TEST_F(ToolHostileTest, AFloodOfWakeUpsDoesNotProlongTheTimeOfWatch) {
    answer_all([](tav::Op op, Writer &out) {
        if (op == tav::Op::events_get) {
            put_all(out, std::vector<tav::Event>{});
        } else {
            put(out, api_status_ok);
        }
    });
    EXPECT_EQ(tav({"watch", "--timeout", "0.2"}).status, 0);
}

TEST_F(ToolHostileTest, APathWithoutASlashThatIsCalledAbsentEndsTheSearchForAdvice) {
    answer_all([](tav::Op op, Writer &out) {
        if (op == tav::Op::read) {
            put_all(out, std::vector<tav::LeafAnswer>{{api_status_absent, {}}});
        } else {
            put(out, api_status_absent);
            put_all(out, std::vector<tav::Child>{});
        }
    });
    const Ran ran = tav({"get", "a"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "tav: a: absent\n");
}

TEST_F(ToolHostileTest, StatusEscapesWhatTheServiceSays) {
    answer_all([](tav::Op op, Writer &out) {
        if (op == tav::Op::pending) {
            tav::PendingChange change;
            change.change.program = hostile_text();
            out.u8(1);
            put(out, change);
            out.u8(0);
            return;
        }
        tav::ServiceStatus status;
        status.database = status.durability = hostile_text();
        status.limits.push_back({hostile_text(), 1, 2, 3});
        put(out, status);
    });
    std::string printed = tav({"status"}).output;
    EXPECT_TRUE(has(printed, "durability"));
    EXPECT_TRUE(has(printed, "to confirm 1"));
    printed.erase(std::remove(printed.begin(), printed.end(), '\n'), printed.end());
    EXPECT_EQ(unescaped_part(printed), "");
}
