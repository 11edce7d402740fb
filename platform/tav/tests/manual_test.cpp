// The manual pages agree with the programs.
#include "support/hostile_text.h"
#include "support/tool_fixture.h"

#include "protocol/limits.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

using namespace tavtest;
namespace limits = tav::limits;

namespace {

using NameSet = std::set<std::string>;

const NameSet common{"-h", "--help", "--socket", "--color"};

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> words_of(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

// The options that a help text lists: "  -r,--recursive   what it does".
NameSet options_in_help(const std::string &help) {
    NameSet options;
    for (const std::string &line : lines_of(help)) {
        if (line.substr(0, 3) != "  -" || line.size() < 4) {
            continue;
        }
        std::istringstream names(words_of(line).front());
        for (std::string name; std::getline(names, name, ',');) {
            options.insert(name);
        }
    }
    return options;
}

// The options that lines of a page describe: ".It Fl r , Fl -recursive".
NameSet options_in_page(const std::vector<std::string> &page) {
    NameSet options;
    for (const std::string &line : page) {
        const std::vector<std::string> words = words_of(line);
        for (std::size_t i = 1; i + 1 < words.size() && words[0] == ".It"; ++i) {
            if (words[i] == "Fl") {
                options.insert("-" + words[i + 1]);
            }
        }
    }
    return options;
}

// The lines from the one that begins with `start` up to the next one that begins with one of
// `ends`.
std::vector<std::string> part_of(const std::string &page, const std::string &start,
                                 const std::vector<std::string> &ends) {
    std::vector<std::string> part;
    const auto begins = [](const std::string &line, const std::string &with) {
        return line.substr(0, with.size()) == with;
    };
    for (const std::string &line : lines_of(page)) {
        bool ended = false;
        for (const std::string &end : ends) {
            ended = ended || begins(line, end);
        }
        if (part.empty() ? begins(line, start) : !ended) {
            part.push_back(line);
        } else if (!part.empty()) {
            break;
        }
    }
    return part;
}

std::string page(const std::string &name) {
    return read_file(std::string(TAV_MANUAL) + "/" + name);
}

NameSet without(NameSet names, const NameSet &others) {
    for (const std::string &other : others) {
        names.erase(other);
    }
    return names;
}

class ManualTest : public ToolTest {
protected:
    // The commands that the tool's help lists.
    NameSet commands() { return commands_in(good({"--help"}), "Commands:\n"); }
};

} // namespace

TEST_F(ManualTest, EveryCommandOfTheToolIsInItsPageAndTheReverse) {
    NameSet described;
    for (const std::string &line : part_of(page("tav.1"), ".Sh COMMANDS", {".Sh TEXT"})) {
        if (line.substr(0, 7) == ".It Ic ") {
            described.insert(words_of(line)[2]);
        }
    }
    EXPECT_EQ(described, commands());
    EXPECT_GE(described.size(), 13U);
}

TEST_F(ManualTest, EveryOptionOfTheToolIsInItsPageAndTheReverse) {
    EXPECT_EQ(options_in_page(part_of(page("tav.1"), ".Sh DESCRIPTION", {".Sh"})), common);
    NameSet general = common;
    general.insert({"-V", "--version"});
    EXPECT_EQ(options_in_help(good({"--help"})), general);
    for (const std::string &command : commands()) {
        // The command's own line is its synopsis; its options follow.
        std::vector<std::string> part =
            part_of(page("tav.1"), ".It Ic " + command, {".It Ic", ".Sh"});
        ASSERT_FALSE(part.empty()) << command;
        part.erase(part.begin());
        const NameSet in_help = options_in_help(good({command, "--help"}));
        EXPECT_EQ(options_in_page(part), without(in_help, common)) << command;
        EXPECT_EQ(in_help.count("--socket"), 1U) << command;
    }
}

TEST_F(ManualTest, EveryOptionOfTheServiceIsInItsPageAndTheReverse) {
    const Ran help = run(dir, {TAVD_PROGRAM, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(options_in_page(part_of(page("tavd.8"), ".Sh DESCRIPTION", {".Sh"})),
              options_in_help(help.output));
}

TEST_F(ManualTest, EveryCallOfTheLibraryIsInItsPage) {
    const std::string text = page("libtav.3");
    int calls = 0;
    for (const char *header : {"/mlr.h", "/toolkit.h"}) {
        for (const std::string &line : lines_of(read_file(std::string(TAV_HEADERS) + header))) {
            const bool of_class = line.substr(0, 8) == "    int ";
            const bool of_c = line.find(" *mlr_") != std::string::npos ||
                              line.find("int mlr_") == 0 || line.find("void mlr_") == 0;
            const std::size_t parenthesis = line.find('(');
            if ((!of_class && !of_c) || parenthesis == std::string::npos) {
                continue;
            }
            const std::size_t name = line.find_last_of(" *", parenthesis) + 1;
            const std::string call = line.substr(name, parenthesis - name);
            EXPECT_TRUE(has(text, ".Fn " + call)) << call;
            ++calls;
        }
    }
    EXPECT_EQ(calls, 14);
}

TEST_F(ManualTest, TheLimitsInThePageAreThoseOfTheStore) {
    std::string text;
    for (const std::string &line : part_of(page("tav.1"), ".Sh LIMITS", {".Sh ENV"})) {
        text += line + " ";
    }
    for (const std::size_t limit :
         {limits::path_bytes, limits::depth, limits::name_bytes, limits::value_bytes,
          limits::children_per_node, limits::elements, limits::paths_per_request,
          limits::frame_bytes >> 20U}) {
        EXPECT_TRUE(has(text, " " + std::to_string(limit) + " ")) << limit;
    }
}

TEST_F(ManualTest, TheExampleOfTheLibraryDoesWhatItSays) {
    const Ran ran = run(dir, {TAV_EXAMPLE_PROGRAM});
    EXPECT_EQ(ran.status, 0) << ran.errors;
    EXPECT_EQ(ran.output, "/lamp/state = on\n");
    stop();
    const Ran alone = run(dir, {TAV_EXAMPLE_PROGRAM});
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(alone.errors.substr(0, 11), "store (1): ");
}
