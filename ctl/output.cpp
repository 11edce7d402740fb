#include "ctl/output.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <set>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ctl/text.h"
#include "in_order.h"
#include "store/paths.h"

namespace ctl {

namespace {

struct mark_text_t {
    mark_t mark;
    char letter;
    style_t style;
    const char *name; // in JSON
    const char *meaning;
};

constexpr std::array<mark_text_t, static_cast<std::size_t>(mark_t::half_known) + 1> marks{{
    {mark_t::both, '=', style_t::good, "both", "the same in both"},
    {mark_t::kernel_only, 'K', style_t::warn, "kernel-only", "only in the kernel"},
    {mark_t::store_only, 'S', style_t::warn, "store-only", "only in the store"},
    {mark_t::differ, '!', style_t::bad, "differ", "in both, but different"},
    {mark_t::unusable, '?', style_t::bad, "unusable", "stored, but cannot be used"},
    {mark_t::left_alone, '.', style_t::dim, "left-alone", "ignored by tandrel"},
    {mark_t::half_known, '-', style_t::dim, "half-known", "the store does not answer"},
}};
static_assert(tav::in_order(marks, &mark_text_t::mark));

const mark_text_t &text_of_mark(mark_t mark) {
    return marks.at(static_cast<std::size_t>(mark));
}

// One row of a table: the text in each column.
struct cells_t {
    mark_t mark;
    std::array<std::string, 5> columns; // kernel, store, type, node, state
};
constexpr std::array<const char *, 5> headings{"KERNEL", "STORE", "TYPE", "NODE", "STATE"};

cells_t cells_of(const address_row_t &row) {
    cells_t cells{row.mark, {"-", "-", "-", "-", ""}};
    if (row.kernel) {
        const kernel_address_t &there = *row.kernel;
        cells.columns[0] = there.has_address ? prefix_text(there.address) : "?";
        cells.columns[4] = state_text(there);
    }
    if (row.stored) {
        cells.columns[1] = row.stored->text.empty() ? "?" : shown(row.stored->text);
        cells.columns[2] = row.stored->type_text.empty() ? "?" : shown(row.stored->type_text);
        cells.columns[3] = shown(row.stored->node);
    }
    return cells;
}

cells_t cells_of(const gateway_row_t &row) {
    cells_t cells{row.mark, {"-", "-", "Gateway", "-", ""}};
    if (row.kernel) {
        const kernel_route_t &there = *row.kernel;
        cells.columns[0] = "via " + address_text(there.route.gateway);
        cells.columns[4] = "protocol " + protocol_name(there.route.protocol);
    }
    if (row.stored) {
        cells.columns[1] = row.stored->text.empty() ? "?" : shown(row.stored->text);
    }
    return cells;
}

std::string heading_of(const interface_view_t &interface) {
    std::string text = shown(interface.link);
    if (interface.store_known) {
        text += interface.has_node ? ", interface node " + std::to_string(interface.number)
                                   : ", no interface node";
    }
    if (!interface.kernel) {
        return text + ", no such link in the kernel";
    }
    const kernel_link_t &link = *interface.kernel;
    text += link.carrier ? ", up" : link.up ? ", up but not connected" : ", down";
    if (!link.hwaddr.empty()) {
        text += ", " + link.hwaddr;
    }
    return text + (interface.tracked ? "" : ", not synchronised");
}

// Columns that a terminal needs for the text: one per character.
std::size_t width_of(const std::string &text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char letter) {
        return (static_cast<unsigned char>(letter) & 0xc0U) != 0x80U;
    }));
}

std::string padded(const std::string &text, std::size_t width) {
    return text + std::string(width - std::min(width, width_of(text)), ' ');
}

void add_narrow_table(const std::vector<cells_t> &rows, std::size_t width, lines_t &lines);

using widths_t = std::array<std::size_t, 5>;

widths_t widths_of(const std::vector<cells_t> &rows) {
    widths_t widths{};
    for (std::size_t i = 0; i < widths.size(); ++i) {
        widths.at(i) = width_of(headings.at(i));
        for (const cells_t &row : rows) {
            widths.at(i) = std::max(widths.at(i), width_of(row.columns.at(i)));
        }
    }
    return widths;
}

