#include "store_model.h"

#include <algorithm>
#include <cstdlib>

#include <arpa/inet.h>

namespace model {
namespace {

std::string addresses_node(int number) {
    return std::to_string(number) + "/IPv6/Addresses";
}

bool is_number(const std::string &text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Numbers numerically, then names bytewise.
bool listed_before(const std::string &left, const std::string &right) {
    const bool left_number = is_number(left);
    const bool right_number = is_number(right);
    if (left_number != right_number) {
        return left_number;
    }
    if (left_number && left.size() != right.size()) {
        return left.size() < right.size();
    }
    return left < right;
}

bool is_mirrored(const std::string &leaf) {
    const auto ends = [&](const std::string &end) {
        return leaf.size() >= end.size() &&
               leaf.compare(leaf.size() - end.size(), end.size(), end) == 0;
    };
    return leaf.find("/IPv6/") != std::string::npos &&
           (ends("/Default Gateway/Value") || ends("/Address/Value") || ends("/Type/Value"));
}

int type_number(const std::string &text) {
    static const std::map<std::string, int> numbers{
        {"Link-Local", 1}, {"Automatic", 2}, {"Static", 3}};
    const auto found = numbers.find(text);
    return found == numbers.end() ? 0 : found->second;
}

} // namespace

std::string address_node(int number, const std::string &node) {
    return addresses_node(number) + "/" + node;
}

std::string address_leaf(int number, const std::string &node) {
    return address_node(number, node) + "/Address/Value";
}

std::string type_leaf(int number, const std::string &node) {
    return address_node(number, node) + "/Type/Value";
}

std::string gateway_node(int number) {
    return std::to_string(number) + "/IPv6/Default Gateway";
}

std::string gateway_leaf(int number) {
    return gateway_node(number) + "/Value";
}

std::optional<std::pair<std::string, int>> read_address(const std::string &text, bool with_length) {
    const auto slash = text.find('/');
    int length = 0;
    if (slash == std::string::npos) {
        if (with_length) {
            return std::nullopt;
        }
    } else {
        const std::string digits = text.substr(slash + 1);
        length = is_number(digits) && digits.size() < 5 ? std::atoi(digits.c_str()) : 0;
        if (length < 1 || length > 128) {
            return std::nullopt;
        }
    }
    in6_addr bytes{};
    char canonical[INET6_ADDRSTRLEN];
    if (inet_pton(AF_INET6, text.substr(0, slash).c_str(), &bytes) != 1) {
        return std::nullopt;
    }
    inet_ntop(AF_INET6, &bytes, static_cast<char *>(canonical), sizeof canonical);
    return std::make_pair(std::string(static_cast<char *>(canonical)), length);
}

std::vector<std::string> StoreModel::children(const std::string &node, bool also_leaves) const {
    std::vector<std::string> found;
    const std::string stem = node.empty() ? "" : node + "/";
    const auto keep = [&](const std::string &path) {
        if (path.size() > stem.size() && path.compare(0, stem.size(), stem) == 0 &&
            path.find('/', stem.size()) == std::string::npos) {
            found.push_back(path.substr(stem.size()));
        }
    };
    std::for_each(nodes.begin(), nodes.end(), keep);
    for (const auto &leaf : leaves) {
        if (also_leaves) {
            keep(leaf.first);
        }
    }
    std::sort(found.begin(), found.end(), listed_before);
    return found;
}

bool StoreModel::exists(const std::string &path) const {
    return nodes.count(path) != 0 || leaves.count(path) != 0;
}

bool StoreModel::write(const pairs_t &pairs, bool by_user) {
    pairs_t changes;
    for (const auto &pair : pairs) {
        const auto known = leaves.find(pair.first);
        if (known == leaves.end() || known->second != pair.second) {
            changes.push_back(pair);
        }
    }
    for (const auto &change : changes) {
        if (!by_user && events.count(change.first) != 0) {
            return false;
        }
    }
    for (const auto &change : changes) {
        leaves[change.first] = change.second;
        for (auto slash = change.first.find('/'); slash != std::string::npos;
             slash = change.first.find('/', slash + 1)) {
            nodes.insert(change.first.substr(0, slash));
        }
        if (by_user && watched) {
            events.insert(change.first);
        }
    }
    return true;
}

bool StoreModel::remove(const std::string &node, bool by_user) {
    if (nodes.count(node) == 0) {
        return false;
    }
    const std::string stem = node + "/";
    const auto below = [&](const std::string &path) {
        return path.compare(0, stem.size(), stem) == 0;
    };
    std::vector<std::string> gone;
    for (const auto &leaf : leaves) {
        if (below(leaf.first)) {
            gone.push_back(leaf.first);
        }
    }
    for (const auto &leaf : gone) {
        if (!by_user && events.count(leaf) != 0) {
            return false;
        }
    }
    for (const auto &leaf : gone) {
        leaves.erase(leaf);
        if (by_user && watched) {
            events.insert(leaf);
        }
    }
    for (auto one = nodes.begin(); one != nodes.end();) {
        one = *one == node || below(*one) ? nodes.erase(one) : std::next(one);
    }
    return true;
}

void StoreModel::user_write(const pairs_t &pairs) {
    write(pairs, true);
}

void StoreModel::user_remove(const std::string &node) {
    remove(node, true);
}

bool StoreModel::reaches_service() {
    return !last_writes || --*last_writes >= 0;
}

bool StoreModel::daemon_write(const pairs_t &pairs) {
    return reaches_service() && write(pairs, false);
}

bool StoreModel::daemon_remove(const std::string &node) {
    return reaches_service() && remove(node, false);
}

bool StoreModel::fetch() {
    const bool changed = std::any_of(events.begin(), events.end(), is_mirrored);
    events.clear();
    return changed;
}

std::vector<StoredInterface> StoreModel::read() const {
    std::vector<StoredInterface> found;
    for (const auto &name : children("", false)) {
        StoredInterface one{};
        one.number = std::atoi(name.c_str());
        const auto gateway = leaves.find(gateway_leaf(one.number));
        if (gateway != leaves.end()) {
            const auto text = read_address(gateway->second, false);
            if (text) {
                one.gateway = text->first;
            }
        }
        one.listed = children(addresses_node(one.number), true);
        for (const auto &node : children(addresses_node(one.number), false)) {
            const auto address = leaves.find(address_leaf(one.number, node));
            const auto type = leaves.find(type_leaf(one.number, node));
            if (address == leaves.end() || type == leaves.end()) {
                continue;
            }
            const auto text = read_address(address->second, true);
            const int number = type_number(type->second);
            if (text && number != 0) {
                one.addresses.push_back({node, text->first, text->second, number});
            }
        }
        found.push_back(one);
    }
    return found;
}

} // namespace model
