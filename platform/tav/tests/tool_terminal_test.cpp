// What the tool shows on a terminal.
#include "support/hostile_text.h"
#include "support/terminal.h"
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

#include <fstream>

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

// Stored text, and text that an error message repeats.
TEST_F(ToolTerminalTest, EveryCommandEscapesControlCharacters) {
    const std::string value = hostile_text(std::string(1, '\0'));
    const std::string name = hostile_text(std::string("\0/", 2)).substr(0, 255);
    const std::string rest = hostile_text(std::string("\0/", 2)).substr(255);
    good({"set", "/n/" + name, value, "/n/" + rest, value, "/v", value, "/leaf", "1"});
    const std::string saved = good({"dump"});
    const std::string file = dir.file(hostile_text(std::string("\0/", 2)).substr(0, 200));
    std::ofstream(file) << value;
    std::ofstream(dir.file("saved")) << saved;
    std::ofstream(dir.file("steps")) << "set \"" << value << "\nset /a \"x\" \\q" << value << "\n"
                                     << value << " /a\n";
    std::ofstream(dir.file("bad dump"))
        << R"({"format":"tav-dump","version":1,"path":"/","elements":[)"
        << R"({"path":"/x","type":")" + utf8(0x202e) + utf8(0x9b) + R"(","value":"1"}]})";
    std::ofstream(dir.file("bad leaf"))
        << R"({"format":"tav-dump","version":1,"path":"/v","elements":[)"
        << R"({"path":"/v/)" + utf8(0x202e) + utf8(0x9b) + R"(","type":"string","value":"1"}]})";
    std::ofstream(dir.file("below"))
        << R"({"format":"tav-dump","version":1,"path":"/)" + utf8(0x2066) + R"(","elements":[)"
        << R"({"path":"/x","type":"node"}]})";
    Client watched;
    api_status_t status = api_status_none;
    ASSERT_EQ(watched.tav.watchdog_register(status, value, 60, true), 0);
    good({"set", "/v", value + "x"});
    watched.set("/v", value + "y");
    const std::vector<std::vector<std::string>> commands{{"get", "/v"},
                                                         {"get", "--raw", "/v"},
                                                         {"get", "-r", "/"},
                                                         {"get", "-r", "--json", "/"},
                                                         {"get", "--json", "/v", "/n/" + rest},
                                                         {"get", "/n/" + name + "/x"},
                                                         {"get", "/n/" + rest, "/none/" + rest},
                                                         {"ls", "/n"},
                                                         {"ls", "-l", "/n"},
                                                         {"ls", "--json", "/n"},
                                                         {"ls", "/none/" + rest},
                                                         {"tree"},
                                                         {"tree", "--json"},
                                                         {"tree", "/n/" + rest},
                                                         {"dump"},
                                                         {"dump", "--no-time", "/n"},
                                                         {"dump", "/none/" + rest},
                                                         {"diff", dir.file("saved")},
                                                         {"diff", file},
                                                         {"load", file},
                                                         {"load", dir.file("bad dump")},
                                                         {"load", file + "none"},
                                                         {"load", "--parts", dir.file("bad leaf")},
                                                         {"load", "--replace", dir.file("below")},
                                                         {"apply", dir.file("steps")},
                                                         {"apply", file},
                                                         {"set", "-t", "integer", "/i", value},
                                                         {"set", "/leaf/" + rest, value},
                                                         {"set", "/" + value + value, "1"},
                                                         {"set", "--if", value, "/v", "1"},
                                                         {"history"},
                                                         {"history", "--json"},
                                                         {"history", rest},
                                                         {"undo", "1"},
                                                         {"undo", value},
                                                         {"mknode", "/v/" + rest},
                                                         {"touch", "/none/" + rest},
                                                         {"rm", "/n"},
                                                         {"rm", "/none/" + rest},
                                                         {"rm", "-e", "/" + value},
                                                         {"watch", rest},
                                                         {"status"},
                                                         {"status", "--json"},
                                                         {value},
                                                         {"get", "--" + value}};
    std::set<std::string> not_run = commands_in(good({"--help"}), "Commands:\n");
    EXPECT_EQ(not_run.count("get") + not_run.count("watch"), 2U);
    for (std::vector<std::string> command : commands) {
        not_run.erase(command.front());
        if (command.front() != value) {
            command.emplace_back("--color=never");
        }
        const std::string printed = show(command);
        EXPECT_NE(printed, "") << command.front();
        EXPECT_EQ(unescaped_part(printed), "") << command.front();
    }
    EXPECT_EQ(not_run, std::set<std::string>()) << "add these to the list above";
    for (const bool json : {false, true}) {
        Terminal terminal({TAV_PROGRAM, "watch", "--count=1", "--color=never",
                           json ? "--json" : "--timeout=60", "/"});
        ASSERT_TRUE(terminal.wait_for("watching"));
        good({"set", "/n/x" + utf8(0x202e), json ? value : value + "y"});
        const std::string printed = terminal.finish();
        EXPECT_NE(printed.find(json ? "\\u202e" : "\\xe2\\x80\\xae"), std::string::npos);
        EXPECT_EQ(unescaped_part(printed), "");
    }
}

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
