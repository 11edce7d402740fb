// The command line: its six options, and how leniently each is parsed.
#include "shell/options.h"

#include <initializer_list>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include <sched.h>
#include <unistd.h>

#include "fakes/fake_os.h"
#include "fakes/log_capture.h"
#include "fakes/usage_text.h"
#include "shell/log.h"

namespace {

using arguments_t = std::vector<std::string>;

// The settings as static initialisation left them, before any test touched them.
struct defaults_t : ::testing::Environment {
    void SetUp() override {
        level = verbosity;
        detaches = daemon_mode;
        interfaces = interface_string;
        uid = run_as_uid;
        nice = nice_priority;
        no_rt = rt_sched_request == nullptr;
    }
    std::uint32_t level = 1;
    bool detaches = false;
    std::string interfaces;
    std::uint32_t uid = 0;
    std::int32_t nice = 0;
    bool no_rt = false;
};
const auto *const defaults =
    static_cast<defaults_t *>(::testing::AddGlobalTestEnvironment(new defaults_t));

class Options : public DaemonTest {
protected:
    struct outcome_t {
        bool accepted;
        std::string output; // of standard output
    };

    outcome_t parse(const arguments_t &arguments, std::string program = "tandrel") {
        arguments_t copies = arguments;
        std::vector<char *> argv = {program.data()};
        for (auto &copy : copies) {
            argv.push_back(copy.data());
        }
        argv.push_back(nullptr);
        captured::clear();
        ::testing::internal::CaptureStdout();
        const bool accepted = parse_options(static_cast<int>(argv.size()) - 1, argv.data());
        return {accepted, ::testing::internal::GetCapturedStdout()};
    }
    void expect_accepted(const arguments_t &arguments) {
        const auto outcome = parse(arguments);
        EXPECT_TRUE(outcome.accepted) << ::testing::PrintToString(arguments);
        EXPECT_EQ(outcome.output, "") << ::testing::PrintToString(arguments);
    }
    // Refused with the usage text, and with `error` on standard error.
    void expect_usage(const arguments_t &arguments, const std::string &error = "") {
        const auto outcome = parse(arguments);
        EXPECT_FALSE(outcome.accepted) << ::testing::PrintToString(arguments);
        EXPECT_EQ(outcome.output, usage_of("tandrel")) << ::testing::PrintToString(arguments);
        EXPECT_EQ(captured::standard_error(), error) << ::testing::PrintToString(arguments);
    }
    static void know_users(std::map<std::string, std::uint32_t> users) {
        fake_os::state().users_armed = true;
        fake_os::state().users = std::move(users);
    }
};

TEST_F(Options, TheDefaultsApplyBeforeAnythingIsRead) {
    EXPECT_EQ(defaults->level, 0U);
    EXPECT_TRUE(defaults->detaches);
    EXPECT_EQ(defaults->interfaces, "eth");
    EXPECT_EQ(defaults->uid, getuid());
    EXPECT_EQ(defaults->nice, -100);
    EXPECT_TRUE(defaults->no_rt);
}

TEST_F(Options, WithoutArgumentsNothingChanges) {
    expect_accepted({});
    EXPECT_EQ(verbosity, 0U);
    EXPECT_TRUE(daemon_mode);
    EXPECT_EQ(interface_string, "eth");
    EXPECT_EQ(nice_priority, -100);
    EXPECT_EQ(rt_sched_request, nullptr);
}

TEST_F(Options, TheUsageTextNamesTheProgramAsItWasCalled) {
    const auto outcome = parse({"-x"}, "./build/a b/tandrel%s");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.output, usage_of("./build/a b/tandrel%s"));
    EXPECT_EQ(captured::standard_error(), "");
}

TEST_F(Options, PrintUsageWritesTheSameText) {
    ::testing::internal::CaptureStdout();
    print_usage("x");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), usage_of("x"));
}

TEST_F(Options, OnlyTheSixWordsAreOptions) {
    for (const char *word : {"-x", "-h", "--help", "--", "-", "", "foo", "-dD", "-Dd", "-D3", "-U",
                             "-d ", " -d", "d", "-ueth", "--daemon"}) {
        expect_usage({word});
    }
    expect_usage({"-d", "stray"});
}

