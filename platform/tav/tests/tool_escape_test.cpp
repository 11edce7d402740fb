// Nothing that is stored, or that a message repeats, reaches a terminal unescaped.
#include "client/admin.h"
#include "support/hostile_text.h"
#include "support/terminal.h"
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

using namespace tavtest;

namespace {

using Commands = std::vector<std::vector<std::string>>;

class ToolEscapeTest : public ToolTest {
protected:
    ToolEscapeTest() {
        ::setenv("TERM", "xterm", 1);
        ::setenv("LC_ALL", "C.UTF-8", 1);
    }
    ~ToolEscapeTest() override { ::unsetenv("LC_ALL"); }

    void store_everything() {
        good({"set", "/n/" + name, value, "/n/" + rest, value, "/v", value, "/leaf", "1"});
        write(file, value);
        write(dir.file("saved"), good({"dump"}));
        good({"mknode", node + "/" + rest});
        good({"set", "/v", value + "x"});
        write(dir.file("steps"),
              "set \"" + value + "\nset /a \"x\" \\q" + value + "\n" + value + " /a\n");
        write(dir.file("text"), "[\"" + hidden + "\" x");
        write(dir.file("path"),
              R"({"format":"tav-dump","version":1,"path":")" + hidden + R"(","elements":[]})");
        write_dump("type", "/", "/x", hidden);
        write_dump("time", "/", "/" + hidden, R"(string","time":")");
        write_dump("leaf", "/v", "/v/" + hidden, "string");
        write_dump("below", "/" + hidden, "/x", "node");
    }
    static void write(const std::string &to, const std::string &text) { std::ofstream(to) << text; }
    // A dump of one element.
    void write_dump(const std::string &to, const std::string &top, const std::string &path,
                    const std::string &type) const {
        write(dir.file(to), R"({"format":"tav-dump","version":1,"path":")" + top +
                                R"(","elements":[{"path":")" + path + R"(","type":")" + type +
                                R"(","value":"1"}]})");
    }

    // The client's watchdog and the program that the history names.
    void use_hostile_names(Client &client) const {
        const std::string own = "\x1b\x9b" + hidden;
        api_status_t status = api_status_none;
        ASSERT_EQ(client.tav.watchdog_register(status, own, 60, true), 0);
        ASSERT_EQ(status, api_status_ok);
        ASSERT_EQ(tav::state_program(client.tav.handle, own, status), 0);
        ASSERT_EQ(status, api_status_ok);
        ASSERT_EQ(client.set("/other", "1"), api_status_ok);
    }

    // Each command prints something, and nothing but plain text.
    static void expect_plain(const Commands &commands) {
        for (std::vector<std::string> command : commands) {
            const std::string words = command.front() + " " + command.back().substr(0, 9);
            command.insert(command.begin(), {TAV_PROGRAM, "--color=never"});
            const std::string printed = Terminal(command).finish();
            EXPECT_NE(printed, "") << words;
            EXPECT_EQ(unescaped_part(printed), "") << words;
        }
    }

    const std::string value = hostile_text(std::string(1, '\0'));
    // Two names, because one can have only 255 bytes.
    const std::string name = hostile_text(std::string("\0/", 2)).substr(0, 255);
    const std::string rest = hostile_text(std::string("\0/", 2)).substr(255);
    const std::string node = "/node " + rest;
    const std::string file = dir.file(name.substr(0, 200));
    // What JSON may contain.
    const std::string hidden = utf8(0x9b) + utf8(0x85) + utf8(0x202e) + utf8(0x2066);

    const Commands reading{{"get", "/v"},
                           {"get", "--raw", "/v"},
                           {"get", "-r", "/"},
                           {"get", "-r", "--json", "/"},
                           {"get", "--json", "/v", "/n/" + rest},
                           {"ls", "/n"},
                           {"ls", "-l", "/n"},
                           {"ls", "--json", "/n"},
                           {"tree"},
                           {"tree", "--json"},
                           {"tree", "/n/" + rest},
                           {"dump"},
                           {"dump", "--no-time", "/n"},
                           {"diff", dir.file("saved")},
                           {"history"},
                           {"history", node},
                           {"history", "--json"},
                           {"status"},
                           {"status", "--json"}};
    const Commands failing{{"get", "/n/" + name + "/x"},
                           {"get", "/n/" + rest, "/none/" + rest},
                           {"get", node},
                           {"get", node + "/none"},
                           {"get", "--" + value},
                           {"ls", "/n/" + rest},
                           {"ls", "/none/" + rest},
                           {"ls", "--socket", file},
                           {"tree", "/none/" + rest},
                           {"dump", "/none/" + rest},
                           {"diff", file},
                           {"load", file},
                           {"load", file + "none"},
                           {"load", dir.file("text")},
                           {"load", dir.file("path")},
                           {"load", dir.file("type")},
                           {"load", dir.file("time")},
                           {"load", "--parts", dir.file("leaf")},
                           {"load", "--replace", dir.file("below")},
                           {"apply", dir.file("steps")},
                           {"apply", file},
                           {"set", "-t", "boolean", "/i", value},
                           {"set", "-t", "integer", "/i", value},
                           {"set", "-t", "real", "/i", value},
                           {"set", "/leaf/" + rest, value},
                           {"set", "/n/" + rest + "/a/b", value},
                           {"set", "/" + value + value, "1"},
                           {"set", node, "1"},
                           {"set", value, "1"},
                           {"set", "--if", value, "/v", "1"},
                           {"history", rest},
                           {"undo", "1"},
                           {"undo", value},
                           {"confirm", value},
                           {"mknode", "/v/" + rest},
                           {"touch", "/none/" + rest},
                           {"rm", "/n"},
                           {"rm", node},
                           {"rm", "/none/" + rest},
                           {"rm", "-e", "/" + value},
                           {"watch", rest},
                           {"watch", "--count", value},
                           {"watch", "--timeout", value},
                           {value}};
};

TEST_F(ToolEscapeTest, CommandsEscapeWhatIsStored) {
    store_everything();
    Client other;
    use_hostile_names(other);
    expect_plain(reading);
}

TEST_F(ToolEscapeTest, ErrorsEscapeWhatTheyRepeat) {
    store_everything();
    Client other;
    use_hostile_names(other);
    ASSERT_EQ(other.set("/v", "1"), api_status_ok);
    expect_plain(failing);
}

TEST_F(ToolEscapeTest, WatchEscapesWhatChanges) {
    store_everything();
    for (const bool json : {false, true}) {
        Terminal terminal({TAV_PROGRAM, "watch", "--count=1", "--color=never",
                           json ? "--json" : "--timeout=60", node});
        ASSERT_TRUE(terminal.wait_for("watching"));
        good({"set", node + "/x" + utf8(0x202e), json ? value : value + "y"});
        const std::string printed = terminal.finish();
        EXPECT_TRUE(has(printed, json ? "path_hex" : "x\\xe2\\x80\\xae"));
        EXPECT_EQ(unescaped_part(printed), "");
    }
}

TEST_F(ToolEscapeTest, EveryCommandOfTheHelpIsInOneOfTheLists) {
    std::set<std::string> commands = commands_in(good({"--help"}), "Commands:\n");
    EXPECT_EQ(commands.count("get") + commands.count("watch"), 2U);
    for (const Commands &list : {reading, failing}) {
        for (const std::vector<std::string> &command : list) {
            commands.erase(command.front());
        }
    }
    EXPECT_EQ(commands, std::set<std::string>());
}

} // namespace
