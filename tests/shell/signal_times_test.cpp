// A termination signal at every moment of start-up, of the discovery, of a synchronisation and of
// each kind of pause.
#include <csignal>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "fakes/fake_libnl.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"
#include "fakes/whole_daemon.h"
#include "shell/signals.h"

namespace {

using strings = std::vector<std::string>;

// What else happens to the daemon.
struct course_t {
    const char *name;
    void (*arm)();
    strings arguments;
};

void PrintTo(const course_t &course, std::ostream *out) {
    *out << course.name;
}

const course_t courses[] = {
    {"InTheForeground", [] {}, {"-d", "-D", "4"}},
    {"InTheBackground", [] {}, {"-D", "4", "-n", "5"}},
    {"WithoutAStore", [] { fake_tav::state().failing_inits = 3; }, {"-d", "-D", "4"}},
    {"WithARefusedRegistration",
     [] {
         fake_tav::on_call("event_register", 1).statuses({2});
         fake_tav::on_call("event_register", 2).statuses({2});
     },
     {"-d", "-D", "4"}},
    {"WithoutAChannel", [] { fake_libnl::state().connect.then(-1); }, {"-d", "-D", "4"}},
    {"WithAFailingEngine",
     [] { fake_libnl::state().send_simple.then(60).then(0); },
     {"-d", "-D", "4"}},
    {"WithAFailingSynchronisation",
     [] { fake_tav::on_call("set_leaves", 1).returns(-1); },
     {"-d", "-D", "4"}},
};

class SignalAtEveryMoment : public DaemonTest, public ::testing::WithParamInterface<course_t> {
protected:
    // The journal's entry after which the handlers are installed.
    static constexpr const char *last_handler = "sigaction(15, signal_handler, 0, empty)";

    // Runs the daemon with the signals after the n-th entry from then on; false if the run ends
    // before that.
    static bool run(std::size_t n, const std::vector<int> &signals, bool interrupts) {
        WholeDaemon daemon;
        daemon.interrupts = interrupts;
        verbosity = 0;
        daemon_mode = true;
        nice_priority = nice_not_requested;
        GetParam().arm();
        std::size_t entries = 0;
        std::size_t signalled_at = journal::none;
        journal::on_add([&] {
            if (entries == 0 && journal::entries().back() != last_handler) {
                return;
            }
            if (++entries == n && exit_requested == 0) {
                signalled_at = journal::entries().size();
                for (const int signal : signals) {
                    signal_handler(signal);
                }
            }
        });
        const auto end = daemon.run(GetParam().arguments);
        journal::on_add(nullptr);
        if (signalled_at == journal::none) {
            return false;
        }
        expect_an_orderly_end(end, signalled_at, signals.size());
        return true;
    }

    static void expect_an_orderly_end(const WholeDaemon::end_t &end, std::size_t signalled_at,
                                      std::size_t signals) {
        SCOPED_TRACE("signal after: " + journal::entries().at(signalled_at - 1));
        EXPECT_EQ(end.how, "returned");
        EXPECT_EQ(end.status, 0);
        EXPECT_EQ(journal::count("write(81, 0)"), signals);
        EXPECT_EQ(WholeDaemon::unreleased(), 0);
        const auto texts = captured::log_texts();
        ASSERT_GE(texts.size(), 2U);
        EXPECT_EQ(texts[texts.size() - 2], "Info: Caught user-initiated exit signal...");
        EXPECT_EQ(texts.back(), "Info: Exiting tandrel daemon");
        // At most one more wait in the engine and the pause after it; never another engine.
        std::size_t waits = 0;
        std::size_t connections = 0;
        for (std::size_t i = signalled_at; i < journal::entries().size(); ++i) {
            waits += journal::entries()[i].rfind("select(", 0) == 0 ? 1U : 0U;
            connections += journal::entries()[i] == "mlr_init()" ? 1U : 0U;
        }
        EXPECT_LE(waits, 2U);
        EXPECT_LE(connections, 1U);
        EXPECT_EQ(journal::entries().back(), "close(81)");
    }

    static void sweep(const std::vector<int> &signals, bool interrupts) {
        std::size_t n = 1;
        while (run(n, signals, interrupts) && !HasFailure()) {
            ++n;
        }
        EXPECT_GT(n, 50U);
    }
};

TEST_P(SignalAtEveryMoment, EndsTheDaemonInOrder) {
    sweep({SIGTERM}, true);
}

TEST_P(SignalAtEveryMoment, EndsItAlsoWhenTheWaitBeginsAfterTheSignal) {
    sweep({SIGINT}, false);
}

TEST_P(SignalAtEveryMoment, EndsItOnceWhenTwoComeTogether) {
    sweep({SIGTERM, SIGHUP}, true);
}

INSTANTIATE_TEST_SUITE_P(All, SignalAtEveryMoment, ::testing::ValuesIn(courses),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
