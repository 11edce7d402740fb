// The command-line tool.
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <fstream>
#include <thread>

using namespace tavtest;
using Json = nlohmann::json;

TEST_F(ToolTest, SetAndGetOneAndSeveral) {
    EXPECT_EQ(good({"set", "/a/b", "one", "/a/c", "two words"}), "");
    EXPECT_EQ(good({"get", "/a/b"}), "one\n");
    EXPECT_EQ(good({"get", "/a/c", "/a/b"}), "two words\none\n");
}

TEST_F(ToolTest, SetWritesAStringByDefault) {
    good({"set", "/a/s", "5"});
    good({"set", "-t", "integer", "/a/i", "-5", "/a/j", "6"});
    good({"set", "--type", "real", "/a/r", "-1.5"});
    good({"set", "-t", "boolean", "/a/b", "true"});
    EXPECT_EQ(good({"ls", "-l", "/a"}), "boolean\tb\ninteger\ti\ninteger\tj\nreal\tr\nstring\ts\n");
    EXPECT_EQ(good({"get", "/a/i"}), "-5\n");
}

TEST_F(ToolTest, SetIsOneTransaction) {
    good({"mknode", "/node"});
    EXPECT_EQ(bad(1, {"set", "/a", "1", "/node", "2", "/b", "3"}),
              "tav: /node: wrong kind; it is a node, and a node has no value; to list it: tav ls "
              "/node\n");
    bad(1, {"get", "/a"});
    EXPECT_EQ(
        bad(1, {"set", "-t", "integer", "/a", "x"}),
        "tav: /a: bad value; 'x' is not an integer; write a whole number of at most 64 bits, like "
        "-5\n");
}

TEST_F(ToolTest, ValuesMayBeginWithADashOrBeEmptyOrOdd) {
    good({"set", "/a", "--help", "/b", "", "/c", "x\ny\xff"});
    EXPECT_EQ(good({"get", "/a", "/b", "/c"}), "--help\n\nx\\ny\\xff\n");
}

TEST_F(ToolTest, GetOfWhatIsAbsentOrANodeEndsWithOne) {
    good({"set", "/a/b", "1"});
    EXPECT_EQ(bad(1, {"get", "/none"}), "tav: /none: absent; / exists; to list it: tav ls /\n");
    EXPECT_EQ(bad(1, {"get", "/a/b/c"}),
              "tav: /a/b/c: absent; /a/b is a leaf, and nothing is below a leaf\n");
    EXPECT_EQ(bad(1, {"get", "/a"}),
              "tav: /a: wrong kind; it is a node; to read everything below it: tav get -r /a\n");
    EXPECT_EQ(bad(1, {"get", "a"}),
              "tav: a: bad path; a path is / or /name/name..., without empty names\n");
    const Ran mixed = tav({"get", "/a/b", "/none"});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(mixed.output, "1\n");
    EXPECT_EQ(mixed.errors.substr(0, 18), "tav: /none: absent");
}

TEST_F(ToolTest, GetAsJsonHasTypeValueAndTime) {
    good({"set", "/a", "x"});
    const Ran ran = tav({"get", "--json", "/a", "/none"});
    EXPECT_EQ(ran.status, 1);
    const Json all = Json::parse(ran.output);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]["path"], "/a");
    EXPECT_EQ(all[0]["status"], "ok");
    EXPECT_EQ(all[0]["type"], "string");
    EXPECT_EQ(all[0]["value"], "x");
    EXPECT_TRUE(all[0]["time"].is_number());
    EXPECT_EQ(all[1]["status"], "absent");
}

TEST_F(ToolTest, GetOfASubtreePrintsPathTabValue) {
    good({"set", "/a/b c/x", "one", "/a/odd\tname", "two\nlines", "/z", "3"});
    good({"mknode", "/a/empty"});
    EXPECT_EQ(good({"get", "-r", "/a", "/z"}),
              "/a/b c/x\tone\n/a/odd\\tname\ttwo\\nlines\n/z\t3\n");
    const Ran mixed = tav({"get", "-r", "/none", "/z"});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(mixed.output, "/z\t3\n");
    const Json all = Json::parse(good({"get", "-r", "--json", "/a/b c"}));
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0]["path"], "/a/b c/x");
    EXPECT_EQ(all[0]["value"], "one");
}