TEST_F(Options, ParsingStopsAtTheFirstThatIsNotAcceptable) {
    expect_usage({"-d", "-i", "wlan", "bogus", "-D", "-n", "5"});
    EXPECT_FALSE(daemon_mode);
    EXPECT_EQ(interface_string, "wlan");
    EXPECT_EQ(verbosity, 0U);
    EXPECT_EQ(nice_priority, -100);
}

TEST_F(Options, MissingOrEmptyArgumentsAreRefused) {
    for (const char *word : {"-u", "-n", "-r", "-i"}) {
        expect_usage({word});
        expect_usage({word, ""});
    }
    expect_usage({"-r", "fifo"});
    expect_usage({"-r", "fifo", ""});
    EXPECT_EQ(rt_sched_request, nullptr);
    EXPECT_EQ(interface_string, "eth");
    EXPECT_EQ(nice_priority, -100);
}

TEST_F(Options, DKeepsTheProcessInTheForeground) {
    expect_accepted({"-d"});
    EXPECT_FALSE(daemon_mode);
}

// -D

struct verbosity_case_t {
    arguments_t arguments;
    std::uint32_t verbosity;
};

TEST_F(Options, VerbosityIsIncrementedOrSet) {
    const verbosity_case_t cases[] = {
        {{"-D"}, 1},
        {{"-D", "3"}, 3},
        {{"-D", "-D"}, 2},
        {{"-D", "-D", "-D"}, 3},
        {{"-D", "2", "-D"}, 3},
        {{"-D", "0"}, 0},
        {{"-D", "-D", "0"}, 0},
        {{"-D", "5", "-D", "1"}, 1}, // set, not added
        {{"-D", "7abc"}, 7},         // trailing text is accepted
        {{"-D", " 4"}, 4},           // as strtol parses it
        {{"-D", "-d"}, 1},           // the next option is not its argument
        {{"-D", "-i", "wlan"}, 1},   // nor this one
        {{"-D", "012"}, 12},         // decimal
    };
    for (const auto &one : cases) {
        verbosity = 0;
        expect_accepted(one.arguments);
        EXPECT_EQ(verbosity, one.verbosity) << ::testing::PrintToString(one.arguments);
    }
    EXPECT_FALSE(daemon_mode);
    EXPECT_EQ(interface_string, "wlan");
}

// Settings are unsigned, of 32 bits. A long may have no more than 31.
const std::vector<std::string> highest_numbers =
    sizeof(long) > 4 ? std::vector<std::string>{"2147483647", "2147483648", "4294967295"}
                     : std::vector<std::string>{"2147483647"};
const std::vector<std::string> numbers_too_high =
    sizeof(long) > 4 ? std::vector<std::string>{"4294967296", "4294967297", "9223372036854775807",
                                                "9223372036854775808", "18446744073709551617"}
                     : std::vector<std::string>{"2147483648", "4294967295", "4294967296"};

TEST_F(Options, VerbosityTakesNumbersOfThirtyTwoBits) {
    for (const auto &level : highest_numbers) {
        expect_accepted({"-D", level.c_str()});
        EXPECT_EQ(std::to_string(verbosity), level);
        log_info_at(9, "%s", level.c_str());
        EXPECT_EQ(captured::log_count("Info: " + level), 1U) << level;
    }
    for (const auto &level : numbers_too_high) {
        expect_usage({"-D", level.c_str()}, "Error: bad verbosity '" + level + "'\n");
    }
}

TEST_F(Options, VerbosityMustBeANumberThatIsNotNegative) {
    expect_usage({"-D", "abc"}, "Error: bad verbosity 'abc'\n");
    expect_usage({"-D", "x1"}, "Error: bad verbosity 'x1'\n");
    expect_usage({"-D", " -1"}, "Error: bad verbosity ' -1'\n");
    expect_usage({"-D", " "}, "Error: bad verbosity ' '\n");
    expect_usage({"-D", ""});
    EXPECT_EQ(verbosity, 0U);
}

TEST_F(Options, MinusOneAfterDIsReadAsAnUnknownOption) {
    expect_usage({"-D", "-1"});
    EXPECT_EQ(verbosity, 1U);
}

// -n

