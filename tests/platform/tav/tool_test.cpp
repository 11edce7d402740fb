// The command-line tool.
#include "support/store_fixture.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <fstream>

using namespace tavtest;
using Json = nlohmann::json;

namespace {

class ToolTest : public RunningStoreTest {
protected:
    // Runs the tool, which must succeed without a word of complaint.
    std::string good(const std::vector<std::string> &arguments, const std::string &input = "") {
        const Ran ran = tav(arguments, input);
        EXPECT_EQ(ran.status, 0) << ran.errors;
        EXPECT_EQ(ran.errors, "");
        return ran.output;
    }
    // Runs the tool, which must end with `status` and say something on standard error only.
    std::string bad(int status, const std::vector<std::string> &arguments,
                    const std::string &input = "") {
        const Ran ran = tav(arguments, input);
        EXPECT_EQ(ran.status, status) << ran.output;
        EXPECT_NE(ran.errors, "");
        EXPECT_EQ(ran.output, "");
        return ran.errors;
    }
};

} // namespace

TEST_F(ToolTest, SetAndGetOneAndSeveral) {
    EXPECT_EQ(good({"set", "/a/b", "one", "/a/c", "two words"}), "");
    EXPECT_EQ(good({"get", "/a/b"}), "one\n");
    EXPECT_EQ(good({"get", "/a/c", "/a/b"}), "two words\none\n");
}

TEST_F(ToolTest, SetWritesAStringUnlessToldOtherwise) {
    good({"set", "/a/s", "5"});
    good({"set", "-t", "integer", "/a/i", "-5", "/a/j", "6"});
    good({"set", "--type", "real", "/a/r", "-1.5"});
    good({"set", "-t", "boolean", "/a/b", "true"});
    EXPECT_EQ(good({"ls", "-l", "/a"}), "boolean b\ninteger i\ninteger j\nreal    r\nstring  s\n");
    EXPECT_EQ(good({"get", "/a/i"}), "-5\n");
}

TEST_F(ToolTest, SetIsOneTransaction) {
    good({"mknode", "/node"});
    EXPECT_EQ(bad(1, {"set", "/a", "1", "/node", "2", "/b", "3"}), "tav: /node: wrong kind\n");
    bad(1, {"get", "/a"});
    EXPECT_EQ(bad(1, {"set", "-t", "integer", "/a", "x"}), "tav: /a: bad value\n");
}

TEST_F(ToolTest, ValuesMayBeginWithADashOrBeEmptyOrOdd) {
    good({"set", "/a", "--help", "/b", "", "/c", "x\ny\xff"});
    EXPECT_EQ(good({"get", "/a", "/b", "/c"}), "--help\n\nx\ny\xff\n");
}

TEST_F(ToolTest, GetOfWhatIsAbsentOrANodeEndsWithOne) {
    good({"set", "/a/b", "1"});
    EXPECT_EQ(bad(1, {"get", "/none"}), "tav: /none: absent\n");
    EXPECT_EQ(bad(1, {"get", "/a"}), "tav: /a: wrong kind\n");
    EXPECT_EQ(bad(1, {"get", "a"}), "tav: a: bad path\n");
    const Ran mixed = tav({"get", "/a/b", "/none"});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(mixed.output, "1\n");
    EXPECT_EQ(mixed.errors, "tav: /none: absent\n");
}

