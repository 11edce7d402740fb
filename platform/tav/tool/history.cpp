// history and undo.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include <nlohmann/json.hpp>

#include "client/admin.h"
#include "service/path.h"
#include "tool/dump_format.h"
#include "tool/explain.h"
#include "tool/screen.h"
#include "tool/tool.h"
#include "tool/transaction.h"
#include "tool/undo.h"

namespace tav::tool {

namespace {

// Reads the entries after `since` that concern the path. Returns an exit code.
int read_history(Client &client, const std::string &path, std::uint64_t since, History &history) {
    api_status_t status = api_status_none;
    if (tav::history(client.handle(), path, since, status, history) != 0) {
        return exit_unreachable;
    }
    if (status == api_status_refused) {
        complain("the service keeps no history: tavd was started with --history 0");
        return exit_refused;
    }
    if (status != api_status_ok) {
        complain_reading(client, path, status, Wanted::anything);
        return exit_refused;
    }
    return exit_done;
}

// In UTC.
std::string time_text(std::int64_t time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    char text[64] = "";
    if (::gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(time);
    }
    return text;
}

std::string number_of_elements(std::uint64_t number) {
    return std::to_string(number) + (number == 1 ? " element" : " elements");
}

bool lacks_values(const HistoryEntry &entry) {
    return entry.changes.empty() && entry.elements != 0;
}

void print_text(const History &history, const std::string &path) {
    for (const HistoryEntry &entry : history.entries) {
        std::cout << painted(std::to_string(entry.number), Style::heading) << "  "
                  << time_text(entry.time) << "  " << author_text(entry) << "  "
                  << number_of_elements(entry.elements)
                  << (lacks_values(entry) ? ", too many for the history to keep their values" : "")
                  << '\n';
        for (const ChangedElement &change : entry.changes) {
            if (!is_at_or_below(change.path, path)) {
                continue;
            }
            if (change.existed) {
                std::cout << painted("- ", Style::bad)
                          << element_line(change.path, change.before.type, change.before.text,
                                          Style::bad)
                          << '\n';
            }
            if (change.exists) {
                std::cout << painted("+ ", Style::good)
                          << element_line(change.path, change.after.type, change.after.text,
                                          Style::good)
                          << '\n';
            }
        }
    }
}

Json value_json(bool exists, const Value &value) {
    if (!exists) {
        return Json();
    }
    Json entry = Json::object();
    entry["type"] = type_name(value.type);
    if (value.type != element_type_node) {
        add_text(entry, "value", value.text);
        entry["time"] = value.time;
    }
    return entry;
}

void print_json(const History &history, const std::string &path) {
    Json all = {{"oldest", history.oldest}, {"last", history.last}, {"entries", Json::array()}};
    for (const HistoryEntry &entry : history.entries) {
        Json one = {
            {"number", entry.number}, {"time", entry.time}, {"uid", entry.uid}, {"pid", entry.pid}};
        add_text(one, "program", entry.program);
        one["service"] = entry.service;
        one["elements"] = entry.elements;
        one["changes"] = Json::array();
        for (const ChangedElement &change : entry.changes) {
            if (is_at_or_below(change.path, path)) {
                Json element = Json::object();
                add_text(element, "path", change.path);
                element["before"] = value_json(change.existed, change.before);
                element["after"] = value_json(change.exists, change.after);
                one["changes"].push_back(std::move(element));
            }
        }
        all["entries"].push_back(std::move(one));
    }
    std::cout << terminal::json_text(all, 2) << '\n';
}

bool same(bool exists, const Value &value, bool other_exists, const Value &other) {
    return exists == other_exists &&
           (!exists || (value.type == other.type && value.text == other.text));
}

// Whether the same process made the earlier change and took it back at once, for example to wake a
// daemon.
bool takes_back(const HistoryEntry &later, const HistoryEntry &earlier) {
    return later.pid == earlier.pid && later.uid == earlier.uid && later.time - earlier.time <= 1 &&
           !later.changes.empty() && later.changes.size() == earlier.changes.size() &&
           std::is_permutation(later.changes.begin(), later.changes.end(), earlier.changes.begin(),
                               [](const ChangedElement &now, const ChangedElement &then) {
                                   return now.path == then.path &&
                                          same(now.existed, now.before, then.exists, then.after) &&
                                          same(now.exists, now.after, then.existed, then.before);
                               });
}

// The number of the change that the service reverted with this entry; 0: it is no reversion.
std::uint64_t number_reverted(const HistoryEntry &entry) {
    const std::string name = "tavd reverting ";
    return entry.service && entry.program.compare(0, name.size(), name) == 0
               ? std::strtoull(entry.program.c_str() + name.size(), nullptr, 10)
               : 0;
}

// Whether the reversion of a change left nothing of the entry, which is that change or a later one
// of the same elements.
bool is_ended_by(const HistoryEntry &reversion, const HistoryEntry &entry) {
    const std::uint64_t number = number_reverted(reversion);
    const auto is_reverted = [&](const ChangedElement &change) {
        return std::any_of(reversion.changes.begin(), reversion.changes.end(),
                           [&](const ChangedElement &other) { return other.path == change.path; });
    };
    return entry.number == number ||
           (entry.number > number && !entry.changes.empty() &&
            std::all_of(entry.changes.begin(), entry.changes.end(), is_reverted));
}

// The last entry that was neither ended by a reversion nor taken back at once. Null if there is
// none.
const HistoryEntry *last_change(const History &history) {
    std::vector<const HistoryEntry *> reversions;
    std::vector<const HistoryEntry *> changes; // newest first
    for (auto entry = history.entries.rbegin(); entry != history.entries.rend(); ++entry) {
        if (number_reverted(*entry) != 0) {
            reversions.push_back(&*entry);
        } else if (!entry->service &&
                   std::none_of(reversions.begin(), reversions.end(),
                                [&](const auto *one) { return is_ended_by(*one, *entry); })) {
            changes.push_back(&*entry);
        }
    }
    std::size_t i = 0;
    while (i + 1 < changes.size() && takes_back(*changes[i], *changes[i + 1])) {
        i += 2;
    }
    return i < changes.size() ? changes[i] : nullptr;
}

const HistoryEntry *numbered(const History &history, std::uint64_t number) {
    const auto found =
        std::find_if(history.entries.begin(), history.entries.end(),
                     [number](const HistoryEntry &entry) { return entry.number == number; });
    return found != history.entries.end() ? &*found : nullptr;
}

// The entry to undo; null, after a message, if there is none.
const HistoryEntry *entry_to_undo(const History &history, std::optional<std::uint64_t> number) {
    const HistoryEntry *const found = number ? numbered(history, *number) : last_change(history);
    if (found == nullptr) {
        complain(number ? "the history has no entry " + std::to_string(*number) +
                              "; to list it: tav history"
                        : "the history has no change to undo, only those that services made or "
                          "that were reverted; to undo one of these, give its number");
        return nullptr;
    }
    if (found->changes.empty()) {
        complain("entry " + std::to_string(found->number) + " cannot be undone: it changed " +
                 number_of_elements(found->elements) +
                 (lacks_values(*found) ? ", too many for the history to keep their values" : ""));
        return nullptr;
    }
    return found;
}

// Says who changed the element after the entry.
void complain_changed(const History &history, std::uint64_t after, const std::string &path) {
    for (auto entry = history.entries.rbegin();
         entry != history.entries.rend() && entry->number > after; ++entry) {
        for (const ChangedElement &change : entry->changes) {
            if (change.path == path) {
                complain(shown(path) + ": changed since, in entry " +
                         std::to_string(entry->number) + " at " + time_text(entry->time) + " by " +
                         author_text(*entry));
                return;
            }
        }
    }
    complain(shown(path) + ": changed since");
}

} // namespace

std::string author_text(const HistoryEntry &entry) {
    return (entry.service ? "service " : "") +
           (entry.program.empty() ? std::string("unnamed") : shown(entry.program)) + ", process " +
           std::to_string(entry.pid) + ", user " + std::to_string(entry.uid);
}

std::vector<Item> steps_to_undo(const HistoryEntry &entry) {
    std::vector<const ChangedElement *> changes;
    for (const ChangedElement &change : entry.changes) {
        changes.push_back(&change);
    }
    std::sort(changes.begin(), changes.end(),
              [](const auto *left, const auto *right) { return left->path < right->path; });
    std::vector<Item> items;
    items.reserve(changes.size());
    for (const ChangedElement *change : changes) {
        items.push_back(change->exists ? Item{ItemKind::require, change->path, change->after}
                                       : Item{ItemKind::require_absent, change->path, {}});
    }
    const auto is_node = [](bool exists, const Value &value) {
        return exists && value.type == element_type_node;
    };
    const auto other_kind = [&](const ChangedElement &change) {
        return !change.existed || is_node(true, change.before) != is_node(true, change.after);
    };
    // Children before their parents.
    for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
        if ((*change)->exists && other_kind(**change)) {
            items.push_back(Item{ItemKind::remove_single, (*change)->path, {}});
        }
    }
    for (const ChangedElement *change : changes) {
        if (is_node(change->existed, change->before)) {
            items.push_back(Item{ItemKind::make_node, change->path, {}});
        } else if (change->existed) {
            items.push_back(Item{ItemKind::set, change->path, change->before});
        }
    }
    return items;
}