TEST_F(Options, NiceTakesMinusTwentyToNineteen) {
    for (const auto &[text, value] :
         std::initializer_list<std::pair<const char *, int>>{{"19", 19},
                                                             {"-20", -20},
                                                             {"0", 0},
                                                             {"abc", 0},
                                                             {"5x", 5},
                                                             {"-1", -1},
                                                             {"012", 12},
                                                             {"0x10", 0}}) {
        expect_accepted({"-n", text});
        EXPECT_EQ(nice_priority, value) << text;
    }
}

TEST_F(Options, NiceOutsideItsRangeIsRefusedButAlreadyStored) {
    for (const int value : {20, -21, 100, -100, 2147483647}) {
        expect_usage({"-n", std::to_string(value)});
        EXPECT_EQ(nice_priority, value);
    }
    for (const char *text : {"-2147483648", "2147483648", "4294967301", "-4294967291",
                             "18446744073709551621", "-99999999999999999999"}) {
        expect_usage({"-n", text});
    }
}

// -u

TEST_F(Options, UserIsLookedUpByName) {
    know_users({{"daemon", 1}, {"42", 7}, {"-d", 9}});
    expect_accepted({"-u", "daemon"});
    EXPECT_EQ(run_as_uid, 1U);
    expect_accepted({"-u", "42"}); // a name first of all
    EXPECT_EQ(run_as_uid, 7U);
    expect_accepted({"-u", "-d"});
    EXPECT_EQ(run_as_uid, 9U);
    EXPECT_TRUE(daemon_mode);
    EXPECT_EQ(captured::standard_error(), "");
}

TEST_F(Options, UnknownUserIsTriedAsANumber) {
    know_users({});
    run_as_uid = 77;
    expect_accepted({"-u", "0"});
    EXPECT_EQ(run_as_uid, 0U);
    EXPECT_EQ(captured::standard_error(), "No user named '0'\n(Using UID = 0)\n");
    expect_accepted({"-u", "1000"});
    EXPECT_EQ(run_as_uid, 1000U);
    EXPECT_EQ(captured::standard_error(), "No user named '1000'\n(Using UID = 1000)\n");
    expect_accepted({"-u", "33x"}); // trailing text is accepted
    EXPECT_EQ(run_as_uid, 33U);
    EXPECT_EQ(captured::standard_error(), "No user named '33x'\n(Using UID = 33)\n");
}

TEST_F(Options, UserIdsOfThirtyTwoBitsAreAccepted) {
    know_users({});
    for (const auto &uid : highest_numbers) {
        expect_accepted({"-u", uid.c_str()});
        EXPECT_EQ(std::to_string(run_as_uid), uid);
        EXPECT_EQ(captured::standard_error(),
                  "No user named '" + uid + "'\n(Using UID = " + uid + ")\n");
    }
    know_users({{"nobody", 4294967294U}});
    expect_accepted({"-u", "nobody"});
    EXPECT_EQ(run_as_uid, 4294967294U);
}

// 4294967296 once ran the daemon as root.
TEST_F(Options, HigherUserIdsAreNoNumbers) {
    know_users({});
    const auto before = run_as_uid;
    for (const auto &uid : numbers_too_high) {
        expect_usage({"-u", uid.c_str()}, "No user named '" + uid + "'\n");
    }
    EXPECT_EQ(run_as_uid, before);
}

TEST_F(Options, UserThatIsNeitherNameNorNumberIsRefused) {
    know_users({});
    const auto before = run_as_uid;
    expect_usage({"-u", "nobody5"}, "No user named 'nobody5'\n");
    expect_usage({"-u", "-1"}, "No user named '-1'\n");
    expect_usage({"-u", " "}, "No user named ' '\n");
    EXPECT_EQ(run_as_uid, before);
}

TEST_F(Options, AnEmptyUserIsNotLookedUp) {
    know_users({{"", 5}});
    expect_usage({"-u", ""});
    EXPECT_EQ(journal::count("getpwnam("), 0U);
}

// -r

TEST_F(Options, PolicyNamesAreExact) {
    for (const auto &[name, value] : std::initializer_list<std::pair<const char *, int>>{
             {"normal", 0}, {"batch", 3}, {"fifo", 1}, {"rr", 2}}) {
        int policy = -1;
        EXPECT_EQ(parse_sched_policy(name, policy), 0);
        EXPECT_EQ(policy, value) << name;
    }
    for (const char *name : {"", "FIFO", "Normal", "fif", "fifo ", " rr", "other", "idle", "1"}) {
        int policy = -1;
        EXPECT_EQ(parse_sched_policy(name, policy), 1) << name;
        EXPECT_EQ(policy, -1) << name;
    }
}

