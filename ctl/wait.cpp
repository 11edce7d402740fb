#include "ctl/wait.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <linux/if_addr.h>
#include <unistd.h>

#include "ctl/changes.h"
#include "ctl/daemon_state.h"
#include "ctl/explain.h"
#include "ctl/keeper_store.h"
#include "ctl/output.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

bool equal(const in6_addr &left, const in6_addr &right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

// Whether the kernel is still checking the address for duplicates, and is able to.
bool is_being_checked(const address_row_t &row, const interface_view_t &interface) {
    return row.kernel && (row.kernel->flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0 &&
           interface.kernel->carrier;
}

bool address_reached(const goal_t &goal, const interface_view_t &interface) {
    bool anywhere = false;
    bool on_both = false;
    for (const address_row_t &row : interface.addresses) {
        const bool in_kernel =
            row.kernel && row.kernel->has_address && equal(row.kernel->address.addr, goal.address);
        const bool in_store =
            row.stored && !row.stored->fault && equal(row.stored->address.addr, goal.address);
        anywhere = anywhere || in_kernel || in_store;
        on_both =
            on_both || (in_kernel && row.mark == mark_t::both && !is_being_checked(row, interface));
    }
    return goal.present ? on_both : !anywhere;
}

bool gateway_reached(const goal_t &goal, const interface_view_t &interface) {
    bool anywhere = false;
    bool on_both = false;
    for (const gateway_row_t &row : interface.gateways) {
        anywhere = anywhere || row.stored || (row.kernel && is_adopted(*row.kernel));
        on_both =
            on_both || (row.mark == mark_t::both && equal(row.kernel->route.gateway, goal.address));
    }
    return goal.present ? on_both : !anywhere;
}

// Waiting is useless as long as one of these reasons applies.
bool is_hopeless(const comparison_t &comparison, const interface_view_t &interface) {
    const auto hopeless = [](const finding_t &finding) {
        switch (finding.fault.reason) {
        case reason_t::bad_interface_node:
        case reason_t::link_absent:
        case reason_t::not_ethernet:
        case reason_t::no_hardware_address:
        case reason_t::no_ipv6:
        case reason_t::small_mtu:
        case reason_t::ipv6_disabled:
            return true;
        default:
            return false;
        }
    };
    const auto any = [&](const std::vector<finding_t> &findings) {
        return std::any_of(findings.begin(), findings.end(), hopeless);
    };
    return any(comparison.findings) || any(interface.findings);
}

// Whether a finding may be the reason: it is a difference, or may explain one.
bool may_be_why(const finding_t &finding) {
    const reason_t reason = finding.fault.reason;
    return finding.severity() == severity_t::difference || reason == reason_t::link_down;
}

void say_why(client_t &client, const comparison_t &comparison, const interface_view_t &interface,
             bool present) {
    std::fprintf(stderr, "tandrelctl: %s\n",
                 present ? "the change is stored, but the kernel does not have it yet:"
                         : "the removal is not complete:");
    std::vector<finding_t> findings = comparison.findings;
    findings.insert(findings.end(), interface.findings.begin(), interface.findings.end());
    const daemon_state_t daemon = find_daemon(client);
    if (const auto finding = daemon_finding(daemon)) {
        findings.push_back(*finding);
    }
    bool said = false;
    for (finding_t &finding : findings) {
        if (!may_be_why(finding)) {
            continue;
        }
        said = true;
        finding.waits = finding.waits || (!synchronises(daemon) && finding.needs_synchronisation());
        for (const line_t &line : finding_lines(finding)) {
            std::fprintf(stderr, "%s\n", line.text.c_str());
        }
    }
    if (!said && present) {
        std::fprintf(stderr, "the kernel is still checking the address for duplicates\n");
    }
}

// Reports the time waited on standard error: on a terminal, after two seconds, in one line that is
// rewritten; elsewhere in a line every 15 seconds.
class progress_t {
public:
    explicit progress_t(double seconds) : patience(seconds) {}
    ~progress_t() {
        if (drawn) {
            std::fprintf(stderr, "\r\033[K");
        }
    }
    progress_t(const progress_t &) = delete;
    progress_t &operator=(const progress_t &) = delete;

    void show() {
        const auto now = clock_type::now();
        if (now < next) {
            return;
        }
        next = now + (on_terminal ? std::chrono::seconds(1) : std::chrono::seconds(15));
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - begin).count();
        std::fprintf(stderr, "%standrelctl: waiting for the kernel, %lld of %.0f s%s",
                     on_terminal ? "\r" : "", static_cast<long long>(waited), patience,
                     on_terminal ? "\033[K" : "\n");
        drawn = on_terminal;
    }
    clock_type::time_point next_time() const { return next; }

private:
    const bool on_terminal = isatty(STDERR_FILENO) == 1;
    const clock_type::time_point begin = clock_type::now();
    clock_type::time_point next =
        begin + (on_terminal ? std::chrono::seconds(2) : std::chrono::seconds(15));
    const double patience;
    bool drawn = false;
};

} // namespace

