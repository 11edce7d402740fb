// Completion in a real bash on a terminal.
#include "support/terminal.h"
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

using namespace tavtest;

namespace {

class CompletionTest : public ToolTest {
protected:
    CompletionTest() {
        for (const auto &[name, value] : environment()) {
            ::setenv(name, value.c_str(), 1);
        }
        std::ofstream(dir.file("rc")) << "PS1='ready> '\n"
                                         "bind 'set enable-bracketed-paste off'\n"
                                         "bind 'set show-all-if-ambiguous on'\n"
                                         "bind 'set page-completions off'\n"
                                         "source '" TAV_COMPLETION "'\n";
        // Completion, which is recognised by its time limit, calls the real tool; the finished
        // command line is printed.
        std::filesystem::create_directory(dir.file("bin"));
        std::ofstream(dir.file("bin/tav"))
            << "#!/bin/sh\n"
               "if [ \"$TAV_TIMEOUT_MS\" = 2000 ]; then\n"
               "    TAV_TIMEOUT_MS=60000 exec '" TAV_PROGRAM "' \"$@\"\n"
               "fi\n"
               "printf '<%s>' \"$@\"; echo end\n";
        std::filesystem::permissions(dir.file("bin/tav"), std::filesystem::perms::owner_all);
    }
    ~CompletionTest() override {
        for (const auto &[name, value] : environment()) {
            ::unsetenv(name);
        }
        ::setenv("PATH", path.c_str(), 1);
    }

    // The arguments that the shell passes to the command after `line`, including its tabs, was
    // typed.
    std::string completed(const std::string &line) {
        ::setenv("PATH", (dir.file("bin:") + path).c_str(), 1);
        Terminal shell({"/bin/bash", "--noprofile", "--rcfile", dir.file("rc"), "-i"});
        EXPECT_TRUE(shell.wait_for("ready> ")) << shell.printed();
        shell.type(line + "\n");
        EXPECT_TRUE(shell.wait_for("end\r\n")) << shell.printed();
        shell.type("exit\n");
        last = shell.finish();
        const std::size_t end = last.rfind("end\r\n");
        const std::size_t start = last.rfind('\n', end) + 1;
        return last.substr(start, end - start);
    }

    std::string last; // everything that was on the terminal

private:
    static std::vector<std::pair<const char *, std::string>> environment() {
        return {{"LC_ALL", "C.UTF-8"},
                {"TERM", "dumb"},
                {"INPUTRC", "/dev/null"},
                {"HISTFILE", "/dev/null"}};
    }
    std::string path = ::getenv("PATH");
};

} // namespace

TEST_F(CompletionTest, CommandsAndOptions) {
    EXPECT_EQ(completed("tav sta\t"), "<status>");
    EXPECT_EQ(completed("tav --socket /x mkn\t /a"), "<--socket></x><mknode></a>");
    EXPECT_EQ(completed("tav load --rep\t x"), "<load><--replace><x>");
    EXPECT_EQ(completed("tav set -t bo\t /a true"), "<set><-t><boolean></a><true>");
    EXPECT_EQ(completed("tav ls --color al\t"), "<ls><--color><always>");
}

TEST_F(CompletionTest, PathsFromTheStoreWithAnyNames) {
    good({"set", "/Office/Ceiling Lamp/Host Name", "x", "/2001:db8::1/leaf", "x", "/it's \"$x\"",
          "x", "/new\nline", "x", "/\xc3\xa4h", "x"});
    const std::string name = "</Office/Ceiling Lamp/Host Name>";
    EXPECT_EQ(completed("tav get /Off\tCei\tHo\t"), "<get>" + name);
    EXPECT_EQ(completed("tav get \"/Off\tCei\tHo\t"), "<get>" + name);
    EXPECT_EQ(completed("tav get '/Off\tCei\tHo\t"), "<get>" + name);
    EXPECT_EQ(completed("tav get /Office/Ceiling\\ La\tHo\t"), "<get>" + name);
    EXPECT_EQ(completed("tav get /Office/\"Ceiling Lamp\"/Ho\t"), "<get>" + name);
    EXPECT_EQ(completed("tav get /2001:d\tle\t"), "<get></2001:db8::1/leaf>");
    EXPECT_EQ(completed("tav get /20\t\t"), "<get></2001:db8::1/leaf>");
    EXPECT_EQ(completed("tav get /it\t"), "<get></it's \"$x\">");
    EXPECT_EQ(completed("tav get \"/it\t"), "<get></it's \"$x\">");
    EXPECT_EQ(completed("tav get '/it\t"), "<get></it's \"$x\">");
    completed("tav get /new\t");
    EXPECT_TRUE(has(last, "<get></new\r\nline>end"));
    EXPECT_EQ(completed("tav get /\xc3\xa4\t"), "<get></\xc3\xa4h>");
}

TEST_F(CompletionTest, TheCommonBeginningOfSeveralNamesIsTypedAndAllAreShown) {
    good({"set", "/n/a b", "x", "/n/a(c", "x", "/n/other", "x"});
    EXPECT_EQ(completed("tav get /n/a\t b\t"), "<get></n/a b>") << last;
    EXPECT_EQ(completed("tav get /n/a\t\t(\t"), "<get></n/a(c>") << last;
    EXPECT_TRUE(has(last, "/n/a\\ b"));
    EXPECT_TRUE(has(last, "/n/a\\(c"));
}

TEST_F(CompletionTest, ValuesAndFilesAreNotCompleted) {
    good({"set", "/lamp", "on"});
    EXPECT_EQ(completed("tav set /la\t /la\t /la\t 5"), "<set></lamp></la></lamp><5>");
    std::ofstream(dir.file("a dump")) << "";
    EXPECT_EQ(completed("tav diff " + dir.file("a") + "\t"), "<diff><" + dir.file("a dump") + ">");
    EXPECT_EQ(completed("tav ls /lamp /la\t"), "<ls></lamp></la>") << "ls takes one path";
}

TEST_F(CompletionTest, WithoutAServiceNothingIsOffered) {
    stop();
    EXPECT_EQ(completed("tav get /la\tx"), "<get></lax>");
}

TEST_F(CompletionTest, OffersEveryCommandAndLongOptionThatHelpLists) {
    // The two functions, called without a terminal.
    const auto offered = [this](const std::string &line) {
        const Ran ran =
            run(dir, {"/bin/bash", "-c",
                      "source '" TAV_COMPLETION
                      "'\ncompopt() { :; }; COMP_LINE=$1 COMP_POINT=${#1}; _tav tav ''; "
                      "printf '%s\\n' \"${COMPREPLY[@]}\"",
                      "bash", line});
        std::istringstream words(ran.output);
        std::set<std::string> result;
        for (std::string word; words >> word;) {
            result.insert(word);
        }
        return result;
    };
    const auto listed = [this](const std::vector<std::string> &command) {
        std::istringstream help(good(command));
        std::set<std::string> result;
        for (std::string line; std::getline(help, line);) {
            // "  -r,--recursive   what it does"
            const std::string names = line.substr(0, line.find(' ', 3));
            const std::size_t option = names.find("--");
            if (names.substr(0, 3) == "  -" && option != std::string::npos) {
                result.insert(names.substr(option));
            }
        }
        return result;
    };
    const std::set<std::string> commands = offered("tav ");
    EXPECT_EQ(commands.size(), 16U);
    for (const std::string &command : commands) {
        EXPECT_EQ(offered("tav " + command + " --"), listed({command, "--help"})) << command;
    }
    EXPECT_EQ(offered("tav --"), listed({"--help"}));
}
