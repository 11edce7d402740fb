#include "ctl/keeper_links.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "ctl/rules.h"
#include "ctl/text.h"

namespace ctl {

namespace {

// The kernel can create any number of addresses, so their departures are forgotten after a while.
constexpr std::size_t departures_kept = 1000;
constexpr std::chrono::minutes departure_age{1};

std::string key_text(bool is_gateway, const in6_addr &address) {
    return (is_gateway ? "gateway " : "") + address_text(address);
}

} // namespace

std::string text_of(const setting_t &setting) {
    return setting.is_gateway ? key_text(true, setting.address.addr) : prefix_text(setting.address);
}

bool same_setting(const setting_t &left, const setting_t &right) {
    return left.link == right.link && left.is_gateway == right.is_gateway &&
           same_address(left.address, right.address);
}

std::string links_t::cause(const entry_t &entry) {
    const kernel_link_t &link = entry.now;
    if (!entry.exists || link.name != entry.name) {
        return "link renamed";
    }
    if (!link.ethernet || link.hwaddr.empty()) {
        return "not an Ethernet link";
    }
    if (!link.up) {
        return "link down";
    }
    constexpr std::uint32_t least_mtu = 1280;
    if (link.mtu < least_mtu) {
        return "MTU below 1280";
    }
    if (!link.has_ipv6) {
        return "no IPv6 on the link";
    }
    if (link.ipv6_refused) {
        return "IPv6 disabled";
    }
    return link.is_part ? "part of a bridge or bond" : "";
}

bool links_t::see(const kernel_link_t &link, moment_t now) {
    if (link.mtu == 0 && link.hwaddr.empty()) {
        return false;
    }
    auto [at, is_new] = entries.try_emplace(link.index);
    entry_t &entry = at->second;
    const std::string was = is_new ? "link just appeared" : cause(entry);
    const bool had_carrier = entry.now.carrier;
    entry.now = link;
    entry.exists = true;
    if (!has_prefix(entry.name, prefix) || entry.name.empty()) {
        entry.name = link.name;
    }
    const std::string is = cause(entry);
    if (was != is) {
        trouble(entry.name, is.empty() ? was : is, now);
    } else if (had_carrier != link.carrier) {
        ++counts[entry.name];
    }
    return true;
}

void links_t::gone(std::int32_t index, const std::string &name, moment_t now) {
    const auto found = entries.find(index);
    if (found == entries.end()) {
        return;
    }
    trouble(found->second.name, "link removed", now);
    if (has_prefix(name, prefix)) {
        entries.erase(found);
    } else {
        // The daemon ignores the message, because it goes by the name in it.
        found->second.exists = false;
    }
}

void links_t::ipv6_stopped(std::int32_t index, moment_t now) {
    const auto found = entries.find(index);
    if (found != entries.end()) {
        trouble(found->second.name, "all addresses lost at once", now);
    }
}

void links_t::address_left(std::int32_t index, const in6_addr &address, bool ended, moment_t now) {
    left(index, false, address, ended, now);
}

void links_t::gateway_left(std::int32_t index, const in6_addr &gateway, moment_t now) {
    left(index, true, gateway, false, now);
}

void links_t::left(std::int32_t index, bool is_gateway, const in6_addr &address, bool ended,
                   moment_t now) {
    const auto found = entries.find(index);
    if (found == entries.end()) {
        return;
    }
    if (departures.size() >= departures_kept) {
        for (auto at = departures.begin(); at != departures.end();) {
            at = now - at->second.when > departure_age ? departures.erase(at) : std::next(at);
        }
    }
    const std::string &link = found->second.name;
    departure_t departure{now, obstacle(link), false};
    if (departure.reason.empty() && ended) {
        departure.reason = "lifetime ended";
    }
    departure.certain = !departure.reason.empty();
    const auto recent = troubles.find(link);
    if (!departure.certain && recent != troubles.end() &&
        now - recent->second.first <= doubt_span) {
        departure.reason = recent->second.second;
    }
    departures[{link, key_text(is_gateway, address)}] = departure;
}

void links_t::trouble(const std::string &link, const std::string &reason, moment_t now) {
    ++counts[link];
    troubles[link] = {now, reason};
    for (auto &[key, departure] : departures) {
        if (key.first == link && departure.reason.empty() && now - departure.when <= doubt_span) {
            departure.reason = reason;
        }
    }
}

void links_t::restart(const std::vector<kernel_link_t> &links, moment_t now) {
    departures.clear();
    for (auto at = entries.begin(); at != entries.end();) {
        const bool there = std::any_of(links.begin(), links.end(), [&](const kernel_link_t &link) {
            return link.index == at->first;
        });
        if (!there && at->second.exists) {
            trouble(at->second.name, "link removed", now);
        }
        at = there ? std::next(at) : entries.erase(at);
    }
    for (const kernel_link_t &link : links) {
        see(link, now);
    }
}

void links_t::daemon_restarted() {
    for (auto at = entries.begin(); at != entries.end();) {
        at->second.name = at->second.now.name;
        at = at->second.exists ? std::next(at) : entries.erase(at);
    }
}

// The entry that the daemon takes for the link, and how many there may be.
const links_t::entry_t *links_t::find(const std::string &link, std::size_t &number) const {
    const entry_t *result = nullptr;
    number = 0;
    for (const auto &[index, entry] : entries) {
        if (entry.name == link || (entry.exists && entry.now.name == link)) {
            ++number;
            result = &entry;
        }
    }
    return result;
}

std::string links_t::confusion(const std::string &link) const {
    std::size_t number = 0;
    const entry_t *entry = find(link, number);
    if (number > 1) {
        return "several links have had this name";
    }
    const bool same =
        entry == nullptr || (entry->exists && entry->name == link && entry->now.name == link);
    return same ? "" : "link renamed";
}

std::string links_t::obstacle(const std::string &link) const {
    std::size_t number = 0;
    const entry_t *entry = find(link, number);
    if (entry == nullptr) {
        return "no such link";
    }
    const std::string confused = confusion(link);
    return confused.empty() ? cause(*entry) : confused;
}

unsigned links_t::changes(const std::string &link) const {
    const auto found = counts.find(link);
    return found != counts.end() ? found->second : 0;
}

bool links_t::is_unclear() const {
    return std::any_of(entries.begin(), entries.end(), [&](const auto &item) {
        const entry_t &entry = item.second;
        return has_prefix(entry.name, prefix) && (!entry.exists || entry.now.name != entry.name);
    });
}

std::int32_t links_t::index(const std::string &link) const {
    std::size_t number = 0;
    const entry_t *entry = find(link, number);
    return number == 1 ? entry->now.index : 0;
}

verdict_t links_t::judge(const setting_t &setting, moment_t now) const {
    const auto found =
        departures.find({setting.link, key_text(setting.is_gateway, setting.address.addr)});
    if (found == departures.end()) {
        return {verdict_t::uncertain, "cause not seen", {}};
    }
    const departure_t &departure = found->second;
    if (!departure.reason.empty()) {
        return {departure.certain ? verdict_t::link_unable : verdict_t::uncertain,
                departure.reason,
                {}};
    }
    const moment_t until = departure.when + doubt_span;
    if (now <= until) {
        return {verdict_t::undecided, "", until};
    }
    return {verdict_t::by_hand, "", {}};
}

} // namespace ctl
