// tav --confirm and tav confirm.
#include "support/tool_fixture.h"

#include <nlohmann/json.hpp>

#include <csignal>

using namespace tavtest;

namespace {

class ToolConfirmTest : public ToolTest {
protected:
    static std::string line(int number, const std::string &time) {
        const std::string text = std::to_string(number);
        return "change " + text + " will be reverted in " + time +
               " unless you confirm it: tav confirm " + text + "\n";
    }
    // Waits until the path is absent.
    bool goes(const std::string &path) {
        for (int i = 0; i < patience_ms / 20; ++i) {
            if (tav({"get", path}).status == 1) {
                return true;
            }
            ::usleep(20000);
        }
        return false;
    }
};

} // namespace

TEST_F(ToolConfirmTest, AChangeIsRevertedUnlessItIsConfirmed) {
    EXPECT_EQ(good({"set", "--confirm", "0.2", "/a", "1"}), line(1, "0.2 s"));
    EXPECT_TRUE(goes("/a"));
    const std::string history = good({"history"});
    EXPECT_TRUE(has(history, "Z  service tavd reverting 1, process "));
    EXPECT_TRUE(
        has(bad(1, {"undo"}), "the history has no change to undo, only those that services"));
    EXPECT_EQ(good({"set", "--confirm", "600", "/a", "1"}), line(3, "600 s"));
    EXPECT_EQ(good({"confirm", "3"}), "change 3 is confirmed\n");
    EXPECT_EQ(good({"get", "/a"}), "1\n");
    EXPECT_EQ(bad(1, {"confirm", "3"}), "tav: change 3 is not waiting for confirmation; to list "
                                        "all that are: tav status\n");
}

TEST_F(ToolConfirmTest, UndoPassesOverALaterChangeThatWasRevertedToo) {
    good({"set", "/b", "1"});
    good({"set", "--confirm", "0.2", "/a", "1", "/b", "2"});
    tav({"set", "/a", "2"});
    EXPECT_TRUE(goes("/a"));
    // An earlier change of what was reverted is in force again.
    EXPECT_TRUE(has(good({"undo"}), "entry 1 is undone: "));
}

TEST_F(ToolConfirmTest, AReversionThatFoundNothingIsInTheHistory) {
    good({"set", "--confirm", "3", "/a", "1"});
    tav({"rm", "/a"});
    std::string all;
    const std::string last = "3  ";
    for (int i = 0; i < patience_ms / 20 && all.find(last) == std::string::npos; ++i) {
        ::usleep(20000);
        all = good({"history", "--since", "2"});
    }
    EXPECT_EQ(all.substr(0, 3), last);
    EXPECT_NE(all.find("  0 elements\n"), std::string::npos) << all;
    EXPECT_EQ(bad(1, {"undo", "3"}), "tav: entry 3 cannot be undone: it changed 0 elements\n");
}

TEST_F(ToolConfirmTest, AChangeOfWhatWaitsForConfirmationWarns) {
    good({"set", "--confirm", "600", "/a/b", "1"});
    const Ran changed = tav({"set", "/a/b", "2"});
    EXPECT_EQ(changed.status, 0);
    EXPECT_EQ(changed.errors.find("tav: stored, but change 1 of the same elements is waiting for "
                                  "confirmation; in 59"),
              0U)
        << changed.errors;
    EXPECT_TRUE(
        has(changed.errors, " s both will be reverted unless it is confirmed: tav confirm 1\n"));
    EXPECT_TRUE(has(tav({"rm", "-r", "/a"}).errors, "stored, but"));
    EXPECT_EQ(tav({"set", "/d", "2"}).errors, "");
    good({"confirm"});
    EXPECT_EQ(tav({"set", "/a/b", "2"}).errors, "");
}

TEST_F(ToolConfirmTest, EveryWritingCommandTakesATerm) {
    good({"set", "/a/b", "1", "/c", "1"});
    const std::string dump = good({"dump"});
    int number = 1;
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"rm", "/c"}, {"apply"}, {"load", "--replace"}, {"undo", "1"}}) {
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.begin() + 1, {"--confirm", "600"});
        const std::string input =
            command[0] == "apply" ? "set /c 2\n"
                                  : R"({"format":"tav-dump","version":1,"path":"/","elements":[]})";
        const std::string said = good(arguments, input);
        EXPECT_EQ(said.substr(0, said.find("entry 1 is undone: ")), line(++number, "600 s"))
            << command[0];
        EXPECT_EQ(good({"confirm"}), "change " + std::to_string(number) + " is confirmed\n");
        EXPECT_NE(good({"dump"}), dump) << command[0];
        good({"load", "--replace"}, dump);
        ++number;
    }
}

