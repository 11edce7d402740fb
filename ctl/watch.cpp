// The command watch.
#include <ctime>
#include <deque>
#include <iostream>
#include <map>

#include <sys/ioctl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ctl/changes.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace ctl {

namespace {

constexpr std::size_t log_length = 100;

// The remaining life times change without any event, so redraw at least this often.
constexpr std::chrono::seconds redraw_interval{30};

// The items of both sides, each with its state. Comparing two of these shows what changed.
using items_t = std::map<std::string, std::string>;

struct state_t {
    bool store_answers = false;
    comparison_t comparison;
};

void add_items(const interface_view_t &interface, items_t &items) {
    const std::string link = shown(interface.link);
    if (interface.kernel) {
        items[link + " kernel: link"] = interface.kernel->carrier ? "up"
                                        : interface.kernel->up    ? "up but not connected"
                                                                  : "down";
    }
    for (const address_row_t &row : interface.addresses) {
        if (row.kernel) {
            items[link + " kernel: " + prefix_text(row.kernel->address)] =
                flags_text(row.kernel->flags);
        }
        if (row.stored) {
            items[link + " store: address node " + shown(row.stored->node)] =
                shown(row.stored->text + " " + row.stored->type_text);
        }
    }
    for (const gateway_row_t &row : interface.gateways) {
        if (row.kernel) {
            items[link + " kernel: default route via " + address_text(row.kernel->route.gateway)] =
                "protocol " + protocol_name(row.kernel->route.protocol);
        }
        if (row.stored) {
            items[link + " store: gateway"] = shown(row.stored->text);
        }
    }
}

items_t items_of(const state_t &state, const options_t &options) {
    items_t items;
    items["store"] = state.store_answers ? "answers" : "does not answer";
    for (const interface_view_t &interface : state.comparison.interfaces) {
        const bool wanted = options.link.empty() ? interface.tracked || interface.has_node
                                                 : interface.link == options.link;
        if (wanted) {
            add_items(interface, items);
        }
    }
    return items;
}

// If the store does not answer, its items are unknown, not removed.
void keep_stored_items(const items_t &before, items_t &now) {
    for (const auto &item : before) {
        if (item.first.find(" store: ") != std::string::npos) {
            now.insert(item);
        }
    }
}

// The changes between two states, one line each: + added, - removed, ~ changed.
std::vector<std::string> changes_between(const items_t &before, const items_t &now) {
    std::vector<std::string> lines;
    const auto with_state = [](const std::string &name, const std::string &state) {
        return state.empty() ? name : name + " (" + state + ")";
    };
    for (const auto &[name, state] : before) {
        if (now.count(name) == 0) {
            lines.push_back("- " + with_state(name, state));
        }
    }
    for (const auto &[name, state] : now) {
        const auto old = before.find(name);
        if (old == before.end()) {
            lines.push_back("+ " + with_state(name, state));
        } else if (old->second != state) {
            lines.push_back("~ " + name + " (" + (old->second.empty() ? "ready" : old->second) +
                            " -> " + (state.empty() ? "ready" : state) + ")");
        }
    }
    return lines;
}

std::string time_of_day() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// The beginning of a text, at most `width` columns.
std::string cut(const std::string &text, std::size_t columns) {
    std::size_t used = 0;
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        const bool starts_character = (static_cast<unsigned char>(text[at]) & 0xc0U) != 0x80U;
        if (starts_character && ++used > columns) {
            break;
        }
    }
    return text.substr(0, at);
}

// Uses the terminal's alternate screen during its lifetime; then the previous content is shown
// again.
class screen_t {
public:
    screen_t() { std::cout << "\x1b[?1049h\x1b[?25l" << std::flush; }
    ~screen_t() { std::cout << "\x1b[?25h\x1b[?1049l" << std::flush; }
    screen_t(const screen_t &) = delete;
    screen_t &operator=(const screen_t &) = delete;