TEST_F(ToolTest, GetAsJsonTellsEverything) {
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

TEST_F(ToolTest, LsPrintsOneNameALine) {
    good({"set", "/n/b", "1", "/n/10/x", "1", "/n/9", "1"});
    EXPECT_EQ(good({"ls", "/n"}), "9\n10\nb\n");
    EXPECT_EQ(good({"ls", "-l", "/n"}), "string  9\nnode    10\nstring  b\n");
    EXPECT_EQ(good({"ls"}), "Software\nn\n");
    EXPECT_EQ(Json::parse(good({"ls", "--json", "/n"})),
              Json::parse(R"([{"name":"9","type":"string"},{"name":"10","type":"node"},
                              {"name":"b","type":"string"}])"));
    bad(1, {"ls", "/none"});
    bad(1, {"ls", "/n/b"});
}

TEST_F(ToolTest, NamesWithControlCharactersStayOnOneLine) {
    good({"set", "/n/a\nb\x1b[31m", "1"});
    EXPECT_EQ(good({"ls", "/n"}), "a\\nb\\x1b[31m\n");
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
    good({"rm", "/a", "/c"});
    bad(1, {"ls", "/a"});
    bad(1, {"rm", "/a"});
    EXPECT_EQ(bad(1, {"rm", "/"}), "tav: /: refused\n");
}

TEST_F(ToolTest, TreeShowsAll) {
    good({"set", "/a/b/c", "x"});
    good({"set", "-t", "integer", "/a/i", "5"});
    EXPECT_EQ(good({"tree", "/a"}), "/a\n  b\n    c = x\n  i = 5 (integer)\n");
    EXPECT_EQ(good({"tree"}).substr(0, 13), "/\n  Software\n");
    const Json all = Json::parse(good({"tree", "--json", "/a"}));
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(all[3]["path"], "/a/i");
    EXPECT_EQ(all[3]["value"], "5");
    bad(1, {"tree", "/none"});
}

TEST_F(ToolTest, DumpLoadDumpGivesTheSameBytes) {
    good({"set", "/a/b", "x", "/a/odd\xff", "y\xfe", "/a/line", "1\n2\"\\"});
    good({"set", "-t", "boolean", "/a/t", "true"});
    good({"mknode", "/empty/node"});
    const std::string dump = good({"dump"});
    EXPECT_TRUE(Json::accept(dump));
    EXPECT_EQ(stop(), 0);
    start();
    EXPECT_EQ(good({"load"}, dump), "");
    EXPECT_EQ(good({"dump"}), dump);
    std::ofstream(dir.file("dump.json")) << dump;
    good({"rm", "/a"});
    good({"load", dir.file("dump.json")});
    EXPECT_EQ(good({"dump"}), dump);
}

TEST_F(ToolTest, ADumpWithoutTimesDependsOnTheContentOnly) {
    good({"set", "/a/b", "x"});
    EXPECT_EQ(good({"dump", "--no-time", "/a"}),
              "{\"format\":\"tav-dump\",\"version\":1,\"elements\":[\n"
              "{\"path\":\"/a\",\"type\":\"node\"},\n"
              "{\"path\":\"/a/b\",\"type\":\"string\",\"value\":\"x\"}\n"
              "]}\n");
}

TEST_F(ToolTest, LoadRefusesWhatIsNoDumpAndChangesNothingThen) {
    const std::string before = good({"dump"});
    for (const char *text :
         {"", "nonsense", "[]", "{}", R"({"format":"tav-dump","version":2,"elements":[]})",
          R"({"format":"tav-dump","version":1,"elements":[{"path":"/a"}]})",
          R"({"format":"tav-dump","version":1,"elements":[{"path":"/a","type":"string"}]})",
          R"({"format":"tav-dump","version":1,"elements":[{"path_hex":"zz","type":"node"}]})",
          R"({"format":"tav-dump","version":1,"elements":[
              {"path":"/ok","type":"node"},{"path":"/ok//x","type":"node"}]})"}) {
        bad(1, {"load"}, text);
    }
    bad(1, {"load", "/no/such/file"});
    EXPECT_EQ(good({"dump"}), before);
}

TEST_F(ToolTest, WatchPrintsEachChange) {
    Process watch(dir, "watch", {TAV_PROGRAM, "watch", "/n", "--count", "3"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /n"));
    good({"set", "/n/a", "1", "/n/b", "2", "/m/c", "3"});
    good({"rm", "/n/a"});
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.output(), "set /n/a\nset /n/b\nremoved /n/a\n");
}

TEST_F(ToolTest, TouchIsSeenAsAChange) {
    good({"set", "/n/a", "1"});
    Process watch(dir, "watch", {TAV_PROGRAM, "watch", "/n", "--count", "1"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /n"));
    good({"touch", "/n/a"});
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.output(), "set /n/a\n");
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
    client.tav.watchdog_register(status, "tandrel", 60, true);
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
    EXPECT_EQ(all["watchdogs"][0]["name"], "tandrel");
    EXPECT_EQ(all["watchdogs"][0]["period_s"], 60);
    EXPECT_EQ(all["watchdogs"][0]["state"], "fine");
    const std::string text = good({"status"});
    EXPECT_NE(text.find("clients    2\n"), std::string::npos);
    EXPECT_NE(text.find("  tandrel  process "), std::string::npos);
    EXPECT_NE(text.find("pending 2"), std::string::npos);
}

TEST_F(ToolTest, AWrongCommandLineEndsWithTwo) {
    bad(2, {});
    bad(2, {"frobnicate"});
    bad(2, {"get"});
    bad(2, {"set"});
    bad(2, {"set", "/a"});
    bad(2, {"set", "a", "b"});
    bad(2, {"set", "-t", "colour", "/a", "b"});
    bad(2, {"rm"});
    bad(2, {"ls", "/a", "/b"});
    bad(2, {"watch", "--count", "x"});
}

TEST_F(ToolTest, HelpIsPrintedForAllAndForEachCommand) {
    EXPECT_NE(good({"--help"}).find("Exit status: 0 done"), std::string::npos);
    for (const char *command :
         {"get", "set", "mknode", "touch", "ls", "tree", "rm", "watch", "dump", "load", "status"}) {
        EXPECT_NE(good({command, "--help"}).find("Usage: tav " + std::string(command)),
                  std::string::npos);
    }
}

TEST_F(ToolTest, WithoutAServiceItEndsWithThree) {
    stop();
    for (const char *command : {"ls", "status", "dump", "tree"}) {
        EXPECT_NE(bad(3, {command}).find("cannot connect"), std::string::npos);
    }
    bad(3, {"get", "/a"});
    bad(3, {"set", "/a", "1"});
}

TEST_F(ToolTest, TheSocketOptionNamesTheService) {
    ::setenv("TAV_SOCKET", "/nowhere", 1);
    EXPECT_EQ(good({"--socket", socket, "ls"}), "Software\n");
    EXPECT_EQ(good({"ls", "--socket", socket}), "Software\n");
    EXPECT_EQ(good({"set", "--socket", socket, "/a", "1"}), "");
}
