// confirm, and what other commands say about changes that must be confirmed.
#include "tool/pending.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "client/admin.h"
#include "service/path.h"
#include "tool/screen.h"
#include "tool/undo.h"

namespace tav::tool {

std::string seconds_text(std::uint32_t milliseconds) {
    std::ostringstream text;
    text << milliseconds / 1000.0 << " s";
    return text.str();
}

void print_term(std::uint64_t number, std::uint32_t term) {
    if (number == 0) {
        std::cout << "nothing was changed, so there is nothing to confirm\n";
        return;
    }
    std::cout << "change " << number << " will be reverted in " << seconds_text(term)
              << " unless you confirm it: tav confirm " << number << '\n';
}

namespace {

bool touches(const PendingChange &one, const std::string &path) {
    const std::vector<ChangedElement> &changes = one.change.changes;
    return std::any_of(changes.begin(), changes.end(), [&path](const ChangedElement &change) {
        return is_at_or_below(change.path, path) || is_at_or_below(path, change.path);
    });
}

// None if the service does not answer, which the next call reports.
std::vector<PendingChange> pending_of(Client &client) {
    std::vector<PendingChange> all;
    if (tav::pending(client.handle(), all) != 0) {
        all.clear();
    }
    return all;
}

} // namespace

void warn_of_pending(Client &client, const std::vector<Item> &items) {
    for (const PendingChange &one : pending_of(client)) {
        if (std::any_of(items.begin(), items.end(),
                        [&one](const Item &item) { return touches(one, item.path); })) {
            std::ostringstream text;
            text << "stored, but change " << one.change.number
                 << " of the same elements is waiting for confirmation; in "
                 << seconds_text(one.left)
                 << " both will be reverted unless it is confirmed: tav confirm "
                 << one.change.number;
            complain(text.str());
        }
    }
}

std::string advice_for_pending(Client &client, const std::string &path) {
    for (const PendingChange &one : pending_of(client)) {
        if (touches(one, path)) {
            const std::string number = std::to_string(one.change.number);
            std::string text = "change " + number;
            text += " by ";
            text += author_text(one.change);
            text += " will be reverted in ";
            text += seconds_text(one.left);
            text += " unless it is confirmed: tav confirm ";
            text += number;
            return text;
        }
    }
    return "";
}

int confirm(Client &client, const Options &options) {
    const std::uint64_t number = options.number.value_or(0);
    api_status_t status = api_status_none;
    std::uint64_t confirmed = 0;
    // The number 0 means "the only one" to the service.
    if (options.number == 0) {
        status = api_status_absent;
    } else if (tav::confirm(client.handle(), number, status, confirmed) != 0) {
        return exit_unreachable;
    }
    switch (status) {
    case api_status_ok:
        std::cout << "change " << confirmed << " is confirmed\n";
        return exit_done;
    case api_status_absent:
        complain((options.number ? "change " + std::to_string(number) + " is not waiting"
                                 : "you have no change that is waiting") +
                 std::string(" for confirmation; to list all that are: tav status"));
        return exit_refused;
    case api_status_refused:
        complain(
            "several of your changes are waiting; give the number of one (tav status lists them)");
        return exit_refused;
    case api_status_denied:
        complain("permission denied: only users who may write can confirm changes");
        return exit_refused;
    default:
        complain("the confirmation could not be stored; the service's log says why");
        return exit_refused;
    }
}

} // namespace tav::tool