// The columns that are shown, each followed by two spaces.
std::string row_text(const std::array<std::string, 5> &columns, const widths_t &widths,
                     const std::vector<std::size_t> &chosen_columns) {
    std::string text;
    for (const std::size_t i : chosen_columns) {
        text += padded(columns.at(i), widths.at(i)) + "  ";
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

void add_table(const std::vector<cells_t> &rows, std::size_t width, lines_t &lines) {
    const std::array<std::string, 5> head{headings[0], headings[1], headings[2], headings[3],
                                          headings[4]};
    const std::vector<std::size_t> all{0, 1, 2, 3, 4};
    const widths_t widths = widths_of(rows);
    bool fits = 2 + width_of(row_text(head, widths, all)) <= width;
    for (const cells_t &row : rows) {
        fits = fits && 2 + width_of(row_text(row.columns, widths, all)) <= width;
    }
    if (!fits) {
        add_narrow_table(rows, width, lines);
        return;
    }
    lines.push_back({style_t::dim, "  " + row_text(head, widths, all)});
    for (const cells_t &row : rows) {
        lines.push_back({text_of_mark(row.mark).style, std::string(1, mark_letter(row.mark)) + " " +
                                                           row_text(row.columns, widths, all)});
    }
}

// The entry, its type and its node. The store's text follows if it differs, and the state if there
// is no room left.
void add_narrow_table(const std::vector<cells_t> &rows, std::size_t width, lines_t &lines) {
    std::vector<cells_t> entries = rows;
    for (cells_t &row : entries) {
        if (row.columns[0] == "-") {
            row.columns[0] = row.columns[1];
        }
    }
    const widths_t widths = widths_of(entries);
    const std::vector<std::size_t> some{0, 2, 3};
    lines.push_back(
        {style_t::dim, "  " + row_text({"ENTRY", "", "TYPE", "NODE", ""}, widths, some)});
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const mark_text_t &mark = text_of_mark(rows[i].mark);
        const std::string start = std::string(1, mark.letter) + " ";
        const std::string text = start + row_text(entries[i].columns, widths, some);
        const std::string &state = rows[i].columns[4];
        const bool has_room = width_of(text) + 2 + width_of(state) <= width;
        lines.push_back({mark.style, text});
        if (has_room && !state.empty()) {
            lines.back().text.append("  ").append(state);
        }
        if (rows[i].mark == mark_t::differ) {
            lines.push_back({mark.style, "    stored: " + rows[i].columns[1]});
        }
        if (!has_room) {
            lines.push_back({mark.style, "    " + state});
        }
    }
}

// Orders addresses by scope, the widest first, and by their bytes; what cannot be read comes last.
std::pair<int, std::string> order_of(const address_row_t &row) {
    const bool in_kernel = row.kernel && row.kernel->has_address;
    if (!in_kernel && (!row.stored || row.stored->fault)) {
        return {3, row.stored ? row.stored->node : ""};
    }
    const in6_addr &address = in_kernel ? row.kernel->address.addr : row.stored->address.addr;
    std::string bytes(sizeof address, '\0');
    std::memcpy(bytes.data(), &address, sizeof address);
    return {IN6_IS_ADDR_LINKLOCAL(&address) ? 2 : 1, bytes};
}

std::vector<const address_row_t *> sorted(const std::vector<address_row_t> &rows) {
    std::vector<const address_row_t *> result;
    result.reserve(rows.size());
    for (const address_row_t &row : rows) {
        result.push_back(&row);
    }
    std::stable_sort(result.begin(), result.end(), [](const auto *left, const auto *right) {
        return order_of(*left) < order_of(*right);
    });
    return result;
}

// Whether to show the link when the user named none.
bool is_of_interest(const interface_view_t &interface) {
    return interface.tracked || interface.has_node;
}

} // namespace

std::size_t terminal_width() {
    winsize size{};
    const bool known = tav::terminal::on_terminal() &&
                       ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : unlimited_width;
}

void print(const lines_t &lines, bool colour) {
    for (const line_t &line : lines) {
        std::cout << tav::terminal::painted(line.text, line.style, colour) << '\n';
    }
}

char mark_letter(mark_t mark) {
    return text_of_mark(mark).letter;
}

std::vector<const interface_view_t *> chosen(const comparison_t &comparison,
                                             const options_t &options) {
    std::vector<const interface_view_t *> interfaces;
    for (const interface_view_t &interface : comparison.interfaces) {
        const bool wanted = options.link.empty() ? options.all || is_of_interest(interface)
                                                 : interface.link == options.link;
        if (wanted) {
            interfaces.push_back(&interface);
        }
    }
    if (interfaces.empty() && !options.link.empty()) {
        throw refusal("neither the kernel nor the store has a link '" + shown(options.link) +
                      "'; 'tandrelctl interface list' lists the links");
    }
    std::stable_sort(interfaces.begin(), interfaces.end(), [](const auto *left, const auto *right) {
        // Links without a number come last.
        const auto key = [](const interface_view_t &one) {
            return std::make_pair(static_cast<unsigned long>(one.number) - 1, one.link);
        };
        return key(*left) < key(*right);
    });
    return interfaces;
}