TEST_F(ToolTest, GetRawPrintsTheBytesOfOneValueAndNothingElse) {
    good({"set", "/a", "x\\\ny\xff\x1b[m"});
    EXPECT_EQ(good({"get", "--raw", "/a"}), "x\\\ny\xff\x1b[m");
    bad(2, {"get", "--raw", "/a", "/a"});
    bad(2, {"get", "--raw", "-r", "/a"});
    EXPECT_TRUE(has(bad(2, {"get", "--raw", "--json", "/a"}),
                    "--raw takes one path, and cannot be combined with -r or --json"));
    bad(1, {"get", "--raw", "/none"});
}

TEST_F(ToolTest, WhatAListingPrintsCanBeGivenBackEscaped) {
    good({"set", "/n/a\nb\\\x9b", "old\x1b"});
    const std::string name = good({"ls", "/n"});
    EXPECT_EQ(name, "a\\nb\\\\\\x9b\n");
    const std::string path = "/n/" + name.substr(0, name.size() - 1);
    EXPECT_EQ(good({"get", "-e", path}), "old\\x1b\n");
    good({"set", "-e", path, "new\\t"});
    EXPECT_EQ(good({"get", "--raw", "--escaped", path}), "new\t");
    good({"rm", "-e", path});
    EXPECT_EQ(good({"ls", "/n"}), "");
    bad(2, {"get", "-e", "/a\\q"});
}

TEST_F(ToolTest, ASlashAtTheEndOfAPathDoesNoHarm) {
    good({"set", "/a/b/", "1"});
    EXPECT_EQ(good({"ls", "/a/"}), "b\n");
    EXPECT_EQ(good({"get", "/a/b/"}), "1\n");
    good({"mknode", "/c/"});
    good({"rm", "/c/"});
}

TEST_F(ToolTest, ColoursComeOnlyWhenAskedForOutsideATerminal) {
    good({"set", "/a/b", "1"});
    EXPECT_EQ(good({"tree", "/a"}).find('\x1b'), std::string::npos);
    EXPECT_TRUE(has(good({"tree", "/a", "--color", "always"}), "\x1b[1;34m/a\x1b[0m"));
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_NE(good({"tree", "/a", "--color=always"}).find('\x1b'), std::string::npos)
        << "the option says more than the environment";
    ::unsetenv("NO_COLOR");
    bad(2, {"tree", "--color=perhaps"});
}

TEST_F(ToolTest, OutputThatCannotBeWrittenIsAnErrorOfEveryCommand) {
    good({"set", "/a/b", "1"});
    std::ofstream(dir.file("empty")) << R"({"format":"tav-dump","version":1,"path":"/",)"
                                     << R"("elements":[]})";
    int number = 0;
    const auto full = [&](std::vector<std::string> arguments) {
        const std::string name = "full" + std::to_string(++number);
        EXPECT_EQ(::symlink("/dev/full", dir.file(name + ".out").c_str()), 0);
        arguments.insert(arguments.begin(), TAV_PROGRAM);
        return std::make_unique<Process>(dir, name, arguments);
    };
    const std::string message = "tav: the output could not be written\n";
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"get", "/a/b"},
                                               {"get", "-r", "/"},
                                               {"ls"},
                                               {"tree"},
                                               {"dump"},
                                               {"diff", dir.file("empty")},
                                               {"status"},
                                               {"help"},
                                               {"--help"},
                                               {"--version"},
                                               {"get", "--help"}}) {
        const auto tool = full(command);
        EXPECT_EQ(tool->wait(), command.front() == "diff" ? 2 : 1) << command.front();
        EXPECT_EQ(tool->errors(), message) << command.front();
    }
    const auto watch = full({"watch"});
    ASSERT_TRUE(watch->wait_for_error_text("watching /"));
    good({"touch", "/a/b"});
    EXPECT_EQ(watch->wait(), 1);
    EXPECT_TRUE(has(watch->errors(), message));
}

TEST_F(ToolTest, AClosedOutputIsNotTheConnection) {
    good({"set", "/a", std::string(60000, 'x')});
    const Ran ran = run(dir, {"/bin/sh", "-c", "exec \"$0\" get /a <&- >&-", TAV_PROGRAM});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "tav: the output could not be written\n");
    EXPECT_FALSE(has(tavd->errors(), "disconnected"));
}

