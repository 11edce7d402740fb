// set, mknode, touch and rm.
#include <iostream>

#include "client/admin.h"
#include "tool/text.h"
#include "tool/tool.h"
#include "tool/transaction.h"

namespace tav::tool {

int perform(Client &client, const std::vector<Item> &items) {
    std::vector<api_status_t> statuses;
    if (tav::transact(client.handle(), items, statuses) != 0) {
        return exit_unreachable;
    }
    int result = exit_done;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (statuses[i] == api_status_ok) {
            continue;
        }
        result = exit_refused;
        // The others of the transaction are only not done because of the one that was refused.
        if (statuses[i] != api_status_not_done) {
            complain(items[i].path, statuses[i]);
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
    return perform_on_paths(client, options, ItemKind::remove);
}

} // namespace tav::tool
