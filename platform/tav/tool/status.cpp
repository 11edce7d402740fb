// status.
#include <iomanip>
#include <iostream>

#include <nlohmann/json.hpp>

#include "client/admin.h"
#include "tool/pending.h"
#include "tool/screen.h"
#include "tool/tool.h"
#include "tool/undo.h"

namespace tav::tool {

namespace {

const char *state_name(WatchdogState state) {
    switch (state) {
    case WatchdogState::fine:
        return "fine";
    case WatchdogState::overdue:
        return "overdue";
    case WatchdogState::gone:
        return "gone";
    }
    return "unknown";
}

void print_json(const ServiceStatus &status, const std::vector<PendingChange> &pending) {
    Json all = Json::object();
    all["pid"] = status.pid;
    if (status.database.empty()) {
        all["database"] = Json();
    } else {
        add_text(all, "database", status.database);
    }
    all["durability"] = status.durability;
    all["uptime_s"] = status.uptime;
    all["revision"] = status.revision;
    all["nodes"] = status.nodes;
    all["leaves"] = status.leaves;
    all["overflowed_clients"] = status.overflowed;
    all["limits"] = Json::array();
    for (const LimitStatus &limit : status.limits) {
        all["limits"].push_back({{"name", limit.name},
                                 {"used", limit.used},
                                 {"limit", limit.limit},
                                 {"refused", limit.refused}});
    }
    all["clients"] = Json::array();
    for (const ClientStatus &client : status.clients) {
        all["clients"].push_back(
            {{"session", client.session},
             {"pid", client.pid},
             {"uid", client.uid},
             {"may_write", client.may_write},
             {"registrations", client.registrations},
             {"pending_events", client.pending},
             {"signalled", client.signalled},
             {"last_listing_ms", client.listed == never_listed ? Json() : Json(client.listed)}});
    }
    all["watchdogs"] = Json::array();
    for (const WatchdogStatus &watchdog : status.watchdogs) {
        Json entry = Json::object();
        add_text(entry, "name", watchdog.name);
        entry["pid"] = watchdog.pid;
        entry["period_s"] = watchdog.period;
        entry["last_ping_ms"] = watchdog.since;
        entry["state"] = state_name(watchdog.state);
        all["watchdogs"].push_back(std::move(entry));
    }
    all["pending"] = Json::array();
    for (const PendingChange &one : pending) {
        Json entry = {{"number", one.change.number}, {"time", one.change.time}};
        entry["uid"] = one.change.uid;
        entry["pid"] = one.change.pid;
        add_text(entry, "program", one.change.program);
        entry["elements"] = one.change.elements;
        entry["term_ms"] = one.term;
        entry["left_ms"] = one.left;
        all["pending"].push_back(std::move(entry));
    }
    std::cout << terminal::json_text(all, 2) << '\n';
}

void print_text(const ServiceStatus &status, const std::vector<PendingChange> &pending) {
    std::cout << "service    process " << status.pid << ", up " << status.uptime << " s\n"
              << "database   "
              << (status.database.empty()
                      ? "none, memory only"
                      : shown(status.database) + ", durability " + shown(status.durability))
              << '\n'
              << "tree       " << status.nodes << " nodes, " << status.leaves
              << " leaves, revision " << status.revision << '\n'
              << "overflows  " << status.overflowed << '\n'
              << "limits" << std::setw(44) << "used" << std::setw(12) << "limit" << std::setw(10)
              << "refused" << '\n';
    for (const LimitStatus &limit : status.limits) {
        std::cout << "  " << std::left << std::setw(36) << shown(limit.name) << std::right
                  << std::setw(12) << limit.used << std::setw(12) << limit.limit << std::setw(10)
                  << limit.refused << '\n';
    }
    std::cout << "clients    " << status.clients.size() << '\n';
    for (const ClientStatus &client : status.clients) {
        std::cout << "  session " << client.session << "  process " << client.pid << "  user "
                  << client.uid << (client.may_write ? "" : "  read-only") << "  registrations "
                  << client.registrations << "  pending " << client.pending
                  << (client.signalled ? "  signalled" : "");
        if (client.listed != never_listed) {
            std::cout << "  last listing " << client.listed << " ms ago";
        }
        std::cout << '\n';
    }
    std::cout << "watchdogs  " << status.watchdogs.size() << '\n';
    for (const WatchdogStatus &watchdog : status.watchdogs) {
        std::cout << "  " << shown(watchdog.name) << "  process " << watchdog.pid << "  period "
                  << watchdog.period << " s  last ping " << watchdog.since << " ms ago  "
                  << state_name(watchdog.state) << '\n';
    }
    std::cout << "to confirm " << pending.size() << '\n';
    for (const PendingChange &one : pending) {
        std::cout << "  change " << one.change.number << "  " << author_text(one.change)
                  << "  elements " << one.change.elements << "  reverts in "
                  << seconds_text(one.left) << '\n';
    }
}

} // namespace

int status(Client &client, const Options &options) {
    ServiceStatus current;
    std::vector<PendingChange> pending;
    if (tav::service_status(client.handle(), current) != 0 ||
        tav::pending(client.handle(), pending) != 0) {
        return exit_unreachable;
    }
    if (options.json) {
        print_json(current, pending);
    } else {
        print_text(current, pending);
    }
    return exit_done;
}

} // namespace tav::tool
