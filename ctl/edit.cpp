#include "ctl/edit.h"

#include <algorithm>

#include "ctl/confirm.h"
#include "ctl/daemon_state.h"
#include "ctl/preview.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"
#include "store/tav_values.h"

namespace ctl {

namespace {

outcome_t write(client_t &client, const step_t &step) {
    std::vector<tk_string> paths;
    std::vector<toolkit::CElement> values;
    for (const auto &[path, text] : step.leaves) {
        paths.push_back(path);
        values.emplace_back(text, toolkit::CElement::_invalid_time);
    }
    const std::vector<mlr_tribool_t> flags(paths.size(), tav_value::write_flag);
    std::vector<api_status_t> statuses;
    if (client.tav.set_leaves(paths, values, flags, statuses, "") != 0) {
        throw store_lost(store_silent);
    }
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto status = i < statuses.size() ? statuses[i] : tav_value::status_unset;
        if (status != tav_value::status_ok) {
            return {paths[i], static_cast<int>(status)};
        }
    }
    return {};
}

outcome_t apply(client_t &client, const step_t &step, const options_t &options) {
    if (options.term || (!step.in_parts && has_transactions())) {
        return write_at_once(client, step, options.term);
    }
    if (!step.leaves.empty()) {
        outcome_t outcome = write(client, step);
        if (!outcome.refused_path.empty()) {
            return outcome;
        }
    }
    for (const std::string &path : step.removals) {
        api_status_t status = tav_value::status_unset;
        if (client.tav.remove_node(path, status, "") != 0) {
            throw store_lost(store_silent);
        }
        if (status != tav_value::status_ok) {
            return {path, static_cast<int>(status)};
        }
    }
    return {};
}

// Node 1 is that of eth0, but also that of the first link with any other prefix.
void refuse_other_prefix(client_t &client, const options_t &options) {
    const auto finding = prefix_finding(find_daemon(client), options.prefix);
    if (finding && !options.force) {
        throw refusal("tandrel: " + finding->sentence());
    }
}

// Writes a leaf below the interface's addresses, and removes it again. The daemon skips the
// incomplete address node that the leaf belongs to.
void pass_leaf(client_t &client, const options_t &options, long interface, bool in_parts) {
    const std::string node = paths::address(addresses_path(interface), "tandrelctl-nudge");
    carry_out(client, options, [&](const store_view_t &) {
        return step_t{{{paths::type_value(node), "none"}}, {node}, in_parts};
    });
}

// A leaf whose change makes the daemon synchronise; empty if none is stored.
std::string mirrored_leaf(const store_view_t &store) {
    for (const stored_interface_t &interface : store.interfaces) {
        if (interface.node != std::to_string(interface.number)) {
            continue;
        }
        const std::string ipv6 = paths::ipv6(static_cast<std::int32_t>(interface.number));
        if (interface.gateway && !interface.gateway->fault) {
            return paths::value(paths::gateway(ipv6));
        }
        for (const stored_address_t &stored : interface.addresses) {
            if (!stored.fault) {
                return paths::type_value(paths::address(paths::addresses(ipv6), stored.node));
            }
        }
    }
    return "";
}

} // namespace

long number_of(const options_t &options) {
    const long number = interface_number(options.link, options.prefix);
    if (number == 0) {
        throw refusal("'" + shown(options.link) + "' cannot have an interface node; only " +
                          shown(options.prefix) + "0, " + shown(options.prefix) +
                          "1 and so on can (use -i for another prefix)",
                      exit_usage);
    }
    return number;
}

const kernel_link_t &require_link(const kernel_view_t &kernel, const options_t &options) {
    const std::string name = "'" + shown(options.link) + "'";
    const auto found =
        std::find_if(kernel.links.begin(), kernel.links.end(),
                     [&](const kernel_link_t &one) { return one.name == options.link; });
    if (found == kernel.links.end()) {
        throw refusal("the kernel has no link " + name + "; to store it anyway, use --force");
    }
    if (!found->ethernet || found->hwaddr.empty() || !found->has_ipv6) {
        throw refusal("tandrel does not manage " + name + ": it " +
                      (found->hwaddr.empty() || !found->ethernet
                           ? "is not an Ethernet link"
                           : "has no IPv6 (MTU " + std::to_string(found->mtu) + ")") +
                      "; to store it anyway, use --force");
    }
    return *found;
}

std::string free_number(const std::set<std::string> &taken) {
    std::size_t number = 1;
    while (taken.count(std::to_string(number)) != 0) {
        ++number;
    }
    return std::to_string(number);
}

bool carry_out(client_t &client, const options_t &options,
               const std::function<step_t(const store_view_t &)> &decide) {
    client.require();
    if (!client.subscribe()) {
        throw store_lost(store_silent);
    }
    if (!options.link.empty() || options.write) {
        refuse_other_prefix(client, options);
    }
    if (options.dry_run) {
        const store_view_t store = read_store(client.tav, options.prefix);
        preview(decide(store), store, kernel_reader(), options);
        return false;
    }
    constexpr int attempts = 5;
    outcome_t outcome;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        client.take_events();
        const step_t step = decide(read_store(client.tav, options.prefix));
        outcome = apply(client, step, options);
        if (outcome.refused_path.empty()) {
            if (!options.term && !step.in_parts) { // nor of what only wakes the daemon
                warn_of_waiting(client, step);
            }
            return true;
        }
        const std::string why = why_held(client, outcome);
        if (!why.empty()) {
            throw refusal("the store refused to change '" + shown(outcome.refused_path) +
                          "': " + why);
        }
    }
    throw refusal("the store refused to change '" + shown(outcome.refused_path) + "' (status " +
                  std::to_string(outcome.status) + "); try again");
}

void put_address(step_t &step, const std::string &node_path, const CAddress &address) {
    step.leaves.emplace_back(paths::address_value(node_path), prefix_text(address));
    step.leaves.emplace_back(paths::type_value(node_path), type_to_str(type_static));
}

std::string addresses_path(long interface) {
    return paths::addresses(paths::ipv6(static_cast<std::int32_t>(interface)));
}

void make_interface(client_t &client, const options_t &options, long interface) {
    pass_leaf(client, options, interface, !has_transactions());
    if (has_transactions()) {
        options_t at_once = options;
        at_once.term.reset();
        nudge_daemon(client, at_once, interface); // only a leaf makes an event
    }
}

void nudge_daemon(client_t &client, const options_t &options, long interface) {
    const std::string leaf = mirrored_leaf(read_store(client.tav, options.prefix));
    if (leaf.empty() || !touch_leaf(client, leaf)) {
        pass_leaf(client, options, interface, true);
    }
}

} // namespace ctl
