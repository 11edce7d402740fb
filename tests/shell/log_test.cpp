// The log: which messages are written, with which priority and prefix, and where.
#include "shell/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <syslog.h>
#include <tav/mlr.h>
#include <unistd.h>

#include "fakes/log_capture.h"

namespace {

class Log : public DaemonTest {};

// A printf-style entry to the core.
__attribute__((format(printf, 2, 3))) void log_at_priority(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_message(priority, format, args);
    va_end(args);
}

struct entry_point_t {
    const char *name;
    void (*leveled)(std::uint32_t, const char *, ...); // one of the two
    void (*plain)(const char *, ...);
    int priority;
    const char *prefix;
    bool needs_verbosity; // of the plain form
};

void PrintTo(const entry_point_t &param, std::ostream *out) {
    *out << param.name;
}

const entry_point_t entry_points[] = {
    {"log_info_at", log_info_at, nullptr, LOG_INFO, "Info: ", false},
    {"log_notice_at", log_notice_at, nullptr, LOG_NOTICE, "Notice: ", false},
    {"log_warning_at", log_warning_at, nullptr, LOG_WARNING, "Warning: ", false},
    {"log_error_at", log_error_at, nullptr, LOG_ERR, "Error: ", false},
    {"log_critical_at", log_critical_at, nullptr, LOG_CRIT, "Critical Error: ", false},
    {"log_info", nullptr, log_info, LOG_INFO, "Info: ", true},
    {"log_notice", nullptr, log_notice, LOG_NOTICE, "Notice: ", true},
    {"log_warning", nullptr, log_warning, LOG_WARNING, "Warning: ", false},
    {"log_error", nullptr, log_error, LOG_ERR, "Error: ", false},
    {"log_critical", nullptr, log_critical, LOG_CRIT, "Critical Error: ", false},
};

class LogEntryPoint : public DaemonTest, public ::testing::WithParamInterface<entry_point_t> {
protected:
    // Whether a message of this level is written at this verbosity; if so, checks it.
    static bool written(std::uint32_t at_verbosity, std::uint32_t level) {
        verbosity = at_verbosity;
        captured::clear();
        if (GetParam().leveled != nullptr) {
            GetParam().leveled(level, "%s %d", "text", 5);
        } else {
            GetParam().plain("%s %d", "text", 5);
        }
        const std::string line = GetParam().prefix + std::string("text 5");
        if (captured::log().empty()) {
            EXPECT_EQ(captured::standard_error(), "");
            return false;
        }
        EXPECT_EQ(captured::log(), (std::vector<log_line_t>{{GetParam().priority, line}}));
        EXPECT_EQ(captured::standard_error(), line + "\n");
        return true;
    }
};

TEST_P(LogEntryPoint, IsWrittenAtItsLevelAndAbove) {
    if (GetParam().plain != nullptr) {
        EXPECT_EQ(written(0, 0), !GetParam().needs_verbosity);
        EXPECT_TRUE(written(1, 0));
        EXPECT_TRUE(written(4294967295U, 0));
        return;
    }
    EXPECT_TRUE(written(0, 0));
    EXPECT_FALSE(written(0, 1));
    EXPECT_TRUE(written(1, 1));
    EXPECT_TRUE(written(2, 0));
    EXPECT_TRUE(written(2, 1));
    EXPECT_TRUE(written(2, 2));
    EXPECT_FALSE(written(2, 3));
    // Unsigned on both sides.
    EXPECT_FALSE(written(2, 0x80000000U));
    EXPECT_FALSE(written(2, 4294967295U));
    EXPECT_TRUE(written(4294967295U, 4294967295U));
}

INSTANTIATE_TEST_SUITE_P(All, LogEntryPoint, ::testing::ValuesIn(entry_points),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(Log, IsOpenedUnderTheDaemonsNameAndFacility) {
    open_log();
    EXPECT_EQ(journal::entries(), (std::vector<std::string>{"openlog(tandrel, 3, 24)"}));
    static_assert((LOG_PID | LOG_CONS) == 3 && LOG_DAEMON == 24);
}

TEST_F(Log, PrefixesFollowThePriority) {
    const struct {
        int priority;
        const char *prefix;
    } cases[] = {{0, "Critical Error: "}, {1, "Critical Error: "}, {2, "Critical Error: "},
                 {3, "Error: "},          {4, "Warning: "},        {5, "Notice: "},
                 {6, "Info: "},           {8, "Critical Error: "}, {100, "Critical Error: "},
                 {-1, "Critical Error: "}};
    for (const auto &one : cases) {
        captured::clear();
        log_at_priority(one.priority, "x");
        EXPECT_EQ(captured::log(),
                  (std::vector<log_line_t>{{one.priority, one.prefix + std::string("x")}}));
        EXPECT_EQ(captured::standard_error(), one.prefix + std::string("x\n"));
    }
}

TEST_F(Log, DebugMessagesGoToStandardErrorOnly) {
    log_at_priority(LOG_DEBUG, "shown %d", 1);
    EXPECT_EQ(captured::standard_error(), "Debug: shown 1\n");
    EXPECT_TRUE(captured::log().empty());
}

TEST_F(Log, TheCoreIsNotFiltered) {
    verbosity = 0;
    log_at_priority(LOG_INFO, "shown");
    EXPECT_EQ(captured::log_count("Info: shown"), 1U);
}

TEST_F(Log, StandardErrorHasTheLineBeforeTheSystemLogGetsIt) {
    std::string seen;
    captured::on_log([&seen] { seen = captured::standard_error(); });
    log_error("first");
    EXPECT_EQ(seen, "Error: first\n");
}

TEST_F(Log, PercentSignsInAMessageAreHarmless) {
    log_warning("%s", "100%s %n %d%%");
    EXPECT_EQ(captured::log_texts(), (std::vector<std::string>{"Warning: 100%s %n %d%%"}));
    EXPECT_EQ(captured::standard_error(), "Warning: 100%s %n %d%%\n");
}

TEST_F(Log, LongMessagesAreCutAt4095Characters) {
    for (const std::size_t size : {4094U, 4095U, 4096U, 10000U}) {
        captured::clear();
        log_error("%s", std::string(size, 'x').c_str());
        const std::string line = "Error: " + std::string(size < 4095 ? size : 4095, 'x');
        EXPECT_EQ(captured::log_texts(), (std::vector<std::string>{line})) << size;
        EXPECT_EQ(captured::standard_error(), line + "\n") << size;
    }
}

TEST_F(Log, AnEmptyMessageIsItsPrefix) {
    log_error("%s", "");
    EXPECT_EQ(captured::standard_error(), "Error: \n");
    EXPECT_EQ(captured::log_count("Error: "), 1U);
}

TEST_F(Log, AFilteredMessageIsNotFormatted) {
    // Formatting this would end the test.
    const auto *const nowhere = reinterpret_cast<const char *>(std::uintptr_t{1});
    verbosity = 0;
    log_info_at(1, "%s", nowhere);
    log_info("%s", nowhere);
    mlr_err(0, "%s", nowhere);
    EXPECT_EQ(captured::standard_error(), "");
}

// mlr_err

struct report_case_t {
    unsigned int level;
    std::uint32_t silent_at; // the highest verbosity at which it is not written
};

TEST_F(Log, LibraryReportsNeedOneMoreThanTheirLevelAndFiveAtMost) {
    const report_case_t cases[] = {{0, 0}, {1, 1}, {2, 2},    {3, 3},          {4, 4},
                                   {5, 4}, {9, 4}, {1000, 4}, {2147483647, 4}, {4294967294U, 4}};
    for (const auto &one : cases) {
        verbosity = one.silent_at;
        captured::clear();
        mlr_err(one.level, "report %d", 7);
        EXPECT_TRUE(captured::log().empty()) << one.level;
        EXPECT_EQ(captured::standard_error(), "") << one.level;
        verbosity = one.silent_at + 1;
        mlr_err(one.level, "report %d", 7);
        EXPECT_EQ(captured::log(), (std::vector<log_line_t>{{LOG_ERR, "Error: report 7"}}))
            << one.level;
        EXPECT_EQ(captured::standard_error(), "Error: report 7\n") << one.level;
    }
}

TEST_F(Log, TheHighestLibraryLevelWrapsToTheOneThatIsAlwaysWritten) {
    verbosity = 0;
    mlr_err(4294967295U, "report");
    EXPECT_EQ(captured::log(), (std::vector<log_line_t>{{LOG_ERR, "Error: report"}}));
}

// A message must be written before the next one begins, whatever kind of file standard error is.
TEST_F(Log, EveryMessageIsWrittenOutAtOnce) {
    std::array<char, 65536> buffer{};
    ASSERT_EQ(std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size()), 0);
    log_error("text");
    struct stat written {};
    EXPECT_EQ(fstat(STDERR_FILENO, &written), 0);
    EXPECT_EQ(std::setvbuf(stderr, nullptr, _IONBF, 0), 0);
    EXPECT_EQ(written.st_size, 12); // "Error: text" and a newline
}

} // namespace
