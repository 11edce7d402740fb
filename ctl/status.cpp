// The command status: store, daemon, links, and the daemon's last errors.
#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>

#include <nlohmann/json.hpp>

#include "ctl/confirm.h"
#include "ctl/daemon_state.h"
#include "ctl/keeper_store.h"
#include "ctl/output.h"
#include "ctl/rules.h"
#include "ctl/text.h"

namespace ctl {

namespace {

struct link_state_t {
    std::string link;
    std::string why;    // why it is not managed; empty if it is
    std::string remedy; // a command line; may be empty
};

// Whether the daemon manages the link, and if not, why: the first finding that says so.
link_state_t state_of(const interface_view_t &interface) {
    constexpr std::array reasons{reason_t::link_absent,  reason_t::wrong_prefix,
                                 reason_t::no_node_fits, reason_t::not_ethernet,
                                 reason_t::no_ipv6,      reason_t::no_hardware_address,
                                 reason_t::small_mtu,    reason_t::no_store_node};
    for (const finding_t &finding : interface.findings) {
        if (std::find(reasons.begin(), reasons.end(), finding.fault.reason) != reasons.end()) {
            const std::string text = finding.sentence();
            const std::string known = "not synchronised: ";
            const bool is_known = text.compare(0, known.size(), known) == 0;
            return {interface.link, is_known ? text.substr(known.size()) : text, finding.remedy()};
        }
    }
    return {interface.link, interface.store_known ? "" : store_silent, ""};
}

std::vector<link_state_t> link_states(const comparison_t &comparison, const options_t &options) {
    options_t all = options;
    all.all = true;
    std::vector<link_state_t> states;
    for (const interface_view_t *interface : chosen(comparison, all)) {
        const bool is_loopback = interface->kernel && !interface->kernel->ethernet &&
                                 !has_prefix(interface->link, options.prefix);
        if (!is_loopback) {
            states.push_back(state_of(*interface));
        }
    }
    return states;
}

// The daemon's last errors and warnings, as the system's journal has them; nullopt when the journal
// cannot be read.
std::optional<std::vector<std::string>> last_errors() {
    struct close_t {
        void operator()(FILE *file) const { pclose(file); }
    };
    std::unique_ptr<FILE, close_t> pipe(
        popen("journalctl -q --no-pager -o short-iso -n 3 -p warning -t tandrel 2>/dev/null", "r"));
    if (pipe == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> lines;
    std::array<char, 1024> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) {
        std::string line = buffer.data();
        line.erase(line.find_last_not_of('\n') + 1);
        lines.push_back(line);
    }
    if (pclose(pipe.release()) != 0) {
        return std::nullopt;
    }
    return lines;
}

const char *name_of(daemon_t state) {
    switch (state) {
    case daemon_t::working:
        return "working";
    case daemon_t::hangs:
        return "hangs";
    case daemon_t::disconnected:
        return "disconnected";
    case daemon_t::absent:
        return "absent";
    case daemon_t::unknown:
        break;
    }
    return "unknown";
}

struct status_t {
    std::string store; // why it does not answer; empty: it does
    daemon_state_t daemon;
    std::vector<waiting_t> waiting;
    std::uint32_t keeper = 0; // process of 'tandrelctl keep'; 0: none
    std::vector<link_state_t> links;
    std::vector<finding_t> obstacles; // why the daemon cannot read the store
    std::optional<std::vector<std::string>> errors;
};

void print_as_json(const status_t &status) {
    json_t json;
    json["store"] = {{"answers", status.store.empty()}, {"error", nullptr}};
    if (!status.store.empty()) {
        json["store"]["error"] = status.store;
    }
    json["daemon"] = {{"state", name_of(status.daemon.state)},
                      {"pid", status.daemon.pid != 0 ? json_t(status.daemon.pid) : json_t()},
                      {"prefix", status.daemon.prefix ? json_t(*status.daemon.prefix) : json_t()}};
    json["obstacles"] = json_t::array();
    for (const finding_t &one : status.obstacles) {
        json["obstacles"].push_back(finding_json(one));
    }
    json["keeper"] = {{"pid", status.keeper != 0 ? json_t(status.keeper) : json_t()}};
    json["links"] = json_t::array();
    for (const link_state_t &one : status.links) {
        json["links"].push_back(
            {{"link", one.link},
             {"managed", one.why == store_silent ? json_t() : json_t(one.why.empty())},
             {"reason", one.why.empty() ? json_t() : json_t(one.why)},
             {"remedy", one.remedy}});
    }
    json["unconfirmed"] = json_t::array();
    for (const waiting_t &one : status.waiting) {
        json["unconfirmed"].push_back({{"number", one.number},
                                       {"program", one.program},
                                       {"pid", one.pid},
                                       {"uid", one.uid},
                                       {"seconds_left", one.left / 1000.0}});
    }
    json["last_synchronisation"] = nullptr;
    if (status.daemon.synchronised) {
        json["last_synchronisation"] = *status.daemon.synchronised / 1000;
    }
    json["errors"] = nullptr;
    if (status.errors) {
        json["errors"] = *status.errors;
    }
    print_json(json);
}

std::string daemon_text(const daemon_state_t &daemon) {
    if (const auto finding = daemon_finding(daemon)) {
        return daemon.state == daemon_t::unknown && daemon.pid != 0
                   ? "process " + std::to_string(daemon.pid) +
                         " is running; whether it works is not known: " + daemon.why
                   : finding->sentence();
    }
    return "connected to the store" +
           (daemon.pid != 0 ? ", process " + std::to_string(daemon.pid) : "");
}

std::string synchronised_text(const daemon_state_t &daemon) {
    if (daemon.synchronised) {
        const std::uint64_t seconds = *daemon.synchronised / 1000;
        return duration_text(static_cast<std::uint32_t>(seconds)) + " ago";
    }
#ifdef TANDREL_STORE_STATUS
    return daemon.state == daemon_t::unknown
               ? "not known"
               : "not known, because tandrel is not connected to the store";
#else
    return std::string("not known; ") + only_with_tavd;
#endif
}

void print_text(const status_t &status, const std::string &prefix, bool colour) {
    const auto line = [colour](const char *what, bool good, const std::string &text) {
        print({{good ? style_t::plain : style_t::bad, std::string(what) + text}}, colour);
    };
    line("store:    ", status.store.empty(), status.store.empty() ? "answers" : status.store);
    const auto finding = daemon_finding(status.daemon);
    line("tandrel:  ", !finding, daemon_text(status.daemon));
    if (finding && !finding->remedy().empty()) {
        line("          ", true, "-> " + finding->remedy());
    }
    for (const finding_t &one : status.obstacles) {
        line("          ", false, one.sentence());
        line("          ", true, "-> " + one.remedy());
    }
    if (const auto other = prefix_finding(status.daemon, prefix)) {
        line("          ", false, other->sentence());
    }
    line("keeper:   ", true,
         status.keeper != 0
             ? std::string(keeper_name) + ", process " + std::to_string(status.keeper)
         : !has_transactions()   ? std::string(only_with_tavd)
         : !status.store.empty() ? std::string("not known: ") + store_silent
                                 : "none; a link that goes down loses its settings; see "
                                   "'tandrelctl keep'");
    for (const link_state_t &one : status.links) {
        line("link:     ", true,
             shown(one.link) + (one.why.empty()           ? ", managed"
                                : one.why == store_silent ? ", not known: " + one.why
                                                          : ", not managed: " + one.why));
        if (!one.remedy.empty()) {
            line("          ", true, "-> " + one.remedy);
        }
    }
    for (const waiting_t &one : status.waiting) {
        line("unconfirmed: ", true,
             text_of(one) + ", reverts in " + std::to_string(one.left / 1000) + " s");
        line("          ", true, "-> tandrelctl confirm " + std::to_string(one.number));
    }
    line("last synchronisation: ", true, synchronised_text(status.daemon));
    if (!status.errors) {
        line("last errors: ", true, "not readable (see journalctl -t tandrel)");
    } else if (status.errors->empty()) {
        line("last errors: ", true, "none in the journal");
    } else {
        line("last errors:", true, "");
        for (const std::string &one : *status.errors) {
            line("  ", true, shown(one));
        }
    }
}

} // namespace

int status(const options_t &options) {
    status_t status;
    client_t client;
    store_view_t store;
    if (client.connect()) {
        try {
            store = read_store(client.tav, options.prefix);
        } catch (const store_lost &error) {
            status.store = error.what();
        }
    } else {
        status.store = unreachable_text();
    }
    if (!status.store.empty()) {
        client.give_up(); // each attempt may take seconds
    }
    status.daemon = find_daemon(client);
    status.keeper = status.store.empty() ? process_of(client, keeper_name) : 0;
    const comparison_t comparison = compare(kernel_reader(), store, options.prefix);
    status.links = link_states(comparison, options);
    std::copy_if(comparison.findings.begin(), comparison.findings.end(),
                 std::back_inserter(status.obstacles), [](const finding_t &finding) {
                     return finding.fault.reason == reason_t::interfaces_absent ||
                            finding.fault.reason == reason_t::bad_interface_node;
                 });
    status.waiting = status.store.empty() ? waiting_changes(client) : std::vector<waiting_t>{};
    status.errors = last_errors();
    if (options.json) {
        print_as_json(status);
    } else {
        print_text(status, options.prefix, tav::terminal::use_color(options.colour));
    }
    if (!store.answered) {
        return exit_unreachable;
    }
    const auto finding = daemon_finding(status.daemon);
    const bool works = !finding || finding->severity() != severity_t::difference;
    return works && status.obstacles.empty() ? exit_done : exit_differs;
}

} // namespace ctl
