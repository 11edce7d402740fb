// What the tool shows on a terminal.
#include "support/terminal.h"
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

using namespace tavtest;

namespace {

class ToolTerminalTest : public ToolTest {
protected:
    ToolTerminalTest() {
        ::setenv("TERM", "xterm", 1);
        ::setenv("LC_ALL", "C.UTF-8", 1);
        ::unsetenv("NO_COLOR");
    }
    ~ToolTerminalTest() override { ::unsetenv("LC_ALL"); }

    std::string show(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), TAV_PROGRAM);
        return Terminal(arguments).finish();
    }
};

} // namespace

TEST_F(ToolTerminalTest, ColoursAndColumnsAreForTerminals) {
    good({"set", "/a/b", "1", "/a/long name", "2"});
    EXPECT_EQ(show({"get", "-r", "/a", "--color=never"}), "/a/b          1\r\n/a/long name  2\r\n");
    EXPECT_EQ(show({"ls", "-l", "/", "--color=never"}), "node  a\r\n");
    EXPECT_EQ(show({"ls"}), "\x1b[1;34ma\x1b[0m\r\n");
}

TEST_F(ToolTerminalTest, NoColorAndADumbTerminalAreHonoured) {
    good({"mknode", "/a"});
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(show({"ls"}), "a\r\n");
    EXPECT_NE(show({"ls", "--color=always"}).find('\x1b'), std::string::npos);
    ::setenv("NO_COLOR", "", 1);
    EXPECT_NE(show({"ls"}).find('\x1b'), std::string::npos) << "empty means not set";
    ::setenv("TERM", "dumb", 1);
    EXPECT_EQ(show({"ls"}), "a\r\n");
    ::unsetenv("NO_COLOR");
}

TEST_F(ToolTerminalTest, LettersBeyondAsciiNeedATerminalThatKnowsThem) {
    good({"set", "/v", "\xc3\xa4"});
    EXPECT_EQ(show({"get", "/v"}), "\xc3\xa4\r\n");
    ::setenv("LC_ALL", "C", 1);
    EXPECT_EQ(show({"get", "/v"}), "\\xc3\\xa4\r\n");
    EXPECT_EQ(good({"get", "/v"}), "\xc3\xa4\n") << "a file is the same in every locale";
}

TEST_F(ToolTerminalTest, ASuggestedCommandCanBeCopiedInEveryLocale) {
    good({"mknode", "/\xc3\xa4"});
    const std::vector<std::string> absent{"get", "/\xc3\xa4/b"};
    EXPECT_NE(bad(1, absent).find("tav ls '/\xc3\xa4'\n"), std::string::npos);
    ::setenv("LC_ALL", "C", 1);
    EXPECT_NE(bad(1, absent).find("tav ls $'/\\xc3\\xa4'\n"), std::string::npos);
    EXPECT_NE(show(absent).find("tav ls $'/\\xc3\\xa4'\r\n"), std::string::npos);
}
