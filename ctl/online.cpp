// The command wait: until what is stored for a link can be used.
#include <algorithm>
#include <cstdio>

#include <linux/if_addr.h>

#include "ctl/changes.h"
#include "ctl/daemon_state.h"
#include "ctl/keeper_store.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace ctl {

namespace {

bool is_usable(const address_row_t &row) {
    return row.mark == mark_t::both &&
           (row.kernel->flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
}

// What a person stored for the link.
struct progress_t {
    bool anything = false;
    std::vector<std::string> missing; // not yet usable
};

// `kept`: what the keeper will restore.
progress_t progress_of(const interface_view_t &interface, const std::vector<kept_t> &kept) {
    progress_t progress;
    for (const kept_t &one : kept) {
        if (one.setting.link == interface.link) {
            progress.anything = true;
            progress.missing.push_back(shown(interface.link) + ": " + text_of(one.setting));
        }
    }
    for (const address_row_t &row : interface.addresses) {
        if (!row.stored || row.stored->fault || row.stored->address.type != type_static) {
            continue;
        }
        progress.anything = true;
        if (!is_usable(row)) {
            progress.missing.push_back(shown(interface.link) + ": " + shown(row.stored->text));
        }
    }
    for (const gateway_row_t &row : interface.gateways) {
        if (!row.stored || row.stored->fault) {
            continue;
        }
        progress.anything = true;
        if (row.mark != mark_t::both) {
            progress.missing.push_back(shown(interface.link) + ": gateway " +
                                       shown(row.stored->text));
        }
    }
    return progress;
}

class waiter_t {
public:
    explicit waiter_t(const options_t &given) : options(given), changes(client) {
        library_reports = false; // the store may come later
    }

    int run() {
        const double seconds = options.patience.value_or(default_timeout);
        const auto end =
            clock_type::now() + std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
        for (;;) {
            if (is_reached()) {
                return exit_done;
            }
            if (clock_type::now() >= end) {
                return give_up();
            }
            // No event says that the keeper has forgotten something.
            changes.wait(kept.empty() ? end
                                      : std::min(end, clock_type::now() + std::chrono::seconds(1)));
        }
    }

private:
    static constexpr double default_timeout = 120; // seconds

    bool is_reached() {
        missing.clear();
        if (!client.subscribe()) {
            missing.push_back(unreachable_text());
            return false;
        }
        try {
            const comparison_t comparison = look(client, options);
            kept.clear();
            if (process_of(client, keeper_name) != 0) {
                kept = read_memory(client.tav).kept;
            }
            return options.link.empty() ? is_online(comparison) : is_ready(comparison);
        } catch (const store_lost &error) {
            client.disconnect();
            missing.push_back(error.what());
            return false;
        }
    }

    bool is_ready(const comparison_t &comparison) {
        const interface_view_t *interface = comparison.find(options.link);
        if (interface == nullptr || !interface->kernel) {
            missing.push_back("the kernel has no link " + shown(options.link));
            return false;
        }
        missing = progress_of(*interface, kept).missing;
        return missing.empty();
    }

    // Links that are not connected do not count, unless all of them are so.
    bool is_online(const comparison_t &comparison) {
        bool anything = false;
        bool one_ready = false;
        bool connected_ready = true;
        for (const interface_view_t &interface : comparison.interfaces) {
            const progress_t progress = progress_of(interface, kept);
            if (!progress.anything) {
                continue;
            }
            anything = true;
            missing.insert(missing.end(), progress.missing.begin(), progress.missing.end());
            const bool connected = interface.kernel && interface.kernel->carrier;
            one_ready = one_ready || (connected && progress.missing.empty());
            connected_ready = connected_ready && (!connected || progress.missing.empty());
        }
        return !anything || (one_ready && connected_ready);
    }

    int give_up() {
        std::fprintf(stderr, "tandrelctl: not usable yet:\n");
        for (const std::string &line : missing) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
        if (!client.connected()) {
            return exit_unreachable;
        }
        if (const auto finding = daemon_finding(find_daemon(client))) {
            for (const line_t &line : finding_lines(*finding)) {
                std::fprintf(stderr, "%s\n", line.text.c_str());
            }
        }
        return exit_not_there;
    }

    const options_t &options;
    client_t client;
    changes_t changes; // opened before the first look
    std::vector<kept_t> kept;
    std::vector<std::string> missing;
};

} // namespace

int wait_online(const options_t &options) {
    if (options.link.empty() != options.online) {
        throw refusal("give either the link or --online", exit_usage);
    }
    return waiter_t(options).run();
}

} // namespace ctl
