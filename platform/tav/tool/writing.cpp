// set, mknode, touch, rm and apply.
#include <algorithm>

#include "client/admin.h"
#include "protocol/limits.h"
#include "tool/explain.h"
#include "tool/file.h"
#include "tool/pending.h"
#include "tool/screen.h"
#include "tool/script.h"
#include "tool/tool.h"
#include "tool/transaction.h"

namespace tav::tool {

int transact(Client &client, const std::vector<Item> &items, std::vector<api_status_t> &statuses) {
    api_status_t stated = api_status_none;
    if (tav::state_program(client.handle(), "tav", stated) != 0) {
        return -1;
    }
    std::uint64_t number = 0;
    const int result = client.term == 0 ? tav::transact(client.handle(), items, statuses)
                                        : tav::transact_pending(client.handle(), items, client.term,
                                                                statuses, number);
    const bool done =
        result == 0 && std::all_of(statuses.begin(), statuses.end(),
                                   [](api_status_t one) { return one == api_status_ok; });
    if (done && client.term == 0) {
        warn_of_pending(client, items);
    } else if (done) {
        print_term(number, client.term);
    }
    return result;
}

int perform(Client &client, const std::vector<Item> &items, const Place &place) {
    std::vector<api_status_t> statuses;
    return transact(client, items, statuses) == 0 ? report(client, items, statuses, place)
                                                  : exit_unreachable;
}

int report(Client &client, const std::vector<Item> &items,
           const std::vector<api_status_t> &statuses, const Place &place) {
    const auto is = [](api_status_t wanted) {
        return [wanted](api_status_t status) { return status == wanted; };
    };
    if (!items.empty() && std::all_of(statuses.begin(), statuses.end(), is(api_status_too_large))) {
        complain("nothing was changed: one transaction has at most " +
                 std::to_string(limits::paths_per_request) + " steps and " +
                 std::to_string(limits::frame_bytes >> 20U) + " MiB");
        return exit_refused;
    }
    // This does not concern a single path: all of them have the same status.
    if (!items.empty() && std::all_of(statuses.begin(), statuses.end(), is(api_status_failed))) {
        complain_writing(client, items.front(), api_status_failed, place(0));
        return exit_refused;
    }
    if (!items.empty() &&
        std::all_of(statuses.begin(), statuses.end(), is(api_status_too_much_pending))) {
        complain("nothing was changed: a user may have at most " +
                 std::to_string(limits::pending_changes) + " unconfirmed changes, of " +
                 std::to_string(limits::pending_bytes >> 20U) +
                 " MiB in all; to list them: tav status");
        return exit_refused;
    }
    int result = exit_done;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (statuses[i] == api_status_ok) {
            continue;
        }
        result = exit_refused;
        // The others were only not done because of the refused one.
        if (statuses[i] != api_status_not_done) {
            complain_writing(client, items[i], statuses[i], place(i));
        }
    }
    return result;
}

namespace {

int perform_on_paths(Client &client, const Options &options, ItemKind kind) {
    std::vector<Item> items;
    for (const std::string &path : options.paths) {
        items.push_back(Item{kind, path, {}});
    }
    return perform(client, items);
}

} // namespace

int set(Client &client, const Options &options) {
    std::vector<Item> items;
    if (options.condition) {
        items.push_back(Item{ItemKind::require, options.words.front(),
                             Value{options.type, *options.condition, no_time}});
    }
    for (std::size_t i = 0; i + 1 < options.words.size(); i += 2) {
        items.push_back(Item{ItemKind::set, options.words[i],
                             Value{options.type, options.words[i + 1], no_time}});
    }
    return perform(client, items);
}

int make_node(Client &client, const Options &options) {
    return perform_on_paths(client, options, ItemKind::make_node);
}

int touch(Client &client, const Options &options) {
    return perform_on_paths(client, options, ItemKind::touch);
}

int remove(Client &client, const Options &options) {
    return perform_on_paths(client, options,
                            options.recursive ? ItemKind::remove : ItemKind::remove_single);
}

int apply(Client &client, const Options &options) {
    const std::optional<std::string> text = read_file(options.file);
    if (!text) {
        return exit_refused; // read_file has printed a message
    }
    const Script script = parse_script(*text);
    for (const std::string &error : script.errors) {
        complain(error);
    }
    if (!script.errors.empty()) {
        complain("nothing was changed; for the form of a step see tav apply --help");
        return exit_refused;
    }
    return perform(client, script.items, [&script](std::size_t i) {
        return "line " + std::to_string(script.lines[i]) + ": ";
    });
}

} // namespace tav::tool
