// The tool's dumps and transactions: dump, load, diff and apply.
#include "support/tool_fixture.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fstream>

using namespace tavtest;
using Json = nlohmann::json;

namespace {

class ToolFilesTest : public ToolTest {
protected:
    std::string file(const std::string &content) {
        const std::string name = dir.file("given");
        std::ofstream(name, std::ios::binary) << content;
        return name;
    }
    // A store with every type, odd bytes, an empty node, and times that differ from now.
    void fill() {
        std::string odd;
        for (int byte = 1; byte < 256; ++byte) {
            if (byte != '/') {
                odd.push_back(static_cast<char>(byte));
            }
        }
        good({"set", "/a/b", "x", "/a/" + odd, "/" + odd, "/a/line", "1\n2\"\\", "/a/empty", "",
              "/a/\xc2\x9b\xe2\x80\xae", "\xc3\xa4\x7f\xc2\x85"});
        good({"set", "-t", "boolean", "/a/t", "true"});
        good({"set", "-t", "integer", "/a/i", "-5"});
        good({"set", "-t", "real", "/a/r", "2e3"});
        good({"mknode", "/empty/node"});
        good({"load"}, R"({"format":"tav-dump","version":1,"path":"/","elements":[
            {"path":"/old/leaf","type":"string","value":"1","time":1234}]})");
    }
};

std::string dump_of(const std::string &path, const std::string &elements) {
    return R"({"format":"tav-dump","version":1,"path":")" + path + R"(","elements":[)" + elements +
           "]}";
}

} // namespace

TEST_F(ToolFilesTest, DumpLoadDumpGivesTheSameBytesInAFreshStore) {
    fill();
    const std::string dump = good({"dump"});
    EXPECT_TRUE(Json::accept(dump));
    for (const char *mode : {"--merge", "--replace"}) {
        EXPECT_EQ(stop(), 0);
        start();
        EXPECT_EQ(good({"load", mode}, dump), "");
        EXPECT_EQ(good({"dump"}), dump) << mode;
    }
}