namespace {

void add_legend(const std::set<mark_t> &used, std::size_t width, lines_t &lines) {
    std::string legend;
    for (const mark_t mark : used) {
        const std::string one =
            std::string(1, mark_letter(mark)) + " " + text_of_mark(mark).meaning;
        if (legend.empty() || width_of(legend) + 3 + width_of(one) > width) {
            lines.push_back({legend.empty() ? style_t::plain : style_t::dim, legend});
            legend = one;
        } else {
            legend += "   " + one;
        }
    }
    if (!legend.empty()) {
        lines.push_back({style_t::dim, legend});
    }
}

} // namespace

lines_t table_lines(const std::vector<const interface_view_t *> &interfaces, std::size_t width) {
    lines_t lines;
    std::set<mark_t> used;
    for (const interface_view_t *interface : interfaces) {
        if (!lines.empty()) {
            lines.push_back({style_t::plain, ""});
        }
        lines.push_back({style_t::heading, heading_of(*interface)});
        std::vector<cells_t> rows;
        for (const address_row_t *row : sorted(interface->addresses)) {
            rows.push_back(cells_of(*row));
        }
        for (const gateway_row_t &row : interface->gateways) {
            rows.push_back(cells_of(row));
        }
        for (const cells_t &row : rows) {
            used.insert(row.mark);
        }
        if (rows.empty()) {
            lines.push_back({style_t::dim, "  no addresses, no gateway"});
        } else {
            add_table(rows, width, lines);
        }
    }
    add_legend(used, width, lines);
    return lines;
}

lines_t finding_lines(const finding_t &finding) {
    const bool differs = finding.severity() == severity_t::difference;
    const bool of_daemon = finding.fault.reason >= reason_t::daemon_absent;
    const std::string where = of_daemon              ? "tandrel"
                              : finding.link.empty() ? "store"
                                                     : shown(finding.link);
    lines_t lines{{differs ? style_t::bad : style_t::plain,
                   where + ": " + (differs ? "" : "note: ") + finding.sentence()}};
    const std::string remedy = finding.remedy();
    if (!remedy.empty()) {
        lines.push_back({style_t::dim, "    -> " + remedy});
    }
    return lines;
}

json_t interface_json(const interface_view_t &interface) {
    json_t json;
    json["link"] = interface.link;
    json["interface"] = interface.number != 0 ? json_t(interface.number) : json_t(nullptr);
    json["stored"] = interface.store_known ? json_t(interface.has_node) : json_t(nullptr);
    json["synchronised"] =
        interface.store_known ? json_t(interface.tracked && interface.has_node) : json_t(nullptr);
    json["kernel"] = nullptr;
    if (interface.kernel) {
        json["kernel"] = {{"index", interface.kernel->index},
                          {"up", interface.kernel->up},
                          {"connected", interface.kernel->carrier},
                          {"hardware_address", interface.kernel->hwaddr}};
    }
    json["addresses"] = json_t::array();
    for (const address_row_t *each : sorted(interface.addresses)) {
        const address_row_t &row = *each;
        json_t one{{"mark", text_of_mark(row.mark).name}, {"kernel", nullptr}, {"store", nullptr}};
        if (row.kernel) {
            const auto seconds = [](std::uint32_t time) {
                return time == forever ? json_t(nullptr) : json_t(time);
            };
            one["kernel"] = {{"address", prefix_text(row.kernel->address)},
                             {"scope", scope_name(row.kernel->address.scope)},
                             {"state", flags_text(row.kernel->flags)},
                             {"valid_seconds", seconds(row.kernel->valid)},
                             {"preferred_seconds", seconds(row.kernel->preferred)}};
        }
        if (row.stored) {
            one["store"] = {{"node", row.stored->node},
                            {"address", row.stored->text},
                            {"type", row.stored->type_text}};
        }
        json["addresses"].push_back(one);
    }
    json["gateways"] = json_t::array();
    for (const gateway_row_t &row : interface.gateways) {
        json_t one{{"mark", text_of_mark(row.mark).name}, {"kernel", nullptr}, {"store", nullptr}};
        if (row.kernel) {
            one["kernel"] = {{"gateway", address_text(row.kernel->route.gateway)},
                             {"protocol", protocol_name(row.kernel->route.protocol)},
                             {"table", row.kernel->table}};
        }
        if (row.stored) {
            one["store"] = {{"gateway", row.stored->text}};
        }
        json["gateways"].push_back(one);
    }
    return json;
}

json_t finding_json(const finding_t &finding) {
    return {{"link", finding.link.empty() ? json_t(nullptr) : json_t(finding.link)},
            {"reason", text_of(finding.fault.reason).name},
            {"text", finding.sentence()},
            {"remedy", finding.remedy()}};
}

void print_json(const json_t &json, int indent) {
    std::cout << tav::terminal::json_text(json, indent) << std::endl;
}

} // namespace ctl
