#include "ctl/keeper_memory.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "ctl/edit.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"
#include "store/tav_values.h"

namespace ctl {

namespace {

constexpr const char *all_links = "/Software/tandrel/Keeper/Links";
constexpr const char *handled_path = "/Software/tandrel/Keeper/Handled/Value";
constexpr const char *addresses_part = "/Addresses";
constexpr const char *gateway_part = "/Gateway";
constexpr const char *removals_part = "/Removals";
constexpr const char *node_part = "/Node";
constexpr const char *reason_part = "/Reason";
constexpr const char *confusion_part = "/Confusion";

// 0 if the store does not say when a leaf was written.
std::int64_t time_of(const toolkit::CElement &leaf) {
#ifdef TANDREL_STORE_STATUS
    return leaf.time();
#else
    static_cast<void>(leaf);
    return 0;
#endif
}

std::string below(std::string path, const char *part, const std::string &name) {
    path += part;
    path += '/';
    path += name;
    return path;
}

std::string removal_path(const setting_t &setting) {
    return below(link_memory(setting.link), removals_part, address_text(setting.address.addr));
}

// What identifies a setting, and whether it is still the same.
write_t value_of(const setting_t &setting, const std::string &path, write_t::kind_t kind) {
    return {kind, paths::value(path),
            setting.is_gateway ? address_text(setting.address.addr) : prefix_text(setting.address)};
}

// False if the text was damaged.
bool convert(const std::string &text, setting_t &setting) {
    if (!setting.is_gateway) {
        return !convert_address(text, setting.address);
    }
    CRoute route;
    if (convert_gateway(text, route)) {
        return false;
    }
    setting.address.addr = route.gateway;
    return true;
}

// Nothing if the text was damaged: the keeper then begins anew.
std::optional<std::uint64_t> number_in(const std::string &text) {
    std::uint64_t number = 0;
    const char *const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

class reader_t {
public:
    explicit reader_t(toolkit::CTav &client) : tav(client) {}

    memory_t read() {
        memory_t memory;
        toolkit::CElement handled;
        if (leaf(handled_path, handled)) {
            memory.handled = number_in(handled.to_string());
        }
        for (const std::string &link : children(all_links)) {
            const std::string path = link_memory(link);
            for (const std::string &name : children(path + addresses_part)) {
                read_kept(below(path, addresses_part, name), {link, false, {}, ""}, memory);
            }
            read_kept(path + gateway_part, {link, true, {}, ""}, memory);
            const std::string confusion = text(path + confusion_part);
            if (!confusion.empty()) {
                memory.confusion[link] = confusion;
            }
            for (const std::string &name : children(path + removals_part)) {
                read_removal(below(path, removals_part, name), link, memory);
            }
        }
        return memory;
    }

private:
    std::vector<std::string> children(const std::string &path) {
        api_status_t status = tav_value::status_unset;
        std::vector<toolkit::child_t> found;
        if (tav.list_node(path, status, found) != 0) {
            throw store_lost(store_silent);
        }
        std::vector<std::string> names;
        if (status == tav_value::status_ok) {
            for (const toolkit::child_t &child : found) {
                names.push_back(child.first);
            }
        }
        return names;
    }

    bool leaf(const std::string &path, toolkit::CElement &value) {
        api_status_t status = tav_value::status_unset;
        element_property_t property = tav_value::property_unset;
        if (tav.get_leaf(path, status, value, property) != 0) {
            throw store_lost(store_silent);
        }
        return status == tav_value::status_ok;
    }

    std::string text(const std::string &node) {
        toolkit::CElement value;
        return leaf(paths::value(node), value) ? value.to_string() : "";
    }

    void read_kept(const std::string &path, setting_t setting, memory_t &memory) {
        toolkit::CElement value;
        if (!leaf(paths::value(path), value) || !convert(value.to_string(), setting)) {
            return;
        }
        if (!setting.is_gateway) {
            setting.node = text(path + node_part);
        }
        memory.kept.push_back({setting, text(path + reason_part), time_of(value)});
    }

    void read_removal(const std::string &path, const std::string &link, memory_t &memory) {
        removal_t removal{{link, false, {}, ""}, text(path + node_part)};
        if (!convert_address(text(path), removal.setting.address)) {
            memory.removals.push_back(removal);
        }
    }

    toolkit::CTav &tav;
};

} // namespace

memory_t read_memory(toolkit::CTav &tav) {
    return reader_t(tav).read();
}

std::string kept_path(const setting_t &setting) {
    return setting.is_gateway ? link_memory(setting.link) + gateway_part
                              : below(link_memory(setting.link), addresses_part,
                                      address_text(setting.address.addr));
}

std::string link_memory(const std::string &link) {
    return std::string(all_links) + "/" + link;
}

void remember(writes_t &writes, const kept_t &kept) {
    const std::string path = kept_path(kept.setting);
    writes.push_back({write_t::clear, path, ""});
    writes.push_back(value_of(kept.setting, path, write_t::set));
    if (!kept.setting.is_gateway) {
        writes.push_back({write_t::set, paths::value(path + node_part), kept.setting.node});
    }
    writes.push_back({write_t::set, paths::value(path + reason_part), kept.why});
}

void forget(writes_t &writes, const setting_t &setting) {
    writes.push_back({write_t::clear, kept_path(setting), ""});
}

std::vector<std::pair<setting_t, bool>>
remember_as_before(std::uint64_t number, const setting_t &setting,
                   const std::vector<std::vector<leaf_change_t>> &since, writes_t &writes) {
    const std::string path = kept_path(setting);
    std::map<std::string, std::pair<std::optional<std::string>, std::optional<std::string>>> leaves;
    for (const std::vector<leaf_change_t> &change : since) {
        for (const leaf_change_t &leaf : change) {
            if (leaf.path.compare(0, path.size() + 1, path + "/") == 0) {
                leaves.try_emplace(leaf.path, leaf.before, leaf.after).first->second.second =
                    leaf.after;
            }
        }
        const bool is_older = std::any_of(change.begin(), change.end(), [&](const auto &leaf) {
            return leaf.path == handled_path && leaf.after &&
                   number_in(*leaf.after).value_or(number) < number;
        });
        if (is_older) {
            leaves.clear(); // the keeper was late
        }
    }
    std::vector<std::pair<setting_t, bool>> result;
    const auto [before, now] = leaves[paths::value(path)];
    for (const auto &[text, is_kept] : {std::pair(now, false), std::pair(before, true)}) {
        setting_t one = setting;
        if (text && before != now && convert(*text, one)) {
            result.emplace_back(one, is_kept);
        }
    }
    if (now && !before) {
        forget(writes, setting);
        return result;
    }
    for (const auto &[leaf, values] : leaves) {
        if (values.first) {
            writes.push_back({write_t::set, leaf, *values.first});
        }
    }
    return result;
}

void begin_removal(writes_t &writes, const removal_t &removal) {
    const std::string path = removal_path(removal.setting);
    writes.push_back({write_t::clear, path, ""});
    writes.push_back(value_of(removal.setting, path, write_t::set));
    if (!removal.node.empty()) {
        writes.push_back({write_t::set, paths::value(path + node_part), removal.node});
    }
}

void end_removal(writes_t &writes, const setting_t &setting) {
    writes.push_back({write_t::clear, removal_path(setting), ""});
}

void note_handled(writes_t &writes, std::uint64_t number) {
    writes.push_back({write_t::set, handled_path, std::to_string(number)});
}

void note_confusion(writes_t &writes, const std::string &link, const std::string &confusion) {
    const std::string path = link_memory(link) + confusion_part;
    if (confusion.empty()) {
        writes.push_back({write_t::clear, path, ""});
    } else {
        writes.push_back({write_t::set, paths::value(path), confusion});
    }
}

writes_t writes_of(const task_t &task, const std::string &prefix) {
    const setting_t &setting = task.setting;
    const std::string ipv6 =
        paths::ipv6(static_cast<std::int32_t>(interface_number(setting.link, prefix)));
    const std::string node = paths::address(paths::addresses(ipv6), setting.node);
    writes_t writes;
    const auto add_leaves = [&](write_t::kind_t kind, std::int32_t type) {
        writes.push_back({kind, paths::address_value(node), task.text});
        writes.push_back({kind, paths::type_value(node), type_to_str(type)});
    };
    switch (task.kind) {
    case task_t::restore:
        writes.push_back(value_of(setting, kept_path(setting), write_t::same));
        forget(writes, setting);
        if (setting.is_gateway) {
            const std::string leaf = paths::value(paths::gateway(ipv6));
            writes.push_back({write_t::absent, leaf, ""});
            writes.push_back({write_t::set, leaf, task.text});
        } else {
            writes.push_back({write_t::absent, node, ""});
            add_leaves(write_t::set, type_static);
        }
        break;
    case task_t::forget:
        forget(writes, setting);
        break;
    case task_t::take_out:
        add_leaves(write_t::same, type_static);
        remember(writes, {setting, task.words, 0});
        writes.push_back({write_t::clear, node, ""});
        break;
    case task_t::adopt:
        add_leaves(write_t::same, type_automatic);
        begin_removal(writes, {setting, setting.node});
        writes.push_back({write_t::set, paths::type_value(node), type_to_str(type_static)});
        break;
    case task_t::remove:
        add_leaves(write_t::same, type_static);
        begin_removal(writes, {setting, ""});
        writes.push_back({write_t::clear, node, ""});
        break;
    case task_t::drop:
        add_leaves(write_t::same, task.type); // nobody has made it Static meanwhile
        writes.push_back({write_t::clear, node, ""});
        break;
    case task_t::settle:
        end_removal(writes, setting);
        break;
    case task_t::synchronise:
        break;
    }
    return writes;
}

} // namespace ctl
