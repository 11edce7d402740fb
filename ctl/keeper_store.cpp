#include "ctl/keeper_store.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

#ifdef TANDREL_STORE_STATUS
#include "client/admin.h"

// Weak, because the unit tests do not link the store's library.
namespace tav {
__attribute__((weak)) int transact(mlr_client_t *client, const std::vector<Item> &items,
                                   std::vector<api_status_t> &statuses);
__attribute__((weak)) int service_status(mlr_client_t *client, ServiceStatus &status);
__attribute__((weak)) int history(mlr_client_t *client, const std::string &path,
                                  std::uint64_t since, api_status_t &status, History &history);
} // namespace tav
#endif

#include "store/paths.h"
#include "store/tav_values.h"

namespace ctl {

#ifdef TANDREL_STORE_STATUS

namespace {

tav::Item item_of(const write_t &write) {
    switch (write.kind) {
    case write_t::set:
        return {
            tav::ItemKind::set, write.path, {element_type_string, write.text, std::time(nullptr)}};
    case write_t::clear:
        return {tav::ItemKind::clear, write.path, {}};
    case write_t::same:
        return {
            tav::ItemKind::require, write.path, {element_type_string, write.text, tav::no_time}};
    case write_t::absent:
        break;
    }
    return {tav::ItemKind::require_absent, write.path, {}};
}

std::optional<std::string> text_of(bool exists, const tav::Value &value) {
    return exists && value.type == element_type_string ? std::optional(value.text) : std::nullopt;
}

// The store makes that change itself, under this name.
std::uint64_t number_reverted(const tav::HistoryEntry &entry) {
    const std::string name = "tavd reverting ";
    return entry.service && entry.program.compare(0, name.size(), name) == 0
               ? std::strtoull(entry.program.c_str() + name.size(), nullptr, 10)
               : 0;
}

} // namespace

store_history_t read_history(client_t &client, const std::string &path, std::uint64_t since) {
    api_status_t status = tav_value::status_unset;
    tav::History history;
    if (tav::history(client.tav.handle, path, since, status, history) != 0) {
        throw store_lost(store_silent);
    }
    if (status != api_status_ok) {
        throw refusal("the store keeps no history of its changes, which 'keep' needs");
    }
    store_history_t result{history.oldest, history.last, {}};
    for (const tav::HistoryEntry &entry : history.entries) {
        store_change_t change{
            entry.number,           entry.time, entry.service ? entry.program : "",
            number_reverted(entry), {},         entry.changes.empty() && entry.elements != 0};
        for (const tav::ChangedElement &one : entry.changes) {
            change.leaves.push_back(
                {one.path, text_of(one.existed, one.before), text_of(one.exists, one.after)});
        }
        result.changes.push_back(change);
    }
    return result;
}

bool carry_out(client_t &client, const writes_t &writes) {
    std::vector<tav::Item> items;
    items.reserve(writes.size());
    for (const write_t &write : writes) {
        items.push_back(item_of(write));
    }
    std::vector<api_status_t> statuses;
    if (tav::transact(client.tav.handle, items, statuses) != 0) {
        throw store_lost(store_silent);
    }
    return std::all_of(statuses.begin(), statuses.end(),
                       [](api_status_t status) { return status == api_status_ok; });
}

namespace {

tav::ServiceStatus status_of(client_t &client) {
    tav::ServiceStatus status;
    if (&tav::service_status != nullptr && tav::service_status(client.tav.handle, status) != 0) {
        throw store_lost(store_silent);
    }
    return status;
}

std::uint32_t process_in(const tav::ServiceStatus &status, const std::string &service) {
    for (const tav::WatchdogStatus &one : status.watchdogs) {
        if (one.name == service && one.state != tav::WatchdogState::gone) {
            return one.pid;
        }
    }
    return 0;
}

} // namespace

std::uint32_t process_of(client_t &client, const std::string &service) {
    return process_in(status_of(client), service);
}

std::uint64_t session_of(client_t &client, const std::string &service) {
    const tav::ServiceStatus status = status_of(client);
    const std::uint32_t process = process_in(status, service);
    std::uint64_t session = 0;
    for (const tav::ClientStatus &one : status.clients) {
        if (process != 0 && one.pid == process) {
            session = std::max(session, one.session);
        }
    }
    return session;
}

#else

namespace {

[[noreturn]] void refuse() {
    throw refusal("this store keeps no history of its changes, which 'keep' needs");
}

} // namespace

store_history_t read_history(client_t &, const std::string &, std::uint64_t) {
    refuse();
}

bool carry_out(client_t &, const writes_t &) {
    refuse();
}

std::uint32_t process_of(client_t &, const std::string &) {
    return 0;
}

std::uint64_t session_of(client_t &, const std::string &) {
    return 0;
}

#endif

} // namespace ctl