TEST_F(ToolConfirmTest, WithoutANumberThereMustBeOneChange) {
    EXPECT_EQ(bad(1, {"confirm"}), "tav: you have no change that is waiting for "
                                   "confirmation; to list all that are: tav status\n");
    EXPECT_EQ(bad(1, {"confirm", "0"}).find("tav: change 0 is not waiting"), 0U);
    good({"set", "--confirm", "600", "/a", "1"});
    good({"set", "--confirm", "600", "/b", "1"});
    EXPECT_EQ(bad(1, {"confirm"}),
              "tav: several of your changes are waiting; give the number of one (tav status lists "
              "them)\n");
    EXPECT_EQ(good({"confirm", "2"}), "change 2 is confirmed\n");
    EXPECT_EQ(good({"confirm"}), "change 1 is confirmed\n");
}

TEST_F(ToolConfirmTest, NothingChangedNeedsNoConfirmation) {
    good({"set", "/a", "1"});
    EXPECT_EQ(good({"set", "--confirm", "600", "/a", "1"}),
              "nothing was changed, so there is nothing to confirm\n");
    EXPECT_EQ(bad(1, {"rm", "--confirm", "600", "/none"}).find("tav: /none: absent"), 0U);
}

TEST_F(ToolConfirmTest, WhoseChangeItIsAndUntilWhenIsSaid) {
    good({"set", "--confirm", "600", "/n/a", "1"});
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"set", "--confirm", "5", "/n/a", "2"},
          {"rm", "--confirm", "5", "-r", "/n"}}) {
        const std::string error = bad(1, command);
        const std::string path = command[0] == "rm" ? "/n" : "/n/a";
        EXPECT_EQ(error.find("tav: " + path +
                             ": another change is waiting for confirmation; change 1 by tav, "
                             "process "),
                  0U)
            << error;
        EXPECT_TRUE(has(error, ", user " + std::to_string(::getuid()) + " will be reverted in 5"));
        EXPECT_TRUE(has(error, " s unless it is confirmed: tav confirm 1\n"));
    }
    const std::string text = good({"status"});
    EXPECT_TRUE(has(text, "to confirm 1\n  change 1  tav, process "));
    EXPECT_TRUE(has(text, "  elements 2  reverts in 5"));
    const auto all = nlohmann::json::parse(good({"status", "--json"}))["pending"];
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0]["number"], 1);
    EXPECT_EQ(all[0]["program"], "tav");
    EXPECT_EQ(all[0]["uid"], ::getuid());
    EXPECT_EQ(all[0]["elements"], 2);
    EXPECT_EQ(all[0]["term_ms"], 600000);
    EXPECT_GT(all[0]["left_ms"], 500000);
    EXPECT_GT(all[0]["pid"], 0);
    EXPECT_GT(all[0]["time"], 1700000000);
}

TEST_F(ToolConfirmTest, TooManyAreRefusedWithTheLimit) {
    for (int i = 0; i < 16; ++i) {
        good({"set", "--confirm", "600", "/" + std::to_string(i), "1"});
    }
    EXPECT_EQ(
        bad(1, {"set", "--confirm", "600", "/more", "1"}),
        "tav: nothing was changed: a user may have at most 16 unconfirmed changes, of 1 MiB in "
        "all; to list them: tav status\n");
}

TEST_F(ToolConfirmTest, WrongTimesAreWrongUsage) {
    for (const char *time : {"0", "-1", "nan", "x", "1x", "", "86401", "0.0001"}) {
        EXPECT_EQ(bad(2, {"rm", "--confirm", time, "/a"})
                      .find("tav: '" + std::string(time) +
                            "' is not a time: it must be 0.001 to 86400 seconds"),
                  0U)
            << time;
    }
    EXPECT_TRUE(has(bad(2, {"load", "--parts", "--confirm", "5"}),
                    "--confirm cannot be combined with --parts"));
    EXPECT_EQ(bad(2, {"confirm", "x"}).find("tav: 'x' is not the number of an entry"), 0U);
}
