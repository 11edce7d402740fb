#include "tool/script.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "terminal/escape.h"
#include "tool/screen.h"

namespace tav::tool {

namespace {

using Words = std::vector<std::string>;

constexpr std::string_view blanks = " \t\r";

// Text of the wrong line comes from a file and is escaped like any other text.
struct BadLine : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Removes one word from the front of `rest`; the result has no quotes, but still has its escapes.
std::string take_word(std::string_view &rest) {
    std::string word;
    bool quoted = false;
    while (!rest.empty() && (quoted || blanks.find(rest.front()) == std::string_view::npos)) {
        const char first = rest.front();
        if (first == '"') {
            quoted = !quoted;
            rest.remove_prefix(1);
            continue;
        }
        const std::size_t taken = first == '\\' && rest.size() > 1 ? 2 : 1;
        word += rest.substr(0, taken);
        rest.remove_prefix(taken);
    }
    if (quoted) {
        throw BadLine("unterminated \"");
    }
    return word;
}

Words words_of(std::string_view line) {
    Words words;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
        if (line.empty()) {
            return words;
        }
        const std::string word = take_word(line);
        const std::optional<std::string> plain = terminal::unescaped(word);
        if (!plain) {
            throw BadLine(
                "'" + shown(word) +
                "' contains a backslash that does not begin an escape; a backslash itself is \\\\");
        }
        words.push_back(*plain);
    }
}

void add_paths(const Words &words, std::size_t first, ItemKind kind, std::vector<Item> &items) {
    if (first == words.size()) {
        throw BadLine(words.front() + " needs a path");
    }
    for (std::size_t i = first; i < words.size(); ++i) {
        items.push_back(Item{kind, trimmed_path(words[i]), {}});
    }
}

void add_values(const Words &words, std::vector<Item> &items) {
    std::size_t first = 1;
    element_type_t type = element_type_string;
    if (words.size() > 1 && (words[1] == "-t" || words[1] == "--type")) {
        const std::optional<element_type_t> named =
            words.size() > 2 ? leaf_type(words[2]) : std::nullopt;
        if (!named) {
            throw BadLine(words[1] + " needs string, boolean, integer or real");
        }
        type = *named;
        first = 3;
    }
    if (first >= words.size() || (words.size() - first) % 2 != 0) {
        throw BadLine(
            "set needs pairs of a path and a value; put words that contain blanks in \"\"");
    }
    for (std::size_t i = first; i < words.size(); i += 2) {
        items.push_back(
            Item{ItemKind::set, trimmed_path(words[i]), Value{type, words[i + 1], no_time}});
    }
}

void add_step(const Words &words, std::vector<Item> &items) {
    const std::string &verb = words.front();
    if (verb == "set") {
        add_values(words, items);
    } else if (verb == "mknode") {
        add_paths(words, 1, ItemKind::make_node, items);
    } else if (verb == "touch") {
        add_paths(words, 1, ItemKind::touch, items);
    } else if (verb == "rm") {
        const bool all = words.size() > 1 && words[1] == "-r";
        add_paths(words, all ? 2 : 1, all ? ItemKind::remove : ItemKind::remove_single, items);
    } else {
        throw BadLine("'" + shown(verb) +
                      "' is not a step; the steps are set, mknode, rm and touch");
    }
}

} // namespace

Script parse_script(std::string_view text) {
    Script script;
    for (std::size_t line = 1; !text.empty(); ++line) {
        const std::string_view current = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(current.size() + 1, text.size()));
        const std::size_t start = current.find_first_not_of(blanks);
        if (start == std::string_view::npos || current[start] == '#') {
            continue;
        }
        try {
            add_step(words_of(current), script.items);
        } catch (const BadLine &error) {
            script.errors.push_back("line " + std::to_string(line) + ": " + error.what());
        }
        script.lines.resize(script.items.size(), line);
    }
    return script;
}

std::string trimmed_path(std::string path) {
    if (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

} // namespace tav::tool
