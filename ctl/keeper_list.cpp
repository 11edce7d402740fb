// keep --list and keep --forget.
#include <algorithm>
#include <ctime>
#include <iostream>

#include "ctl/keeper.h"
#include "ctl/rules.h"
#include "ctl/text.h"

namespace ctl {

namespace {

std::string date_text(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local{};
    localtime_r(&time, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

} // namespace

std::string what_stops(const memory_t &memory, const links_t &links, const setting_t &setting,
                       const std::string &prefix) {
    if (interface_number(setting.link, prefix) == 0) {
        return "its name does not begin with '" + shown(prefix) + "'";
    }
    const auto confusion = memory.confusion.find(setting.link);
    return confusion != memory.confusion.end() ? confusion->second : links.obstacle(setting.link);
}

int keep_list(const options_t &options) {
    client_t client;
    client.require();
    links_t links(options.prefix);
    links.restart(kernel_reader().links, {});
    const memory_t memory = read_memory(client.tav);
    for (const kept_t &kept : memory.kept) {
        const setting_t &setting = kept.setting;
        const std::string waits = what_stops(memory, links, setting, options.prefix);
        std::cout << shown(setting.link) << '\t' << text_of(setting) << '\t'
                  << (setting.node.empty() ? "-" : shown(setting.node)) << '\t'
                  << (kept.since > 0 ? date_text(kept.since) : "-") << '\t' << shown(kept.why)
                  << '\t' << (waits.empty() ? "being restored" : "waits: " + waits) << '\n';
    }
    for (const removal_t &removal : memory.removals) {
        std::cout << shown(removal.setting.link) << '\t' << text_of(removal.setting)
                  << "\t-\t-\tremoved from the store\twaits: tandrel\n";
    }
    return exit_done;
}

int keep_forget(const options_t &options) {
    if (options.link.empty()) {
        throw refusal("--forget needs a link, such as eth0", exit_usage);
    }
    client_t client;
    client.require();
    const memory_t memory = read_memory(client.tav);
    writes_t writes;
    CRoute wanted;
    if (!options.address.empty() &&
        convert_gateway(options.address.substr(0, options.address.find('/')), wanted)) {
        throw refusal("'" + shown(options.address) + "' is not an IPv6 address", exit_usage);
    }
    const auto is_meant = [&](const setting_t &setting) {
        CAddress address;
        address.addr = wanted.gateway;
        return setting.link == options.link &&
               (options.address.empty() || same_address(setting.address, address));
    };
    for (const kept_t &kept : memory.kept) {
        if (is_meant(kept.setting)) {
            forget(writes, kept.setting);
        }
    }
    for (const removal_t &removal : memory.removals) {
        if (is_meant(removal.setting)) {
            end_removal(writes, removal.setting);
        }
    }
    if (writes.empty()) {
        throw refusal("nothing is remembered for " +
                      (options.address.empty() ? "" : shown(options.address) + " on ") +
                      shown(options.link));
    }
    if (!carry_out(client, writes)) {
        throw refusal("the store refused the change; try again");
    }
    return exit_done;
}

} // namespace ctl
