// The commands show, check and interface list.
#include <chrono>
#include <iostream>
#include <thread>

#include <nlohmann/json.hpp>

#include "ctl/confirm.h"
#include "ctl/daemon_state.h"
#include "ctl/keeper.h"
#include "ctl/keeper_memory.h"
#include "ctl/output.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "ctl/tool.h"

namespace ctl {

namespace {

// Whether the finding is about a link that the daemon ignores by design.
bool is_ignored_by_design(const finding_t &finding) {
    return finding.fault.reason == reason_t::wrong_prefix ||
           finding.fault.reason == reason_t::no_node_fits;
}

// Whether nobody uses the link: it has no store node and no addresses, or an empty node and no link
// exists.
bool is_unused(const interface_view_t &interface, const finding_t &finding) {
    return (finding.fault.reason == reason_t::no_store_node ||
            finding.fault.reason == reason_t::link_absent) &&
           interface.addresses.empty() && interface.gateways.empty();
}

struct report_t {
    daemon_state_t daemon;
    std::vector<finding_t> differences;
    std::vector<finding_t> notes;

    void add(const finding_t &finding, const options_t &options) {
        // A user who names such a link wants it synchronised.
        const bool named = !options.link.empty() && is_ignored_by_design(finding);
        if (named || finding.severity() == severity_t::difference) {
            differences.push_back(finding);
        } else if (options.all || !is_ignored_by_design(finding)) {
            notes.push_back(finding);
        }
    }
};

// What the keeper will restore on the chosen links.
void add_remembered(client_t &client, const options_t &options, report_t &report) {
    links_t links(options.prefix);
    links.restart(kernel_reader().links, {});
    const memory_t memory = read_memory(client.tav);
    for (const kept_t &kept : memory.kept) {
        const std::string &link = kept.setting.link;
        if (interface_number(link, options.prefix) != 0 &&
            (options.link.empty() || options.link == link)) {
            const std::string waits = what_stops(memory, links, kept.setting, options.prefix);
            report.add({link,
                        {reason_t::setting_remembered,
                         {{"link", link},
                          {"text", text_of(kept.setting)},
                          {"why", kept.why},
                          {"waits", waits.empty() ? "" : "; now: " + waits}}}},
                       options);
        }
    }
}

void add_unconfirmed(client_t &client, const options_t &options, report_t &report) {
    for (const waiting_t &one : waiting_changes(client)) {
        report.add({"",
                    {reason_t::change_unconfirmed,
                     {{"text", text_of(one)},
                      {"seconds", std::to_string(one.left / 1000)},
                      {"number", std::to_string(one.number)}}}},
                   options);
    }
}

report_t make_report(client_t &client, const comparison_t &comparison, const options_t &options) {
    report_t report;
    report.daemon = find_daemon(client);
    if (const auto finding = daemon_finding(report.daemon)) {
        report.add(*finding, options);
    }
    if (const auto finding = prefix_finding(report.daemon, options.prefix)) {
        report.add(*finding, options);
    }
    for (const finding_t &finding : comparison.findings) {
        report.add(finding, options);
    }
    options_t every = options;
    every.all = true; // also links that are not synchronised but should be
    for (const interface_view_t *interface : chosen(comparison, every)) {
        for (const finding_t &finding : interface->findings) {
            if (!options.link.empty() || !is_unused(*interface, finding)) {
                report.add(finding, options);
            }
        }
    }
    add_remembered(client, options, report);
    add_unconfirmed(client, options, report);
    for (finding_t &finding : report.differences) {
        if (report.daemon.pid != 0) {
            finding.fault.words["pid"] = std::to_string(report.daemon.pid);
        }
    }
    // Without the daemon a synchronisation is no remedy; the daemon's own finding has the remedy.
    if (!synchronises(report.daemon)) {
        for (finding_t &finding : report.differences) {
            finding.waits = finding.waits || finding.needs_synchronisation();
        }
    }
    return report;
}

void print_findings(const std::vector<finding_t> &findings, bool colour) {
    for (const finding_t &finding : findings) {
        print(finding_lines(finding), colour);
    }
}

void print_views(const std::vector<const interface_view_t *> &interfaces,
                 const options_t &options) {
    if (!options.json) {
        print(table_lines(interfaces, terminal_width()), tav::terminal::use_color(options.colour));
        return;
    }
    json_t json = json_t::array();
    for (const interface_view_t *interface : interfaces) {
        json.push_back(interface_json(*interface));
    }
    print_json(json);
}

} // namespace

int show(const options_t &options) {
    client_t client;
    if (!client.connect()) {
        // Show the kernel's view even if the store does not answer.
        const comparison_t kernel = compare(read_kernel(), store_view_t{}, options.prefix);
        print_views(chosen(kernel, options), options);
        std::cout << std::flush;
        throw store_lost(unreachable_text());
    }
    const comparison_t comparison = look(client, options);
    const auto interfaces = chosen(comparison, options);
    print_views(interfaces, options);
    if (options.json) {
        return exit_done;
    }
    const bool colour = tav::terminal::use_color(options.colour);
    if (interfaces.empty()) {
        std::cout << "there is no link whose name begins with '" << shown(options.prefix)
                  << "', and no interface node; try -i PREFIX, or --all for all links\n";
    }
    const std::size_t differences = make_report(client, comparison, options).differences.size();
    if (differences > 0) {
        print({{style_t::bad, std::to_string(differences) +
                                  (differences == 1 ? " difference" : " differences") +
                                  "; 'tandrelctl check' says why"}},
              colour);
    }
    return exit_done;
}

int check(const options_t &options) try {
    client_t client;
    client.require();
    report_t report = make_report(client, look(client, options), options);
    if (!report.differences.empty()) {
        // Something may have changed between the two views, or tandrel is just handling it.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        report = make_report(client, look(client, options), options);
    }
    if (options.no_notes) {
        report.notes.clear();
    }
    const bool agree = report.differences.empty();
    if (options.quiet) {
        return agree ? exit_done : exit_differs;
    }
    if (options.json) {
        json_t json{{"agree", agree}, {"differences", json_t::array()}, {"notes", json_t::array()}};
        for (const finding_t &finding : report.differences) {
            json["differences"].push_back(finding_json(finding));
        }
        for (const finding_t &finding : report.notes) {
            json["notes"].push_back(finding_json(finding));
        }
        print_json(json);
    } else {
        const bool colour = tav::terminal::use_color(options.colour);
        if (agree) {
            const bool known = report.daemon.state == daemon_t::working;
            print({{known ? style_t::good : style_t::plain, verdict(report.daemon.state)}}, colour);
        }
        print_findings(report.differences, colour);
        print_findings(report.notes, colour);
    }
    return agree ? exit_done : exit_differs;
} catch (const store_lost &) {
    if (options.json && !options.quiet) {
        print_json(
            {{"agree", nullptr}, {"differences", json_t::array()}, {"notes", json_t::array()}});
    }
    throw;
}

int interface_list(const options_t &options) {
    client_t client;
    client.require();
    const comparison_t comparison = look(client, options);
    json_t json = json_t::array();
    for (const interface_view_t *interface : chosen(comparison, options)) {
        const std::string number =
            interface->number != 0 ? std::to_string(interface->number) : std::string("-");
        std::string state = !interface->has_node ? "no node in the store"
                            : !interface->kernel ? "no such link in the kernel"
                            : interface->tracked ? "synchronised"
                                                 : "not synchronised";
        if (options.json) {
            json_t one = interface_json(*interface);
            one.erase("addresses");
            one.erase("gateways");
            json.push_back(one);
        } else {
            std::cout << number << '\t' << shown(interface->link) << '\t' << state << '\n';
        }
    }
    if (options.json) {
        print_json(json);
    }
    return exit_done;
}

} // namespace ctl