TEST_F(ToolFilesTest, ADumpHasNoControlCharactersExceptNewlines) {
    fill();
    for (const std::string &output :
         {good({"dump"}), good({"tree"}), good({"get", "-r", "/"}), good({"tree", "--json"}),
          good({"get", "-r", "--json", "/"})}) {
        for (const char c : output) {
            const auto byte = static_cast<unsigned char>(c);
            EXPECT_FALSE((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7f);
        }
        EXPECT_FALSE(has(output, "\xc2\x85"));
        EXPECT_FALSE(has(output, "\xc2\x9b"));
        EXPECT_FALSE(has(output, "\xe2\x80\xae"));
    }
}

TEST_F(ToolFilesTest, ReplaceRestoresASubtreeWithItsTimes) {
    fill();
    good({"set", "/outside", "1"});
    const std::string dump = good({"dump", "/a"});
    good({"rm", "/a/t"});
    good({"set", "/a/b", "other", "/a/new/leaf", "1"});
    good({"set", "/a/b", "x"});
    good({"rm", "/a/i"});
    good({"mknode", "/a/i/was a leaf"});
    good({"load", "--replace", file(dump)});
    EXPECT_EQ(good({"dump", "/a"}), dump);
    EXPECT_EQ(good({"get", "/outside"}), "1\n");
    good({"rm", "-r", "/a"});
    good({"load", "--replace", file(dump)});
    EXPECT_EQ(good({"dump", "/a"}), dump);
}

TEST_F(ToolFilesTest, ReplaceOfTheRootLeavesNothingElse) {
    const std::string dump = good({"dump"});
    fill();
    good({"load", "--replace"}, dump);
    EXPECT_EQ(good({"dump"}), dump);
}

TEST_F(ToolFilesTest, ReplaceCausesEventsOnlyForRealDifferences) {
    good({"set", "/n/same", "1", "/n/other", "1"});
    const std::string dump = good({"dump", "/n"});
    good({"set", "/n/other", "2", "/n/more", "3"});
    Process watch(dir, "watch", {TAV_PROGRAM, "watch", "/n", "--count", "3"});
    ASSERT_TRUE(watch.wait_for_error_text("watching /n"));
    good({"load", "--replace"}, dump);
    good({"touch", "/n/same"});
    EXPECT_EQ(watch.wait(), 0);
    const std::string seen = watch.output();
    EXPECT_TRUE(has(seen, "removed /n/more\n"));
    EXPECT_TRUE(has(seen, "set /n/other\n"));
    EXPECT_EQ(seen.substr(seen.size() - 12), "set /n/same\n") << "the touch, and nothing before it";
}

TEST_F(ToolFilesTest, MergeKeepsOtherElementsAndRestoresTimes) {
    good({"load"}, dump_of("/a", R"({"path":"/a/x","type":"string","value":"1","time":1000})"));
    const std::string dump = good({"dump", "/a"});
    good({"set", "/a/x", "2", "/a/y", "2"});
    good({"set", "/a/x", "1"});
    EXPECT_NE(good({"dump", "/a"}).find("\"time\":1000"), 0U);
    good({"load", "--merge"}, dump);
    EXPECT_EQ(good({"get", "/a/x", "/a/y"}), "1\n2\n");
    EXPECT_EQ(Json::parse(good({"get", "--json", "/a/x"}))[0]["time"], 1000);
    EXPECT_TRUE(has(bad(2, {"load", "--merge", "--replace"}, dump),
                    "--merge and --replace cannot be combined"));
}

TEST_F(ToolFilesTest, ADumpWithoutTimesDependsOnTheContentOnly) {
    good({"set", "/a/b", "x"});
    EXPECT_EQ(good({"dump", "--no-time", "/a"}),
              "{\"format\":\"tav-dump\",\"version\":1,\"path\":\"/a\",\"elements\":[\n"
              "{\"path\":\"/a\",\"type\":\"node\"},\n"
              "{\"path\":\"/a/b\",\"type\":\"string\",\"value\":\"x\"}\n"
              "]}\n");
}

TEST_F(ToolFilesTest, LoadNamesWhatIsWrongAndChangesNothing) {
    const std::string before = good({"dump"});
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "parse error"},
        {"nonsense", "line 1, column 2"},
        {"[]", "it is not a dump"},
        {"{}", "it is not a dump"},
        {R"({"format":"tav-dump","version":2,"path":"/","elements":[]})", "another version"},
        {R"({"format":"tav-dump","version":1,"path":"/"})", "no list of \"elements\""},
        {R"({"format":"tav-dump","version":1,"elements":[]})",
         "the dump has no \"path\", or it is not a string"},
        {dump_of("a", ""), "\"a\" is not a path"},
        {dump_of("/", "7"), "element 1 is not an object"},
        {dump_of("/", R"({"type":"node"})"), "element 1 has no \"path\""},
        {dump_of("/", R"({"path":"/a"})"), "element 1 (/a) has no \"type\""},
        {dump_of("/", R"({"path":"/a","type":"strin"})"), "\"strin\" is not a type"},
        {dump_of("/", R"({"path":"/a","type":"string"})"), "element 1 (/a) has no \"value\""},
        {dump_of("/", R"({"path":"/a","type":"string","value":5})"), "no \"value\""},
        {dump_of("/", R"({"path":"/a","type":"string","value":"1","time":"x"})"), "the time"},
        {dump_of("/", R"({"path":"/a","type":"string","value":"1","time":9223372036854775808})"),
         "the time"},
        {dump_of("/", R"({"path":"/a","type":"string","value":"1","time":1e999})"),
         "number overflow"},
        {dump_of("/", R"({"path_hex":"zz","type":"node"})"), "element 1 has no \"path\""},
        {dump_of("/a", R"({"path":"/ab","type":"node"})"), "is not below /a"},
        {dump_of("/", R"({"path":"/a","type":"node"},{"path":"/a","type":"node"})"),
         "element 2 (/a) occurs twice"},
        {dump_of("/", R"({"path":"/ok","type":"node"},{"path":"/ok//x","type":"node"})"),
         "bad path"},
        {dump_of("/", R"({"path":"/ok","type":"node"},{"path":"/i","type":"integer","value":"x"})"),
         "'x' is not an integer"}};
    for (const auto &[text, reason] : cases) {
        const std::string errors = bad(1, {"load"}, text);
        EXPECT_TRUE(has(errors, reason)) << text << '\n' << errors;
    }
    EXPECT_TRUE(has(bad(1, {"load", "/no/such/file"}), "No such file or directory"));
    EXPECT_TRUE(has(bad(1, {"load", "/tmp"}), "directory"));
    EXPECT_EQ(good({"dump"}), before);
}

TEST_F(ToolFilesTest, ADumpTooLargeForOneTransactionIsRefusedWholeAndLoadedInParts) {
    const std::string value(65000, 'v');
    std::string elements = R"({"path":"/big","type":"node"},)";
    for (int i = 0; i < 300; ++i) {
        elements += R"({"path":"/big/)" + std::to_string(i) + R"(","type":"string","value":")" +
                    value + "\"},";
    }
    elements.pop_back();
    const std::string name = file(dump_of("/big", elements));
    EXPECT_TRUE(has(bad(1, {"load", name}), "nothing was changed: one transaction has at most"));
    EXPECT_EQ(good({"ls"}), "");
    good({"set", "/big/extra", "1"});
    good({"load", "--parts", "--replace", name});
    EXPECT_EQ(tav({"diff", name}).status, 0);
    EXPECT_EQ(good({"get", "/big/299"}), value + "\n");
}

