#include "ctl/words.h"

#include <algorithm>
#include <numeric>

#include "ctl/text.h"

namespace ctl {

namespace {

std::vector<std::string> names_of(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

std::vector<std::string> beginning_with(const std::vector<std::string> &names,
                                        const std::string &word) {
    std::vector<std::string> found;
    for (const std::string &name : names) {
        if (name == word) {
            return {name};
        }
        if (name.compare(0, word.size(), word) == 0) {
            found.push_back(name);
        }
    }
    return found;
}

// The number of letters to insert, delete, replace or swap with the next one.
std::size_t distance(const std::string &left, const std::string &right) {
    std::vector<std::vector<std::size_t>> cost(left.size() + 1,
                                               std::vector<std::size_t>(right.size() + 1));
    std::iota(cost[0].begin(), cost[0].end(), 0);
    for (std::size_t i = 1; i <= left.size(); ++i) {
        cost[i][0] = i;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const bool same = left[i - 1] == right[j - 1];
            cost[i][j] = std::min(
                {cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
            }
        }
    }
    return cost[left.size()][right.size()];
}

std::string joined(const std::vector<std::string> &names, const char *last) {
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == names.size() ? last : ", ") + ("'" + names[i] + "'");
    }
    return text;
}

} // namespace

void complete_commands(const CLI::App &app, std::vector<std::string> &words) {
    const CLI::App *level = &app;
    for (std::size_t i = 0; i < words.size() && !names_of(*level).empty(); ++i) {
        std::string &word = words[i];
        if (word == "-i" || word == "--interface-prefix" || word == "--color") {
            ++i; // the option's value
        } else if (!word.empty() && word.front() != '-') {
            const std::vector<std::string> found = beginning_with(names_of(*level), word);
            if (found.size() != 1) {
                return;
            }
            word = found.front();
            level = level->get_subcommand(word);
        }
    }
}

std::string unknown_command(const CLI::App &app, const std::string &word) {
    const std::vector<std::string> names = names_of(app);
    std::vector<std::string> close = beginning_with(names, word);
    if (!close.empty()) {
        return "'" + shown(word) + "' is short for several commands: " + joined(close, " and ");
    }
    constexpr std::size_t farthest = 2;
    for (std::size_t limit = 1; close.empty() && limit <= farthest; ++limit) {
        std::copy_if(names.begin(), names.end(), std::back_inserter(close),
                     [&](const std::string &name) { return distance(name, word) <= limit; });
    }
    return "unknown command '" + shown(word) + "'" +
           (close.empty() ? "" : "; did you mean " + joined(close, " or ") + "?");
}

} // namespace ctl