    // Shows the table, and below it as many of the latest log lines as fit.
    static void draw(const lines_t &table, const std::deque<std::string> &log, bool colour) {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
            size.ws_row = 24;
            size.ws_col = 80;
        }
        lines_t lines = table;
        lines.push_back({style_t::plain, ""});
        const std::size_t rows = size.ws_row - 1U; // the last line stays empty, so nothing scrolls
        const std::size_t room = rows > lines.size() ? rows - lines.size() : 0;
        const std::size_t first = log.size() > room ? log.size() - room : 0;
        for (std::size_t i = first; i < log.size(); ++i) {
            lines.push_back({style_t::plain, log[i]});
        }
        if (lines.size() > rows) {
            lines.resize(rows);
        }
        std::string text = "\x1b[H";
        for (const line_t &line : lines) {
            text += tav::terminal::painted(cut(line.text, size.ws_col), line.style, colour) +
                    "\x1b[K\r\n";
        }
        std::cout << text << "\x1b[J" << std::flush;
    }
};

class watcher_t {
public:
    explicit watcher_t(const options_t &given)
        : options(given), changes(client), on_terminal(!given.json && isatty(STDOUT_FILENO) == 1) {
        // The store may come and go; the log shows it.
        library_reports = false;
    }

    int run() {
        changes.catch_signals();
        std::unique_ptr<screen_t> screen;
        if (on_terminal) {
            screen = std::make_unique<screen_t>();
        }
        for (;;) {
            look_again();
            if (changes.wait(clock_type::now() + redraw_interval) == changes_t::seen_t::signal) {
                return exit_done;
            }
        }
    }

private:
    state_t look_now() {
        if (client.subscribe()) {
            try {
                return {true, look(client, options)};
            } catch (const store_lost &) {
                client.disconnect();
            }
        }
        return {false, compare(read_kernel(), store_view_t{}, options.prefix)};
    }

    void look_again() {
        const state_t state = look_now();
        items_t now = items_of(state, options);
        if (!state.store_answers) {
            keep_stored_items(items, now);
        }
        const bool first = items.empty();
        const std::vector<std::string> lines = changes_between(items, now);
        items = now;
        if (options.json) {
            if (first || !lines.empty()) {
                print_state(state);
            }
            return;
        }
        note(lines, first);
        if (on_terminal) {
            draw(state);
        }
    }

    void note(const std::vector<std::string> &lines, bool first) {
        const std::string time = time_of_day();
        for (const std::string &line : lines) {
            if (!on_terminal) {
                std::cout << time << ' ' << line
                          << std::endl; // flush each line at once for the reader
            } else if (!first) {
                log.push_back(std::string(time).append(" ").append(line));
            }
        }
        while (log.size() > log_length) {
            log.pop_front();
        }
    }

    std::vector<const interface_view_t *> wanted(const state_t &state) const {
        try {
            return chosen(state.comparison, options);
        } catch (const refusal &) {
            return {}; // the link does not exist at the moment
        }
    }

    void draw(const state_t &state) const {
        lines_t lines;
        if (!state.store_answers) {
            lines.push_back({style_t::bad, "the settings store does not answer"});
        }
        const lines_t table = table_lines(wanted(state));
        lines.insert(lines.end(), table.begin(), table.end());
        screen_t::draw(lines, log, tav::terminal::use_color(options.colour));
    }

    void print_state(const state_t &state) const {
        json_t json{{"store", state.store_answers}, {"interfaces", json_t::array()}};
        for (const interface_view_t *interface : wanted(state)) {
            json["interfaces"].push_back(interface_json(*interface));
        }
        print_json(json, -1);
    }

    const options_t &options;
    client_t client;
    changes_t changes;
    bool on_terminal;
    items_t items;
    std::deque<std::string> log;
};

} // namespace

int watch(const options_t &options) {
    return watcher_t(options).run();
}

} // namespace ctl
