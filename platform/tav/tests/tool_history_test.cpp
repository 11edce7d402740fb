// tav history, tav undo and tav set --if.
#include "support/tool_fixture.h"

#include <nlohmann/json.hpp>

using namespace tavtest;

namespace {

class ToolHistoryTest : public ToolTest {
protected:
    static bool begins_with_entry(const std::string &text, const std::string &number) {
        return text.rfind(number + "  20", 0) == 0;
    }
};

} // namespace

TEST_F(ToolHistoryTest, HistoryPrintsWhoChangedWhat) {
    good({"set", "/a", "1", "/b c", "2"});
    good({"set", "/a", "3"});
    good({"rm", "/b c"});
    const std::string all = good({"history"});
    EXPECT_TRUE(begins_with_entry(all, "1")) << all;
    EXPECT_TRUE(has(all, "Z  tav, process "));
    EXPECT_TRUE(has(all, ", user " + std::to_string(::getuid()) +
                             "  2 elements\n"
                             "+ /a = 1 (string)\n+ /b c = 2 (string)\n2  "));
    EXPECT_TRUE(has(all, "  1 element\n- /a = 1 (string)\n+ /a = 3 (string)\n3  "));
    EXPECT_TRUE(has(all, "  1 element\n- /b c = 2 (string)\n"));
    const std::string of_a = good({"history", "--since", "1", "/a"});
    EXPECT_TRUE(begins_with_entry(of_a, "2")) << of_a;
    EXPECT_FALSE(has(of_a, "/b c"));
    EXPECT_EQ(good({"history", "/none"}), "");
}

TEST_F(ToolHistoryTest, JsonHasEveryField) {
    good({"set", "-t", "integer", "/n/a", "5"});
    good({"rm", "-r", "/n"});
    const auto all = nlohmann::json::parse(good({"history", "--json"}));
    EXPECT_EQ(all["oldest"], 1);
    EXPECT_EQ(all["last"], 2);
    const auto &first = all["entries"][0];
    EXPECT_EQ(first["number"], 1);
    EXPECT_GT(first["time"], 1700000000);
    EXPECT_EQ(first["uid"], ::getuid());
    EXPECT_GT(first["pid"], 0);
    EXPECT_EQ(first["program"], "tav");
    EXPECT_EQ(first["service"], false);
    EXPECT_EQ(first["elements"], 2);
    EXPECT_EQ(first["changes"][0]["path"], "/n");
    EXPECT_EQ(first["changes"][0]["after"]["type"], "node");
    EXPECT_TRUE(first["changes"][0]["before"].is_null());
    EXPECT_EQ(first["changes"][1]["after"]["value"], "5");
    EXPECT_GT(first["changes"][1]["after"]["time"], 1700000000);
    EXPECT_TRUE(all["entries"][1]["changes"][1]["after"].is_null());
}

TEST_F(ToolHistoryTest, UndoBringsBackWhatWasBefore) {
    good({"set", "/a", "1", "/n/b", "2"});
    const std::string before = good({"dump"});
    good({"rm", "-r", "/n"});
    const std::string undone = good({"undo"});
    EXPECT_EQ(undone.rfind("entry 2 is undone: tav, process ", 0), 0U) << undone;
    EXPECT_TRUE(has(undone, ", user " + std::to_string(::getuid()) + ", 2 elements\n")) << undone;
    EXPECT_EQ(good({"dump"}), before);
    good({"undo"}); // undoes the undoing
    EXPECT_TRUE(has(bad(1, {"get", "/n/b"}), "absent"));
    good({"undo", "4"});
    EXPECT_EQ(good({"dump"}), before);
}

TEST_F(ToolHistoryTest, UndoWithoutNumberPassesOverWhatAProcessTookBack) {
    good({"set", "/a", "1"});
    Client client;
    api_status_t status = api_status_none;
    client.set("/n/b", "1");
    client.tav.remove_node("/n", status, "");
    EXPECT_TRUE(has(good({"undo"}), "entry 1 is undone: "));
    // By another process, so that it is a change of its own, and can be undone.
    EXPECT_TRUE(has(good({"undo"}), "entry 4 is undone: tav, process "));
    EXPECT_EQ(good({"ls"}), "a\n");
}