TEST_F(ToolTest, LsPrintsOneNamePerLine) {
    good({"set", "/n/b", "1", "/n/10/x", "1", "/n/9", "1"});
    EXPECT_EQ(good({"ls", "/n"}), "9\n10\nb\n");
    EXPECT_EQ(good({"ls", "-l", "/n"}), "string\t9\nnode\t10\nstring\tb\n");
    EXPECT_EQ(good({"ls"}), "n\n");
    EXPECT_EQ(Json::parse(good({"ls", "--json", "/n"})),
              Json::parse(R"([{"name":"9","type":"string"},{"name":"10","type":"node"},
                              {"name":"b","type":"string"}])"));
    bad(1, {"ls", "/none"});
    bad(1, {"ls", "/n/b"});
}

TEST_F(ToolTest, MknodeTouchAndRm) {
    good({"mknode", "/a/b", "/c"});
    EXPECT_EQ(good({"ls", "/a"}), "b\n");
    good({"mknode", "/a/b"});
    EXPECT_EQ(good({"ls", "/a/b"}), "");
    good({"set", "/a/b/leaf", "1"});
    good({"touch", "/a/b/leaf", "/a"});
    bad(1, {"touch", "/none"});
    bad(1, {"mknode", "/a/b/leaf"});
    good({"rm", "/a/b/leaf"});
    EXPECT_EQ(good({"ls", "/a"}), "b\n") << "a node outlives its last leaf";
    EXPECT_EQ(bad(1, {"rm", "/c", "/a"}),
              "tav: /a: not empty; to remove it with everything below it: tav rm -r /a\n");
    EXPECT_EQ(good({"ls"}), "a\nc\n") << "all or nothing";
    good({"rm", "-r", "/a", "/c"});
    bad(1, {"ls", "/a"});
    bad(1, {"rm", "/a"});
    for (const char *option : {"-e", "-r"}) {
        EXPECT_EQ(
            bad(1, {"rm", option, "/"}),
            "tav: /: refused; the root cannot be removed; to list what is below it: tav ls /\n");
    }
}

TEST_F(ToolTest, TreeShowsAll) {
    good({"set", "/a/b/c", "x"});
    good({"set", "-t", "integer", "/a/i", "5"});
    EXPECT_EQ(good({"tree", "/a"}), "/a\n  b\n    c = x (string)\n  i = 5 (integer)\n");
    EXPECT_EQ(good({"tree"}).substr(0, 6), "/\n  a\n");
    const Json all = Json::parse(good({"tree", "--json", "/a"}));
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(all[3]["path"], "/a/i");
    EXPECT_EQ(all[3]["value"], "5");
    bad(1, {"tree", "/none"});
}

