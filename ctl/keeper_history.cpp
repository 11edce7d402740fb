// The part of the keeper that judges what was removed from the store.
#include <algorithm>
#include <limits>

#include "ctl/keeper.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// The number of the last handled change is written at least once per this many changes.
constexpr std::uint64_t handled_step = 100;

// The daemon writes a removed gateway back until the kernel reports the end of the route.
bool is_soon(std::int64_t time, std::int64_t after) {
    constexpr std::int64_t write_back_seconds = 5;
    return time >= after && time - after < write_back_seconds;
}

bool has_interface(const store_view_t &store, const std::string &link) {
    return std::any_of(store.interfaces.begin(), store.interfaces.end(),
                       [&](const auto &one) { return one.number != 0 && one.link == link; });
}

} // namespace

bool keeper_t::handle_history() {
    // At the very first start only the number of the last change is of interest.
    constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();
    const store_history_t history =
        read_history(client, paths::interfaces, memory.handled ? handled : none);
    feed.drain(); // what the kernel reported before the daemon acted on it
    now = std::chrono::steady_clock::now();
    writes_t writes;
    news.clear();
    std::uint64_t reached = handled;
    bool all = true;
    bool again = false;
    if (!memory.handled) {
        reached = history.last; // it acts only on what it sees leave
        relevant = true;
    } else if (history.last < handled) {
        handle_gap(writes); // it is an older store
        reached = history.last;
        missed = 0;
    } else if (history.oldest > std::max(handled, missed) + 1) {
        handle_gap(writes);
        missed = history.oldest - 1;
    }
    for (const store_change_t &change : history.changes) {
        if (change.number <= reached) {
            continue;
        }
        // withdraw() has to know what was remembered before a change, and before its reversion.
        again = !writes.empty() && change.service != daemon_name;
        if (again) {
            all = false;
            break;
        }
        writes_t more;
        const std::size_t lines = news.size();
        if (!handle(change, more)) {
            news.resize(lines);
            all = false;
            break;
        }
        writes.insert(writes.end(), more.begin(), more.end());
        reached = change.number;
        first_seen.erase(change.number);
    }
    if (all) {
        reached = std::max(reached, history.last);
    }
    if (relevant || !writes.empty() || reached > memory.handled.value_or(0) + handled_step) {
        note(writes, reached);
    } else {
        handled = reached;
    }
    return again;
}

// If the store cannot remember it now, the same changes are handled again.
void keeper_t::note(writes_t &writes, std::uint64_t reached) {
    note_handled(writes, reached);
    if (!carry_out(client, writes)) {
        throw store_lost("the settings store refuses to keep what must be remembered");
    }
    handled = reached;
    relevant = false;
    memory = read_memory(client.tav);
    for (const std::string &line : news) {
        say(line);
    }
    news.clear();
}

// Nobody can say who removed what is missing now.
void keeper_t::handle_gap(writes_t &writes) {
    news.push_back("changes in the store were missed");
    const store_view_t store = read_store(client.tav, options.prefix);
    const std::vector<setting_t> present = settings_of(store);
    for (const setting_t &setting : seen) {
        const bool there = std::any_of(present.begin(), present.end(), [&](const setting_t &one) {
            return same_setting(one, setting);
        });
        if (!there) {
            keep(setting, "uncertain: changes in the store were missed", writes);
        }
    }
    relevant = true;
}

bool keeper_t::handle(const store_change_t &change, writes_t &writes) {
    if (change.service == keeper_name) {
        return true;
    }
    if (change.too_large) {
        handle_gap(writes);
    }
    const bool by_daemon = change.service == daemon_name;
    for (const fact_t &fact : facts_of(change.leaves, options.prefix, !by_daemon)) {
        const setting_t &setting = fact.setting;
        if (setting.is_gateway) {
            handle_gateway(change, fact, writes);
        }
        if (fact.kind == fact_t::set) {
            continue;
        }
        if (by_daemon && !handle_departure(setting, change.time, writes)) {
            return false;
        }
        if (!by_daemon && !setting.is_gateway && !handle_deletion(change.number, setting, writes)) {
            return false;
        }
    }
    if (change.reverted != 0) {
        withdraw(change.reverted, writes); // after its deletions, which forget
    }
    return true;
}