TEST_F(ToolHistoryTest, UndoSaysWhoChangedAnElementSince) {
    good({"set", "/a", "1"});
    good({"set", "/a", "2"});
    Client().set("/a", "3");
    const std::string error = bad(1, {"undo", "2"});
    EXPECT_EQ(error.rfind("tav: /a: changed since, in entry 3 at 20", 0), 0U) << error;
    EXPECT_TRUE(has(error, "Z by unnamed, process " + std::to_string(::getpid()) + ", user "));
    EXPECT_EQ(good({"get", "/a"}), "3\n");
}

TEST_F(ToolHistoryTest, UndoWithoutNumberIsNotForServices) {
    good({"set", "/a", "1"});
    Client daemon;
    api_status_t status = api_status_none;
    daemon.tav.watchdog_register(status, "the daemon", 60, true);
    daemon.set("/b", "1");
    EXPECT_TRUE(has(good({"history"}), "Z  service the daemon, process "));
    good({"undo"});
    EXPECT_EQ(good({"ls"}), "b\n");
}

TEST_F(ToolHistoryTest, WhatCannotBeUndoneIsExplained) {
    EXPECT_TRUE(
        has(bad(1, {"undo"}), "the history has no change to undo, only those that services"));
    EXPECT_TRUE(has(bad(1, {"undo", "7"}), "no entry 7; to list it: tav history"));
    EXPECT_TRUE(has(bad(2, {"undo", "x"}), "'x' is not the number of an entry"));
    std::vector<std::string> many{"set"};
    for (int i = 0; i < 20; ++i) {
        many.insert(many.end(), {"/" + std::to_string(i), std::string(60000, 'x')});
    }
    good(many);
    EXPECT_TRUE(has(good({"history", "/none"}),
                    "  20 elements, too many for the history to keep their values"));
    EXPECT_TRUE(has(bad(1, {"undo"}), "entry 1 cannot be undone: it changed 20 elements"));
}

TEST_F(ToolHistoryTest, WithoutAHistoryThereIsAMessage) {
    stop();
    start({"--memory", "--history", "0"});
    EXPECT_TRUE(has(bad(1, {"history"}), "keeps no history"));
    EXPECT_TRUE(has(bad(1, {"undo"}), "keeps no history"));
}

TEST_F(ToolHistoryTest, AGapIsReported) {
    stop();
    start({"--memory", "--history", "2"});
    for (const char *value : {"1", "2", "3", "4"}) {
        good({"set", "/a", value});
    }
    const Ran ran = tav({"history", "--since", "1"});
    EXPECT_EQ(ran.errors, "tav: entries before 3 may be missing\n");
    EXPECT_EQ(tav({"history", "--since", "2"}).errors, "");
    EXPECT_EQ(tav({"history"}).errors, "");
}

TEST_F(ToolHistoryTest, SetIfNeedsTheOldValue) {
    good({"set", "-t", "integer", "/a", "1"});
    EXPECT_EQ(bad(1, {"set", "--if", "1", "/a", "2"}),
              "tav: /a: changed; it is now /a = 1 (integer)\n");
    good({"set", "-t", "integer", "--if", "1", "/a", "2"});
    EXPECT_EQ(bad(1, {"set", "-t", "integer", "--if", "1", "/a", "3"}),
              "tav: /a: changed; it is now /a = 2 (integer)\n");
    EXPECT_EQ(bad(1, {"set", "--if", "1", "/b", "3"}),
              "tav: /b: changed; there is no such element\n");
    EXPECT_TRUE(has(bad(2, {"set", "--if", "1", "/a", "2", "/b", "3"}),
                    "--if allows only one path and value"));
    EXPECT_EQ(good({"get", "/a"}), "2\n");
}