bool is_reached(const goal_t &goal, const comparison_t &comparison) {
    const interface_view_t *interface = comparison.find(goal.link);
    if (interface == nullptr) {
        return !goal.present;
    }
    return goal.is_gateway ? gateway_reached(goal, *interface) : address_reached(goal, *interface);
}

namespace {

// A removal may be undone: the daemon stores a gateway again if the kernel still has it.
constexpr std::chrono::milliseconds settling{500};

// What both sides have of an entry that was removed.
std::vector<std::string> remains(const goal_t &goal, const interface_view_t &interface) {
    std::vector<std::string> parts;
    for (const address_row_t &row : interface.addresses) {
        if (!goal.is_gateway && row.kernel && row.kernel->has_address &&
            equal(row.kernel->address.addr, goal.address)) {
            parts.push_back("the kernel has " + prefix_text(row.kernel->address));
        }
        if (!goal.is_gateway && row.stored && !row.stored->fault &&
            equal(row.stored->address.addr, goal.address)) {
            parts.push_back("the store has " + shown(row.stored->text) + ", " +
                            shown(row.stored->type_text));
        }
    }
    for (const gateway_row_t &row : interface.gateways) {
        if (goal.is_gateway && row.kernel) {
            parts.push_back("the kernel has a default route via " +
                            address_text(row.kernel->route.gateway) + ", protocol " +
                            protocol_name(row.kernel->route.protocol));
        }
        if (goal.is_gateway && row.stored) {
            parts.push_back("the store has the gateway " + shown(row.stored->text));
        }
    }
    if (parts.empty()) {
        parts.push_back("neither the kernel nor the store has " +
                        (goal.is_gateway ? "a default gateway" : address_text(goal.address)));
    }
    for (std::string &part : parts) {
        part.insert(0, shown(goal.link) + ": ");
    }
    return parts;
}

int finish(const goal_t &goal, const interface_view_t &interface) {
    if (!goal.present && tav::terminal::on_terminal()) {
        for (const std::string &line : remains(goal, interface)) {
            std::printf("%s\n", line.c_str());
        }
    }
    return exit_done;
}

int give_up(const goal_t &goal, client_t &client, const comparison_t &comparison,
            const interface_view_t &interface) {
    say_why(client, comparison, interface, goal.present);
    if (!goal.present) {
        for (const std::string &line : remains(goal, interface)) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    }
    return exit_not_there;
}

// Whether the change that must be confirmed is no longer in force. Without a history it is not
// known.
bool was_reverted(client_t &client) {
    if (client.unconfirmed == 0) {
        return false;
    }
    try {
        const store_history_t history = read_history(client, paths::interfaces, client.unconfirmed);
        return std::any_of(
            history.changes.begin(), history.changes.end(),
            [&](const store_change_t &change) { return change.reverted == client.unconfirmed; });
    } catch (const refusal &) {
        return false;
    }
}

// Nobody waits, so say at once what stops the change from taking effect.
int warn_of_daemon(client_t &client) {
    const auto finding = daemon_finding(find_daemon(client));
    if (finding && finding->severity() == severity_t::difference) {
        std::fprintf(
            stderr,
            "tandrelctl: the store was changed, but tandrel does not act on the change: %s\n",
            finding->sentence().c_str());
        if (!finding->remedy().empty()) {
            std::fprintf(stderr, "    -> %s\n", finding->remedy().c_str());
        }
    }
    return exit_done;
}

} // namespace

int wait_for(const goal_t &goal, client_t &client, const options_t &options) {
    if (!options.patience) {
        return warn_of_daemon(client);
    }
    // Subscribe before the first look, so that no change is missed.
    changes_t changes(client);
    const auto after = [begin = clock_type::now()](double seconds) {
        return begin + std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
    };
    const auto end = after(*options.patience);
    const auto due = options.term ? after(*options.term) : end;
    std::optional<progress_t> progress;
    progress.emplace(*options.patience);
    std::optional<clock_type::time_point> reached; // since when the goal has held
    for (;;) {
        const comparison_t comparison = look(client, options);
        const interface_view_t *interface = comparison.find(goal.link);
        static const interface_view_t nothing;
        const interface_view_t &view = interface != nullptr ? *interface : nothing;
        const auto now = clock_type::now();
        if (now >= due && was_reverted(client)) {
            throw refusal("the change was reverted, because it was not confirmed in time");
        }
        if (!is_reached(goal, comparison)) {
            reached.reset();
        } else if (!reached) {
            reached = now;
        }
        const auto settled = std::min(end, reached.value_or(end) + settling);
        if (reached && (goal.present || now >= settled)) {
            progress.reset();
            return finish(goal, view);
        }
        if ((!reached && is_hopeless(comparison, view)) || clock_type::now() >= end) {
            progress.reset(); // before anything else is written
            return give_up(goal, client, comparison, view);
        }
        progress->show();
        // The reversion may have come while the two views were read.
        changes.wait(std::min({settled, progress->next_time(), now < due ? due : end}));
        if (!client.connected()) {
            throw store_lost(store_silent);
        }
    }
}

} // namespace ctl
