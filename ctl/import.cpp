// The command import: stores the settings of a device that has them only in the kernel.
#include <algorithm>
#include <iostream>
#include <set>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "ctl/edit.h"
#include "ctl/output.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// A default gateway that a person or a script set: protocol static, or boot as "ip route" uses.
bool is_configured(const gateway_row_t &row) {
    return row.kernel && row.kernel->table == RT_TABLE_MAIN &&
           (row.kernel->route.protocol == RTPROT_STATIC ||
            row.kernel->route.protocol == RTPROT_BOOT);
}

class importer_t {
public:
    step_t step;
    lines_t lines;

    void add(const interface_view_t &interface) {
        std::set<std::string> names;
        for (const address_row_t &row : interface.addresses) {
            if (row.stored) {
                names.insert(row.stored->node);
            }
        }
        for (const address_row_t &row : interface.addresses) {
            if (row.kernel && is_configured(*row.kernel)) {
                add(interface, row, names);
            }
        }
        bool chosen = false;
        for (const gateway_row_t &row : interface.gateways) {
            if (is_configured(row)) {
                add(interface, row, chosen);
                chosen = true;
            }
        }
    }

private:
    void add(const interface_view_t &interface, const address_row_t &row,
             std::set<std::string> &names) {
        const std::string what = shown(interface.link) + "  " + prefix_text(row.kernel->address);
        std::string node;
        if (row.stored) {
            node = row.stored->node;
            if (row.mark == mark_t::both && row.stored->address.type == type_static) {
                lines.push_back({style_t::dim, what + "  already stored"});
                return;
            }
            lines.push_back({style_t::good, what + "  stored as " + shown(row.stored->text) + " " +
                                                shown(row.stored->type_text) + "; becomes Static"});
        } else {
            std::size_t number = 1;
            while (!names.insert(std::to_string(number)).second) {
                ++number;
            }
            node = std::to_string(number);
            lines.push_back({style_t::good, what + "  new"});
        }
        put_address(step, paths::address(addresses_path(interface.number), node),
                    row.kernel->address);
    }

    void add(const interface_view_t &interface, const gateway_row_t &row, bool others) {
        const std::string gateway = address_text(row.kernel->route.gateway);
        const std::string what = shown(interface.link) + "  gateway " + gateway;
        const auto stored =
            std::find_if(interface.gateways.begin(), interface.gateways.end(),
                         [](const gateway_row_t &one) { return one.stored.has_value(); });
        if (others) {
            lines.push_back({style_t::warn, what + "  skipped: a link has only one gateway"});
        } else if (stored != interface.gateways.end()) {
            const bool equal =
                !stored->stored->fault && same_gateway(stored->stored->route, row.kernel->route);
            lines.push_back({equal ? style_t::dim : style_t::warn,
                             what + (equal ? "  already stored"
                                           : "  skipped: " + shown(stored->stored->text) +
                                                 " is already stored")});
        } else {
            lines.push_back({style_t::good, what + "  new"});
            if (!is_static(*row.kernel)) {
                lines.push_back({style_t::plain, "    -> then, to let tandrel manage the route: " +
                                                     replacement(interface.link, *row.kernel)});
            }
            const std::string ipv6 = paths::ipv6(static_cast<std::int32_t>(interface.number));
            step.leaves.emplace_back(paths::value(paths::gateway(ipv6)), gateway);
        }
    }
};

importer_t examine(const comparison_t &comparison, const options_t &options) {
    importer_t importer;
    for (const interface_view_t *interface : chosen(comparison, options)) {
        if (interface->tracked && interface->number != 0) {
            const bool is_odd = std::any_of(
                interface->findings.begin(), interface->findings.end(), [](const auto &finding) {
                    return finding.fault.reason == reason_t::odd_interface_number;
                });
            if (is_odd) {
                throw refusal(shown(interface->link) +
                              " has an interface node that tandrel does not write to; first run: "
                              "tandrelctl interface merge " +
                              shown_word(interface->link));
            }
            importer.add(*interface);
        }
    }
    return importer;
}

} // namespace

int import_kernel(const options_t &options) {
    client_t client;
    client.require();
    importer_t importer = examine(look(client, options), options);
    const bool write = options.write && !options.dry_run;
    if (write) {
        carry_out(client, options, [&](const store_view_t &store) {
            importer = examine(compare(read_kernel(), store, options.prefix), options);
            return importer.step;
        });
    }
    print(importer.lines, tav::terminal::use_color(options.colour));
    if (importer.lines.empty()) {
        std::cout << "the kernel has no permanent address and no configured gateway\n";
    } else if (importer.step.leaves.empty()) {
        std::cout << "nothing to store\n";
    } else {
        std::cout << (write ? "stored\n"
                            : "nothing was written; use --write to store these settings\n");
    }
    return exit_done;
}

} // namespace ctl