int history(Client &client, const Options &options) {
    History history;
    const std::string &path = options.paths.front();
    const int result = read_history(client, path, options.number.value_or(0), history);
    if (result != exit_done) {
        return result;
    }
    if (options.number && *options.number + 1 < history.oldest) {
        complain("entries before " + std::to_string(history.oldest) + " may be missing");
    }
    if (options.json) {
        print_json(history, path);
    } else {
        print_text(history, path);
    }
    return exit_done;
}

int undo(Client &client, const Options &options) {
    History history;
    const std::uint64_t since = options.number && *options.number > 0 ? *options.number - 1 : 0;
    const int read = read_history(client, "/", since, history);
    if (read != exit_done) {
        return read;
    }
    const HistoryEntry *const entry = entry_to_undo(history, options.number);
    if (entry == nullptr) {
        return exit_refused;
    }
    const std::vector<Item> items = steps_to_undo(*entry);
    std::vector<api_status_t> statuses;
    if (transact(client, items, statuses) != 0) {
        return exit_unreachable;
    }
    if (std::count(statuses.begin(), statuses.end(), api_status_changed) == 0) {
        const int result = report(client, items, statuses);
        if (result == exit_done) {
            std::cout << "entry " << entry->number << " is undone: " << author_text(*entry) << ", "
                      << number_of_elements(entry->elements) << '\n';
        }
        return result;
    }
    // What happened between reading and undoing is in the history, too.
    const std::uint64_t number = entry->number;
    const int again = read_history(client, "/", number, history);
    for (std::size_t i = 0; again == exit_done && i < items.size(); ++i) {
        if (statuses[i] == api_status_changed) {
            complain_changed(history, number, items[i].path);
        }
    }
    return again == exit_unreachable ? again : exit_refused;
}

} // namespace tav::tool