bool keeper_t::handle_departure(const setting_t &setting, std::int64_t time, writes_t &writes) {
    const auto clearing = cleared.find(setting.link);
    if (setting.is_gateway && clearing != cleared.end() && clearing->second.written_back &&
        is_soon(time, clearing->second.time) && same_setting(clearing->second.gateway, setting)) {
        relevant = true; // later, it could not be known
        return true;
    }
    if (is_being_removed(setting)) {
        relevant = true;
        return true;
    }
    const verdict_t verdict = links.judge(setting, now);
    switch (verdict.kind) {
    case verdict_t::undecided:
        wake_at(verdict.until + std::chrono::milliseconds(1));
        return false;
    case verdict_t::by_hand:
        report(setting, "was deleted in the kernel and will not be restored");
        relevant = true;
        return true;
    case verdict_t::uncertain:
        keep(setting, "uncertain: " + verdict.reason, writes);
        return true;
    case verdict_t::link_unable:
        keep(setting, verdict.reason, writes);
        return true;
    }
    return true;
}

// The daemon deletes the address in the kernel within milliseconds if it runs.
bool keeper_t::handle_deletion(std::uint64_t number, const setting_t &setting, writes_t &writes) {
    const moment_t since = first_seen.try_emplace(number, now).first->second;
    const bool unfinished = !is_being_removed(setting) && is_in_kernel(setting);
    if (unfinished && now < since + doubt_span) {
        wake_at(since + doubt_span);
        return false;
    }
    forget(writes, setting);
    // The daemon keeps the addresses of a link without an interface node.
    if (!unfinished || !has_interface(read_store(client.tav, options.prefix), setting.link)) {
        return true;
    }
    report(setting, "was removed from the store but is still in the kernel");
    begin_removal(writes, {setting, ""});
    return true;
}

// Otherwise a setting that the change had stored would come back if its link lost it meanwhile, and
// a setting that was remembered until the change stored it would be lost.
void keeper_t::withdraw(std::uint64_t number, writes_t &writes) {
    for (const store_change_t &change :
         read_history(client, paths::interfaces, number - 1).changes) {
        if (change.number != number) {
            continue;
        }
        for (const setting_t &setting : settings_made(change.leaves, options.prefix)) {
            std::vector<std::vector<leaf_change_t>> since;
            for (const store_change_t &one :
                 read_history(client, kept_path(setting), number).changes) {
                since.push_back(one.leaves);
            }
            for (const auto &[one, is_kept] : remember_as_before(number, setting, since, writes)) {
                report(one, std::string(is_kept ? "is remembered again" : "was forgotten") +
                                " (change " + std::to_string(number) + " was reverted)");
            }
        }
    }
}

void keeper_t::handle_gateway(const store_change_t &change, const fact_t &fact, writes_t &writes) {
    clearing_t &clearing = cleared[fact.setting.link];
    if (change.service != daemon_name) {
        forget(writes, fact.setting);
        for (const kept_t &kept : memory.kept) {
            if (kept.setting.is_gateway && kept.setting.link == fact.setting.link) {
                report(kept.setting, "was forgotten (a gateway is stored again)");
            }
        }
        clearing =
            fact.kind == fact_t::left ? clearing_t{fact.setting, change.time, false} : clearing_t{};
    } else if (fact.kind == fact_t::set) {
        clearing.written_back =
            same_setting(clearing.gateway, fact.setting) && is_soon(change.time, clearing.time);
    }
}

void keeper_t::keep(const setting_t &setting, const std::string &why, writes_t &writes) {
    report(setting, "was removed from the store (" + why + "); it will be restored when " +
                        shown(setting.link) + " can carry it");
    remember(writes, {setting, why, 0});
    relevant = true;
}

bool keeper_t::is_being_removed(const setting_t &setting) const {
    return std::any_of(
        memory.removals.begin(), memory.removals.end(),
        [&](const removal_t &removal) { return same_setting(removal.setting, setting); });
}

bool keeper_t::is_in_kernel(const setting_t &setting) const {
    const std::int32_t index = links.index(setting.link);
    const kernel_view_t kernel = read_kernel();
    return std::any_of(kernel.addresses.begin(), kernel.addresses.end(),
                       [&](const kernel_address_t &one) {
                           return one.has_address && one.address.ifindex == index &&
                                  same_address(one.address, setting.address);
                       });
}

} // namespace ctl
