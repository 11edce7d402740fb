// The checker of recorded histories finds every kind of wrong read.
#include "support/recorded.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using Recording = tavtest::History;

namespace {

// Whether any order of all operations is possible, by trying them all.
bool possible(const Recording &history) {
    const auto &writes = history.writes;
    std::vector<bool> done(history.reads.size(), false);
    const std::function<bool(std::size_t)> go_on = [&](std::size_t written) {
        bool all = written == writes.size();
        // An operation may be next if none that is still to come ended before it began.
        Recording::Time first_end = written < writes.size() ? writes[written].end : INT64_MAX;
        for (std::size_t i = 0; i < done.size(); ++i) {
            all = all && done[i];
            first_end = done[i] ? first_end : std::min(first_end, history.reads[i].end);
        }
        if (all) {
            return true;
        }
        const std::uint64_t value = written == 0 ? 0 : writes[written - 1].value;
        for (std::size_t i = 0; i < done.size(); ++i) {
            const Recording::Read &read = history.reads[i];
            if (done[i] || read.begin > first_end ||
                (read.any ? value == 0 : value != read.value)) {
                continue;
            }
            done[i] = true;
            if (go_on(written)) {
                return true;
            }
            done[i] = false;
        }
        return written < writes.size() && writes[written].begin <= first_end && go_on(written + 1);
    };
    return go_on(0);
}

} // namespace

TEST(RecordedReads, RandomHistoriesAreJudgedAsByTryingAllOrders) {
    std::mt19937 random(1);
    int right = 0;
    for (int round = 0; round < 20000; ++round) {
        Recording history;
        Recording::Time now = 0;
        for (unsigned int i = 0; i < random() % 4; ++i) {
            const Recording::Time begin = now + 1 + static_cast<int>(random() % 4);
            const Recording::Time end = begin + 1 + static_cast<int>(random() % 6);
            history.writes.push_back({begin, end, random() % 3 == 0 ? 0 : i + 1U});
            now = end;
        }
        for (unsigned int i = 0; i < 1 + random() % 4; ++i) {
            const Recording::Time begin = static_cast<int>(random() % 20);
            history.reads.push_back({begin, begin + 1 + static_cast<int>(random() % 6),
                                     random() % (history.writes.size() + 1), random() % 4 == 0});
        }
        right += possible(history) ? 1 : 0;
        ASSERT_EQ(history.fault().empty(), possible(history)) << "round " << round;
    }
    EXPECT_GT(right, 1000);
    EXPECT_LT(right, 19000);
}