TEST_F(Options, RealTimePriorityLiesInThePolicysRangeBothEndsIncluded) {
    const struct {
        const char *name;
        int policy;
    } policies[] = {
        {"normal", SCHED_OTHER}, {"batch", SCHED_BATCH}, {"fifo", SCHED_FIFO}, {"rr", SCHED_RR}};
    for (const auto &one : policies) {
        const int lowest = sched_get_priority_min(one.policy);
        const int highest = sched_get_priority_max(one.policy);
        for (const int priority : {lowest, highest}) {
            expect_accepted({"-r", one.name, std::to_string(priority)});
            ASSERT_NE(rt_sched_request, nullptr);
            EXPECT_EQ(rt_sched_request->policy, one.policy);
            EXPECT_EQ(rt_sched_request->priority, priority);
        }
        expect_usage({"-r", one.name, std::to_string(lowest - 1)});
        expect_usage({"-r", one.name, std::to_string(highest + 1)});
    }
}

TEST_F(Options, RealTimePriorityBeyondThirtyTwoBitsIsOutOfRange) {
    for (const char *text : {"2147483648", "4294967297", "-4294967295", "18446744073709551617"}) {
        expect_usage({"-r", "fifo", text});
    }
}

TEST_F(Options, RealTimePriorityIsConvertedLeniently) {
    expect_accepted({"-r", "normal", "abc"}); // 0
    EXPECT_EQ(rt_sched_request->priority, 0);
    expect_accepted({"-r", "rr", "7x"});
    EXPECT_EQ(rt_sched_request->priority, 7);
    expect_accepted({"-r", "rr", "012"});
    EXPECT_EQ(rt_sched_request->priority, 12);
    expect_usage({"-r", "rr", "0x10"}); // 0
    expect_usage({"-r", "fifo", "abc"});
}

TEST_F(Options, UnknownPolicyIsRefused) {
    expect_usage({"-r", "deadline", "1"});
    expect_usage({"-r", "FIFO", "1"});
    expect_usage({"-r", "1", "1"});
    // With any priority.
    expect_usage({"-r", "deadline", "0"});
    expect_usage({"-r", "", "0"});
    EXPECT_EQ(rt_sched_request, nullptr);
}

TEST_F(Options, TheLastRealTimeRequestWins) {
    expect_accepted({"-r", "fifo", "10", "-r", "rr", "20"});
    EXPECT_EQ(rt_sched_request->policy, SCHED_RR);
    EXPECT_EQ(rt_sched_request->priority, 20);
}

TEST_F(Options, ARefusedRealTimeRequestLeavesTheEarlierOne) {
    expect_usage({"-r", "fifo", "10", "-r", "rr", "1000"});
    ASSERT_NE(rt_sched_request, nullptr);
    EXPECT_EQ(rt_sched_request->policy, SCHED_FIFO);
    EXPECT_EQ(rt_sched_request->priority, 10);
}

// -i

TEST_F(Options, InterfaceIsAnyTextThatIsNotEmpty) {
    for (const char *text : {"wlan", "-d", "eth0/1 %s", "x"}) {
        expect_accepted({"-i", text});
        EXPECT_EQ(interface_string, text);
        EXPECT_TRUE(daemon_mode);
    }
    expect_accepted({"-i", "a", "-i", "b"});
    EXPECT_EQ(interface_string, "b");
}

TEST_F(Options, AllOptionsTogether) {
    know_users({{"daemon", 1}});
    expect_accepted({"-u", "daemon", "-n", "-5", "-r", "rr", "3", "-i", "wlan", "-d", "-D", "4"});
    EXPECT_EQ(run_as_uid, 1U);
    EXPECT_EQ(nice_priority, -5);
    EXPECT_EQ(rt_sched_request->priority, 3);
    EXPECT_EQ(interface_string, "wlan");
    EXPECT_FALSE(daemon_mode);
    EXPECT_EQ(verbosity, 4U);
}

} // namespace
