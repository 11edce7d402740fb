// The command watch.
#include <cstdio>
#include <ctime>
#include <deque>
#include <iostream>
#include <map>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ctl/authors.h"
#include "ctl/changes.h"
#include "ctl/output.h"
#include "ctl/screen.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

constexpr std::size_t log_length = 100;

// The remaining life times change without any event, so redraw at least this often.
constexpr std::chrono::seconds redraw_interval{30};

// The items of both sides, each with its state. Comparing two of these shows what changed.
struct item_t {
    std::string state;
    std::string path; // in the store; empty for the kernel's items
    bool operator!=(const item_t &other) const { return state != other.state; }
};
using items_t = std::map<std::string, item_t>;

struct state_t {
    bool store_answers = false;
    comparison_t comparison;
};

void add_items(const interface_view_t &interface, items_t &items) {
    const std::string link = shown(interface.link);
    const tk_string ipv6 = paths::ipv6(static_cast<std::int32_t>(interface.number));
    if (interface.kernel) {
        const bool up = interface.kernel->up;
        items[link + " kernel: link"].state =
            interface.kernel->carrier ? "up" : (up ? "up but not connected" : "down");
    }
    for (const address_row_t &row : interface.addresses) {
        if (row.kernel) {
            items[link + " kernel: " + prefix_text(row.kernel->address)].state =
                flags_text(row.kernel->flags);
        }
        if (row.stored) {
            items[link + " store: address node " + shown(row.stored->node)] = {
                shown(row.stored->text + " " + row.stored->type_text),
                paths::address(paths::addresses(ipv6), row.stored->node)};
        }
    }
    for (const gateway_row_t &row : interface.gateways) {
        if (row.kernel) {
            items[link + " kernel: default route via " + address_text(row.kernel->route.gateway)]
                .state = "protocol " + protocol_name(row.kernel->route.protocol);
        }
        if (row.stored) {
            items[link + " store: gateway"] = {shown(row.stored->text), paths::gateway(ipv6)};
        }
    }
}

items_t items_of(const state_t &state, const options_t &options) {
    items_t items;
    items["store"].state = state.store_answers ? "answers" : "does not answer";
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
std::vector<std::string> changes_between(const items_t &before, const items_t &now,
                                         const authors_t &authors) {
    std::vector<std::string> lines;
    const auto add = [&](const std::string &name, const std::string &state, const item_t &item) {
        const std::string author = item.path.empty() ? "" : authors.of(item.path);
        lines.push_back(name + (state.empty() ? "" : " (" + state + ")") +
                        (author.empty() ? "" : " by " + author));
    };
    const auto or_ready = [](const std::string &state) { return state.empty() ? "ready" : state; };
    for (const auto &[name, item] : before) {
        if (now.count(name) == 0) {
            add("- " + name, item.state, item);
        }
    }
    for (const auto &[name, item] : now) {
        const auto old = before.find(name);
        if (old == before.end()) {
            add("+ " + name, item.state, item);
        } else if (old->second != item) {
            add("~ " + name, or_ready(old->second.state) + " -> " + or_ready(item.state), item);
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

class watcher_t {
public:
    explicit watcher_t(const options_t &given)
        : options(given), changes(client), on_terminal(!given.json && isatty(STDOUT_FILENO) == 1) {
        // The store may come and go; the log shows it.
        library_reports = false;
    }

    int run() {
        changes.catch_signals();
        if (on_terminal) {
            screen.emplace();
            changes.watch_keys(STDIN_FILENO);
        }
        look_again();
        if (!on_terminal && is_not_there()) {
            std::fprintf(stderr, "tandrelctl: %s\n", nothing_yet().c_str());
        }
        while (std::cout.good()) { // main says what is wrong with the output
            switch (changes.wait(clock_type::now() + redraw_interval)) {
            case changes_t::seen_t::signal:
                return exit_done;
            case changes_t::seen_t::keys:
                if (!screen->handle(changes.take_keys())) {
                    return exit_done;
                }
                draw();
                break;
            default:
                look_again();
            }
        }
        return exit_done;
    }

private:
    bool is_not_there() const {
        return !options.link.empty() && state.store_answers && wanted().empty();
    }
    std::string nothing_yet() const {
        return "neither the kernel nor the store has a link " + shown(options.link) +
               "; waiting for it";
    }

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
        state = look_now();
        items_t now = items_of(state, options);
        if (!state.store_answers) {
            keep_stored_items(items, now);
        }
        const bool first = items.empty();
        authors.update(client);
        const std::vector<std::string> lines = changes_between(items, now, authors);
        items = now;
        if (options.json) {
            if (first || !lines.empty()) {
                print_state();
            }
            return;
        }
        note(lines, first);
        if (on_terminal) {
            draw();
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

    std::vector<const interface_view_t *> wanted() const {
        try {
            return chosen(state.comparison, options);
        } catch (const refusal &) {
            return {}; // the link does not exist at the moment
        }
    }

    void draw() {
        lines_t lines;
        if (!state.store_answers) {
            lines.push_back({style_t::bad, "the settings store does not answer"});
        }
        if (is_not_there()) {
            lines.push_back({style_t::warn, nothing_yet()});
        }
        const lines_t table = table_lines(wanted(), screen_t::columns());
        lines.insert(lines.end(), table.begin(), table.end());
        screen->draw(lines, log, tav::terminal::use_color(options.colour));
    }

    void print_state() const {
        json_t json{{"store", state.store_answers}, {"interfaces", json_t::array()}};
        for (const interface_view_t *interface : wanted()) {
            json["interfaces"].push_back(interface_json(*interface));
        }
        print_json(json, -1);
    }

    const options_t &options;
    client_t client;
    changes_t changes;
    bool on_terminal;
    std::optional<screen_t> screen;
    state_t state; // as of the last look
    items_t items;
    authors_t authors;
    std::deque<std::string> log;
};

} // namespace

int watch(const options_t &options) {
    return watcher_t(options).run();
}

} // namespace ctl
