// The command confirm, and what other commands do for changes that must be confirmed.
#include "ctl/confirm.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <sstream>

#include "ctl/text.h"

#ifdef TANDREL_STORE_STATUS
#include "client/admin.h"
#include "protocol/limits.h"

// Weak, because the unit tests do not link the store's library.
namespace tav {
__attribute__((weak)) int transact(mlr_client_t *client, const std::vector<Item> &items,
                                   std::vector<api_status_t> &statuses);
__attribute__((weak)) int transact_pending(mlr_client_t *client, const std::vector<Item> &items,
                                           std::uint32_t term, std::vector<api_status_t> &statuses,
                                           std::uint64_t &number);
__attribute__((weak)) int confirm(mlr_client_t *client, std::uint64_t number, api_status_t &status,
                                  std::uint64_t &confirmed);
__attribute__((weak)) int pending(mlr_client_t *client, std::vector<PendingChange> &changes);
} // namespace tav
#endif

namespace ctl {

#ifdef TANDREL_STORE_STATUS

namespace {

bool is_at_or_below(const std::string &path, const std::string &ancestor) {
    return path.compare(0, ancestor.size(), ancestor) == 0 &&
           (path.size() == ancestor.size() || path[ancestor.size()] == '/');
}

bool concerns(const tav::PendingChange &one, const std::string &path) {
    const std::vector<tav::ChangedElement> &changes = one.change.changes;
    return std::any_of(changes.begin(), changes.end(), [&path](const auto &change) {
        return is_at_or_below(change.path, path) || is_at_or_below(path, change.path);
    });
}

waiting_t waiting_of(const tav::PendingChange &one) {
    return {one.change.number, one.change.uid, one.change.pid, one.change.program, one.left};
}

std::string seconds_text(double seconds) {
    std::ostringstream text;
    text << seconds << " s";
    return text.str();
}

std::uint32_t milliseconds_of(double seconds) {
    return static_cast<std::uint32_t>(std::lround(seconds * 1000));
}

void announce(std::uint64_t number, double seconds) {
    if (number == 0) {
        std::cout << "nothing was changed, so there is nothing to confirm\n";
    } else {
        std::cout << "change " << number << " will be reverted in " << seconds_text(seconds)
                  << " unless you confirm it: tandrelctl confirm " << number << '\n';
    }
    std::cout.flush(); // before anything that waits
}

std::vector<tav::PendingChange> pending_of(client_t &client) {
    std::vector<tav::PendingChange> all;
    if (&tav::pending != nullptr && client.connected() &&
        tav::pending(client.tav.handle, all) != 0) {
        throw store_lost(store_silent);
    }
    return all;
}

bool changes_content(client_t &client, const step_t &step) {
    return !step.removals.empty() ||
           std::any_of(step.leaves.begin(), step.leaves.end(), [&](const auto &leaf) {
               api_status_t status = api_status_none;
               toolkit::CElement value;
               element_property_t property = element_property_none;
               if (client.tav.get_leaf(leaf.first, status, value, property) != 0) {
                   throw store_lost(store_silent);
               }
               return status != api_status_ok || value.to_string() != leaf.second;
           });
}

} // namespace

bool has_transactions() {
    return &tav::transact != nullptr;
}

outcome_t write_at_once(client_t &client, const step_t &step, std::optional<double> term) {
    // A leaf that keeps its content is part of the change only with a time of its own. Otherwise
    // its reversion would restore half an address, if the node is removed meanwhile.
    const std::int64_t time =
        term && changes_content(client, step) ? std::time(nullptr) : tav::no_time;
    std::vector<tav::Item> items;
    for (const auto &[path, text] : step.leaves) {
        items.push_back({tav::ItemKind::set, path, {element_type_string, text, time}});
    }
    for (const std::string &path : step.removals) {
        items.push_back({tav::ItemKind::remove_node, path, {}});
    }
    std::vector<api_status_t> statuses;
    std::uint64_t number = 0;
    const int result = term ? tav::transact_pending(client.tav.handle, items,
                                                    milliseconds_of(*term), statuses, number)
                            : tav::transact(client.tav.handle, items, statuses);
    if (result != 0) {
        throw store_lost(store_silent);
    }
    for (std::size_t i = 0; i < items.size(); ++i) {
        // The others were only not done because of the refused one.
        if (statuses[i] != api_status_ok && statuses[i] != api_status_not_done) {
            return {items[i].path, static_cast<int>(statuses[i])};
        }
    }
    if (term) {
        announce(number, *term);
        client.unconfirmed = number;
    }
    return {};
}

bool touch_leaf(client_t &client, const std::string &path) {
    if (!has_transactions()) {
        return false;
    }
    std::vector<api_status_t> statuses;
    if (tav::transact(client.tav.handle, {{tav::ItemKind::touch, path, {}}}, statuses) != 0) {
        throw store_lost(store_silent);
    }
    return statuses.front() == api_status_ok;
}

std::string why_held(client_t &client, const outcome_t &outcome) {
    if (outcome.status == api_status_too_much_pending) {
        return "a user may have at most " + std::to_string(tav::limits::pending_changes) +
               " unconfirmed changes; to list them: tandrelctl status";
    }
    if (outcome.status == api_status_denied) {
        return "permission denied: this user may read the settings, but not change them";
    }
    if (outcome.status != api_status_pending) {
        return "";
    }
    for (const tav::PendingChange &one : pending_of(client)) {
        if (concerns(one, outcome.refused_path)) {
            return text_of(waiting_of(one)) +
                   " is waiting for confirmation, and will be reverted in " +
                   seconds_text(one.left / 1000.0) +
                   " unless it is confirmed: tandrelctl confirm " +
                   std::to_string(one.change.number);
        }
    }
    return "";
}

void warn_of_waiting(client_t &client, const step_t &step) {
    for (const tav::PendingChange &one : pending_of(client)) {
        const auto is_concerned = [&one](const auto &path) { return concerns(one, path); };
        if (std::any_of(step.removals.begin(), step.removals.end(), is_concerned) ||
            std::any_of(step.leaves.begin(), step.leaves.end(),
                        [&](const auto &leaf) { return is_concerned(leaf.first); })) {
            std::fprintf(stderr,
                         "tandrelctl: stored, but change %llu of the same settings is waiting for "
                         "confirmation; in %s both will be reverted unless it is confirmed: "
                         "tandrelctl confirm %llu\n",
                         static_cast<unsigned long long>(one.change.number),
                         seconds_text(one.left / 1000.0).c_str(),
                         static_cast<unsigned long long>(one.change.number));
        }
    }
}

std::vector<waiting_t> waiting_changes(client_t &client) {
    std::vector<waiting_t> all;
    for (const tav::PendingChange &one : pending_of(client)) {
        all.push_back(waiting_of(one));
    }
    return all;
}

int confirm(const options_t &options) {
    client_t client;
    client.require();
    api_status_t status = api_status_none;
    std::uint64_t confirmed = 0;
    const std::uint64_t number = options.number.value_or(0);
    if (tav::confirm(client.tav.handle, number, status, confirmed) != 0) {
        throw store_lost(store_silent);
    }
    switch (status) {
    case api_status_ok:
        std::cout << "change " << confirmed << " is confirmed\n";
        return exit_done;
    case api_status_absent:
        throw refusal((number != 0 ? "change " + std::to_string(number) + " is not waiting"
                                   : "you have no change that is waiting") +
                      std::string(" for confirmation; to list all that are: tandrelctl status"));
    case api_status_refused:
        throw refusal(
            "several of your changes are waiting; give the number of one (tandrelctl status "
            "lists them)");
    case api_status_denied:
        throw refusal("permission denied: only users who may write can confirm changes");
    default:
        throw refusal("the confirmation could not be stored; the store's log says why");
    }
}

#else

bool has_transactions() {
    return false;
}

outcome_t write_at_once(client_t & /*client*/, const step_t & /*step*/,
                        std::optional<double> /*term*/) {
    throw refusal(only_with_tavd);
}

bool touch_leaf(client_t & /*client*/, const std::string & /*path*/) {
    return false;
}

std::string why_held(client_t & /*client*/, const outcome_t & /*outcome*/) {
    return "";
}

void warn_of_waiting(client_t & /*client*/, const step_t & /*step*/) {}

std::vector<waiting_t> waiting_changes(client_t & /*client*/) {
    return {};
}

int confirm(const options_t & /*options*/) {
    throw refusal(only_with_tavd);
}

#endif

std::string text_of(const waiting_t &change) {
    return "change " + std::to_string(change.number) + " by " +
           (change.program.empty() ? "" : shown(change.program) + ", ") + "process " +
           std::to_string(change.pid) + ", user " + std::to_string(change.uid);
}

} // namespace ctl