TEST_F(ToolFilesTest, DiffShowsBothSides) {
    good({"set", "/a/b", "x", "/a/same", "1", "/a/gone", "1"});
    good({"mknode", "/a/node"});
    const std::string name = file(good({"dump", "/a"}));
    EXPECT_EQ(good({"diff", name}), "");
    good({"set", "/a/b", "y", "/a/new", "two\nlines", "/outside", "1"});
    good({"rm", "/a/gone", "/a/node"});
    good({"rm", "/a/same"});
    good({"set", "-t", "integer", "/a/same", "1"});
    const Ran ran = tav({"diff", name});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(ran.output, "- /a/b = x (string)\n+ /a/b = y (string)\n- /a/gone = 1 (string)\n"
                          "+ /a/new = two\\nlines (string)\n- /a/node (node)\n"
                          "- /a/same = 1 (string)\n+ /a/same = 1 (integer)\n");
    good({"rm", "-r", "/a"});
    EXPECT_EQ(tav({"diff", name}).status, 1) << "an absent subtree is a difference";
    EXPECT_EQ(tav({"diff", "-"}, good({"dump"})).status, 0);
}

TEST_F(ToolFilesTest, TimesAreNoDifference) {
    good({"load"}, dump_of("/a", R"({"path":"/a/x","type":"string","value":"1","time":1000})"));
    const std::string dump = good({"dump", "/a"});
    good({"rm", "/a/x"});
    good({"set", "/a/x", "1"});
    EXPECT_EQ(good({"diff", "-"}, dump), "");
}

TEST_F(ToolFilesTest, EveryErrorOfDiffHasStatusTwo) {
    bad(2, {"diff", "/no/such/file"});
    bad(2, {"diff", "-"}, "nonsense");
    bad(2, {"diff"});
    const std::string dump = good({"dump"});
    stop();
    bad(2, {"diff", "-"}, dump);
}

TEST_F(ToolFilesTest, ApplyDoesAllStepsInOrderAsOneTransaction) {
    good({"set", "/old/leaf", "1", "/old/tree/leaf", "1"});
    const char *script = "# a comment\r\n"
                         "\n"
                         "  set \"/a b/c\" \"one two\"\n"
                         "set -t integer /a\\ b/i -5 /a\\ b/j 6\n"
                         "mknode /n/m/ /n/k\n"
                         "rm /old/leaf\n"
                         "rm -r /old\n"
                         "set /old \"a \\\"leaf\\\" now\\n\" # ignored\n";
    EXPECT_EQ(bad(1, {"apply"}, script).find("tav: line 8: #: bad path"), 0U)
        << "a comment has a line of its own";
    std::string right = script;
    right.erase(right.find(" # ignored"), 10);
    EXPECT_EQ(good({"apply"}, right), "");
    EXPECT_EQ(good({"get", "-r", "/"}),
              "/a b/c\tone two\n/a b/i\t-5\n/a b/j\t6\n/old\ta \"leaf\" now\\n\n");
    EXPECT_EQ(good({"ls", "/n"}), "k\nm\n");
    good({"apply", file("touch /old\n")});
    good({"apply"}, "");
}

TEST_F(ToolFilesTest, ApplyNamesTheLineOfEachErrorAndChangesNothing) {
    const std::string before = good({"dump"});
    const std::string errors = bad(1, {"apply"},
                                   "set /a 1\nfrob\nset /b\nset -t colour /c 1\nrm\nmknode\n"
                                   "set /d \"open\nset /e \\q\n\nset\nrm -r\nset \x1b[m 1 2\n");
    for (const char *part :
         {"line 2: 'frob' is not a step", "line 3: set needs pairs", "line 4: -t needs",
          "line 5: rm needs a path", "line 6: mknode needs a path", "line 7: unterminated \"",
          "line 8: '\\\\q' contains a backslash", "line 10: set needs", "line 11: rm needs",
          "line 12: set needs", "nothing was changed"}) {
        EXPECT_TRUE(has(errors, part)) << part << '\n' << errors;
    }
    EXPECT_EQ(errors.find('\x1b'), std::string::npos);
    EXPECT_EQ(bad(1, {"apply"}, "set /a 1\n\nset /a/b 1\n"),
              "tav: line 3: /a/b: wrong kind; an element is of the other kind (leaf or node)\n");
    EXPECT_EQ(bad(1, {"apply"}, "set /a 1\nrm /none\n").find("tav: line 2: /none: absent"), 0U);
    EXPECT_EQ(good({"dump"}), before);
}
