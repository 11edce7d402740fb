// Sequences that are carried out by every run of the tests.

#include <gtest/gtest.h>

#include "runner.h"

namespace {

constexpr int shrink_tries = 40;
constexpr std::uint32_t sequences = 48;

class SequenceTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(SequenceTest, EndsAsPredicted) {
    const model::Sequence sequence = model::generate(GetParam());
    const model::Verdict verdict = model::run(sequence);
    RecordProperty("items", static_cast<int>(verdict.items));
    RecordProperty("undetermined", static_cast<int>(verdict.undetermined));
    if (!verdict.failure.empty()) {
        ADD_FAILURE() << "seed " << sequence.seed << ":\n" << verdict.failure << verdict.log;
        ADD_FAILURE() << "the shortest that fails as well:\n"
                      << model::to_text(model::shrink(sequence, shrink_tries));
    }
}

INSTANTIATE_TEST_SUITE_P(Seed, SequenceTest, ::testing::Range(1U, sequences + 1));

TEST(SequenceText, IsReadBackAsItWasWritten) {
    for (std::uint32_t seed = 1; seed <= 500; ++seed) {
        const std::string text = model::to_text(model::generate(seed));
        EXPECT_EQ(model::to_text(model::parse(text)), text);
    }
}

} // namespace