TEST_F(ToolTest, WatchPrintsEachChange) {
    Process watch(dir, "watch", {TAV_PROGRAM, "watch", "/n", "--count", "3"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /n"));
    good({"set", "/n/a", "1", "/n/b", "2", "/m/c", "3"});
    good({"rm", "/n/a"});
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.output(), "set /n/a\nset /n/b\nremoved /n/a\n");
}

TEST_F(ToolTest, WatchAsJson) {
    Process watch(dir, "watch", {TAV_PROGRAM, "watch", "--json", "--count", "1"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /"));
    good({"set", "/n/a", "1"});
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.output(), "{\"event\":\"set\",\"path\":\"/n/a\"}\n");
}

TEST_F(ToolTest, WatchEndsAfterItsTime) {
    EXPECT_EQ(tav({"watch", "--timeout", "0.1"}).status, 0);
    EXPECT_EQ(tav({"watch", "--timeout", "0.1", "--count", "1"}).status, 1);
}

TEST_F(ToolTest, WatchEndsWithThreeWhenTheServiceGoesAway) {
    Process watch(dir, "watch", {TAV_PROGRAM, "watch"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /"));
    stop();
    EXPECT_EQ(watch.wait(), 3);
}

TEST_F(ToolTest, StatusShowsClientsQueuesAndWatchdogs) {
    Client client;
    client.watch("/");
    client.settle();
    api_status_t status = api_status_none;
    client.tav.watchdog_register(status, "worker", 60, true);
    good({"set", "/a", "1", "/b", "1"});
    const Json all = Json::parse(good({"status", "--json"}));
    EXPECT_EQ(all["pid"], tavd->pid());
    EXPECT_TRUE(all["database"].is_null());
    EXPECT_EQ(all["leaves"], 2);
    ASSERT_EQ(all["clients"].size(), 2U);
    EXPECT_EQ(all["clients"][0]["pid"], ::getpid());
    EXPECT_EQ(all["clients"][0]["registrations"], 1);
    EXPECT_EQ(all["clients"][0]["pending_events"], 2);
    ASSERT_EQ(all["watchdogs"].size(), 1U);
    EXPECT_EQ(all["watchdogs"][0]["name"], "worker");
    EXPECT_EQ(all["watchdogs"][0]["period_s"], 60);
    EXPECT_EQ(all["watchdogs"][0]["state"], "fine");
    const std::string text = good({"status"});
    EXPECT_TRUE(has(text, "clients    2\n"));
    EXPECT_TRUE(has(text, "  worker  process "));
    EXPECT_TRUE(has(text, "pending 2"));
}

TEST_F(ToolTest, StatusShowsWhenAClientLastListedANode) {
    Client client;
    const auto listed = [this] {
        return Json::parse(good({"status", "--json"}))["clients"][0]["last_listing_ms"];
    };
    EXPECT_TRUE(listed().is_null());
    EXPECT_FALSE(has(good({"status"}), "last listing"));
    client.list("/");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client.settle();
    EXPECT_GE(listed().get<int>(), 50); // other requests do not count
    EXPECT_TRUE(has(good({"status"}), "  last listing "));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto start = std::chrono::steady_clock::now();
    client.list("/");
    const int since = listed().get<int>();
    EXPECT_LE(std::chrono::milliseconds(since), std::chrono::steady_clock::now() - start);
}

TEST_F(ToolTest, AWrongCommandLineEndsWithTwo) {
    bad(2, {});
    EXPECT_TRUE(has(bad(2, {"frobnicate"}), "'frobnicate' is not a command"));
    EXPECT_TRUE(has(bad(2, {"get"}), "try: tav get --help"));
    bad(2, {"get"});
    bad(2, {"set"});
    bad(2, {"set", "/a"});
    bad(2, {"set", "a", "b"});
    bad(2, {"set", "-t", "colour", "/a", "b"});
    bad(2, {"rm"});
    bad(2, {"ls", "/a", "/b"});
    for (const char *number : {"x", "-1", "0", "", "1x", "18446744073709551616"}) {
        EXPECT_EQ(bad(2, {"watch", "--count", number}),
                  "tav: '" + std::string(number) +
                      "' is not a count: it must be 1 or more; try: tav watch --help\n");
    }
    for (const char *time : {"x", "nan", "-nan", "inf", "-1", "1e10", "", "1x"}) {
        EXPECT_EQ(
            bad(2, {"watch", "--timeout", time}),
            "tav: '" + std::string(time) +
                "' is not a time: it must be 0 to 1000000000 seconds; try: tav watch --help\n");
    }
    EXPECT_EQ(bad(2, {"watch", "--count"}), "tav: --count needs a value; try: tav watch --help\n");
}

TEST_F(ToolTest, HelpIsPrintedForAllAndForEachCommand) {
    EXPECT_EQ(good({"help"}), good({"--help"}));
    EXPECT_TRUE(has(good({"--help"}), "Exit status: 0 done"));
    EXPECT_TRUE(has(good({"--help"}),
                    "\n  tav load --replace saved                   restore what was saved\n"));
    for (const char *command : {"get", "set", "mknode", "touch", "ls", "tree", "rm", "apply",
                                "watch", "dump", "load", "diff", "status"}) {
        EXPECT_TRUE(has(good({command, "--help"}), "Usage: tav " + std::string(command)));
    }
}

TEST_F(ToolTest, WithoutAServiceItEndsWithThree) {
    stop();
    for (const char *command : {"ls", "status", "dump", "tree"}) {
        EXPECT_TRUE(has(bad(3, {command}), "cannot connect"));
    }
    EXPECT_TRUE(has(bad(3, {"get", "/a"}), "check that tavd is running"));
    bad(2, {"diff", "/no/such/file"});
    bad(3, {"set", "/a", "1"});
}

TEST_F(ToolTest, TheSocketOptionNamesTheService) {
    ::setenv("TAV_SOCKET", "/nowhere", 1);
    EXPECT_EQ(good({"set", "--socket", socket, "/a", "1"}), "");
    EXPECT_EQ(good({"--socket", socket, "ls"}), "a\n");
    EXPECT_EQ(good({"ls", "--socket", socket}), "a\n");
}
