#include "sync/node_names.h"

#include <cstdlib>

namespace {

// Yields the numbers that are not the name of any node, lowest first.
class free_numbers {
public:
    // As many numbers as there can be names, before and after each address has taken one.
    explicit free_numbers(const ifcfg_t &entry)
        : taken(2 * entry.addresses.size() + entry.listed_nodes.size() + 2, false) {
        for (const CFullAddress &known : entry.addresses) {
            mark(known.node);
        }
        for (const tk_string &name : entry.listed_nodes) {
            mark(name);
        }
    }

    tk_string take() {
        while (taken[number]) {
            ++number;
        }
        return std::to_string(number++);
    }

private:
    void mark(const tk_string &name) {
        const unsigned long own = std::strtoul(name.c_str(), nullptr, 10);
        if (own < taken.size() && std::to_string(own) == name) {
            taken[own] = true;
        }
    }

    std::vector<bool> taken;
    std::size_t number = 1;
};

} // namespace

void forget_absent_store_interfaces(ifcfg_map_t &interfaces, const tavcfg_map_t &snapshot) {
    for (auto &item : interfaces) {
        ifcfg_t &entry = item.second;
        const tk_string &name = entry.iface.name;
        if (find_by_name(snapshot, name) == nullptr || find_by_name(interfaces, name) != &entry) {
            entry.iface.number = 0;
            entry.listed_nodes.clear();
        }
    }
}

tk_string free_node_name(const ifcfg_t &entry) {
    return free_numbers(entry).take();
}

void rename_unmatched(ifcfg_t &entry, const std::vector<bool> &matched) {
    // A name that an entry gives up is still taken: the store lists it.
    boost::optional<free_numbers> numbers;
    for (std::size_t i = 0; i < entry.addresses.size(); ++i) {
        CFullAddress &known = entry.addresses[i];
        if (!matched[i] && entry.listed_nodes.count(known.node) != 0) {
            if (!numbers) {
                numbers.emplace(entry);
            }
            known.node = numbers->take();
        }
    }
}
