// Links without a store interface, and the names of the nodes that the daemon creates.
//
// A node is written and removed under the name that it bears in the store. The table names an
// address before the store is known (at start, in the kernel's order), so a synchronisation takes
// over the stored names, and what the store does not have moves out of the way of every name that
// the store lists, also of nodes that could not be read.

#include <cstdio>

#include "sync/errors.h"
#include "sync/sync.h"

namespace {

// A name in the form that the daemon gives ("1", "2", ...); 0 for any other.
std::size_t own_number(const tk_string &name) {
    constexpr std::size_t max_digits = 9;
    if (name.empty() || name.size() > max_digits || name[0] == '0') {
        return 0;
    }
    std::size_t number = 0;
    for (const char digit : name) {
        if (digit < '0' || digit > '9') {
            return 0;
        }
        number = number * 10 + static_cast<std::size_t>(digit - '0');
    }
    return number;
}

// Gives the smallest number that neither the table nor the store's listing holds, and then the
// next.
class free_numbers {
public:
    // Each address gets one number at most, so that one of so many numbers is free every time.
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
        char name[64];
        std::snprintf(name, sizeof name, "%zu", number);
        ++number;
        return name;
    }

private:
    void mark(const tk_string &name) {
        const std::size_t own = own_number(name);
        if (own < taken.size()) {
            taken[own] = true;
        }
    }

    std::vector<bool> taken;
    std::size_t number = 1;
};

} // namespace

bool CSync::may_write_store(const ifcfg_t &entry) const {
    return state == state_normal && entry.iface.number != 0;
}

// A link whose node has gone from the store must not be written under its old number: a write would
// create the node anew. Nor must one whose name another link has taken over in the kernel meanwhile
// (an entry keeps the name of its first sight): both would be written to one node.
void CSync::forget_absent_store_interfaces(const tavcfg_map_t &snapshot) {
    for (auto &item : interfaces) {
        ifcfg_t &entry = item.second;
        const tk_string &name = entry.iface.name;
        if (find_by_name<const tavcfg_t>(snapshot, name) == nullptr ||
            find_by_name<ifcfg_t>(interfaces, name) != &entry) {
            entry.iface.number = 0;
            entry.listed_nodes.clear();
        }
    }
}

tk_string CSync::free_node_name(const ifcfg_t &entry) {
    return free_numbers(entry).take();
}

void CSync::remember_listing(ifcfg_t &entry, const tavcfg_t &stored) {
    entry.listed_nodes = {stored.listed_nodes.begin(), stored.listed_nodes.end()};
    entry.listing_refused = stored.listing_refused;
}

// A node is never renamed: the entry takes the name that it bears in the store. Of several nodes
// that stand for one entry the first gives the name.
void CSync::take_over_name(CFullAddress &known, const CTavAddress &stored) {
    known.node = stored.node;
}

void CSync::rename_unmatched(ifcfg_t &entry, const std::vector<bool> &seen) {
    // A name that is given up stays taken: the store lists it.
    boost::optional<free_numbers> numbers;
    for (std::size_t i = 0; i < entry.addresses.size(); ++i) {
        CFullAddress &known = entry.addresses[i];
        if (!seen[i] && entry.listed_nodes.count(known.node) != 0) {
            if (!numbers) {
                numbers.emplace(entry);
            }
            known.node = numbers->take();
        }
    }
}

// A listing that the store refuses tells nothing of the names that are taken. Each is then looked
// up before it is written under, or a user's node might be overwritten. A store that claims to have
// every name is not believed for ever.
void CSync::avoid_unlisted_node(ifcfg_t &entry, CFullAddress &known) {
    constexpr int most_names = 1000;
    for (int i = 0; entry.listing_refused && holds_other_addr(entry.iface, known); ++i) {
        if (i == most_names) {
            throw sync_minor_err(error_text("No free node name on interface %d", known.ifindex));
        }
        entry.listed_nodes.insert(known.node);
        known.node = free_node_name(entry);
    }
}

// A name is free once its node is gone. A node that the store would not remove keeps its name, also
// when it is younger than the last listing.
void CSync::note_removal(const CTavInterface &ifc, const tk_string &node, bool removed) {
    for (auto &item : interfaces) {
        ifcfg_t &entry = item.second;
        if (entry.iface.number != ifc.number) {
            continue;
        }
        if (removed) {
            entry.listed_nodes.erase(node);
        } else {
            entry.listed_nodes.insert(node);
        }
    }
}
