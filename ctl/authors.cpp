#include "ctl/authors.h"

#include <algorithm>

#include <pwd.h>

#include "ctl/text.h"
#include "store/paths.h"

#ifdef TANDREL_STORE_STATUS
#include "client/admin.h"

// Weak, because the unit tests do not link the store's library.
namespace tav {
__attribute__((weak)) int history(mlr_client_t *client, const std::string &path,
                                  std::uint64_t since, api_status_t &status, History &history);
}
#endif

namespace ctl {

#ifdef TANDREL_STORE_STATUS
namespace {

constexpr std::size_t most_changes = 1000;

std::string author_of(const tav::HistoryEntry &entry) {
    if (entry.service) {
        return shown(entry.program);
    }
    const passwd *user = getpwuid(entry.uid);
    return (user != nullptr ? shown(user->pw_name) : "user " + std::to_string(entry.uid)) + " (" +
           (entry.program.empty() ? "process " + std::to_string(entry.pid) : shown(entry.program)) +
           ")";
}

} // namespace

void authors_t::update(client_t &client) {
    api_status_t status = api_status_none;
    tav::History history;
    if (&tav::history == nullptr || !client.connected() ||
        tav::history(client.tav.handle, paths::interfaces, last, status, history) != 0 ||
        status != api_status_ok) {
        return;
    }
    for (const tav::HistoryEntry &entry : history.entries) {
        for (const tav::ChangedElement &element : entry.changes) {
            changes.push_back({element.path, author_of(entry)});
        }
    }
    while (changes.size() > most_changes) {
        changes.pop_front();
    }
    last = history.last; // less than before if this is another store
}
#else
void authors_t::update(client_t & /*client*/) {}
#endif

std::string authors_t::of(const std::string &path) const {
    const auto found = std::find_if(changes.rbegin(), changes.rend(), [&](const change_t &change) {
        return change.path.compare(0, path.size(), path) == 0 &&
               (change.path.size() == path.size() || change.path[path.size()] == '/');
    });
    return found != changes.rend() ? found->author : "";
}

} // namespace ctl
