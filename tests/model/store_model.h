// The settings store as its protocol describes it: a tree of nodes and text leaves, a user's
// changes that the daemon has not fetched yet, and the refusal of writes that did not know of them.
// Paths are relative to the node that holds the interfaces, without a leading "/".
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace model {

// The settings that the daemon can read from an interface's node.
struct StoredAddress {
    std::string node;
    std::string text; // in the kernel's spelling
    int length;
    int type; // 1..3
};

struct StoredInterface {
    int number;
    std::optional<std::string> gateway;
    std::vector<StoredAddress> addresses;
    std::vector<std::string> listed; // every child of "Addresses"
};

std::string address_leaf(int number, const std::string &node);
std::string type_leaf(int number, const std::string &node);
std::string address_node(int number, const std::string &node);
std::string gateway_node(int number);
std::string gateway_leaf(int number);
// An address text with its length, or a gateway's text without one; empty if it is malformed.
std::optional<std::pair<std::string, int>> read_address(const std::string &text, bool with_length);

class StoreModel {
public:
    using pairs_t = std::vector<std::pair<std::string, std::string>>;

    // By a user. Each is one transaction.
    void user_write(const pairs_t &leaves);
    void user_remove(const std::string &node);
    void user_touch(const std::string &leaf) { events.insert(leaf); }

    // By the daemon: false when refused, or when the service has ended.
    bool daemon_write(const pairs_t &leaves);
    bool daemon_remove(const std::string &node);

    // Fetches the waiting events; whether one of them is on a leaf that the daemon mirrors.
    bool fetch();

    std::vector<StoredInterface> read() const;
    bool exists(const std::string &path) const;

    std::map<std::string, std::string> leaves;
    std::set<std::string> nodes;
    std::set<std::string> events; // not fetched yet: leaves
    bool watched = false;         // whether a daemon is registered for events
    // The service ends after so many writes of the daemon; the others do not reach it.
    std::optional<int> last_writes;

private:
    bool reaches_service();
    std::vector<std::string> children(const std::string &node, bool also_leaves) const;
    bool write(const pairs_t &pairs, bool by_user);
    bool remove(const std::string &node, bool by_user);
};

} // namespace model
