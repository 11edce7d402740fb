// The store's view: everything below the interfaces' node, including what the daemon cannot use,
// with the reason.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ctl/reasons.h"
#include "sync/model.h"

namespace ctl {

// The store did not answer, or its connection ended.
class store_lost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr const char *store_silent = "the settings store does not answer";

// One child of "Addresses".
struct stored_address_t {
    std::string node;
    std::string text;             // text of its address leaf; empty when there is none
    std::string type_text;        // text of its type leaf; empty when there is none
    CTavAddress address;          // meaningful without a fault
    std::optional<fault_t> fault; // why the daemon skips it
};

struct stored_gateway_t {
    std::string text;
    CTavRoute route; // meaningful without a fault
    std::optional<fault_t> fault;
};

// One child node of the interfaces' node.
struct stored_interface_t {
    std::string node;
    long number = 0;  // 0: the name is not a number, so the daemon cannot read the store
    std::string link; // name of the kernel link that the node is for
    std::optional<stored_gateway_t> gateway;
    std::vector<stored_address_t> addresses; // in listing order
    std::vector<std::string> strange;        // paths of elements that the daemon ignores
    bool holds_more = false; // other children than "IPv6"; in a node without a number, any child
};

struct store_view_t {
    bool answered = false; // if false, nothing else here is known
    bool listed = false;   // the interfaces' node exists
    std::vector<stored_interface_t> interfaces;
    std::vector<std::string> strange; // children of the interfaces' node that are not nodes
};

// `prefix`: the prefix of the names of the links. Throws store_lost.
store_view_t read_store(toolkit::CTav &tav, const std::string &prefix);

// Converts the text of an address or gateway leaf by the daemon's rules; returns the fault if there
// is one, and then does not change the output.
std::optional<fault_t> convert_address(const std::string &text, CAddress &address);
std::optional<fault_t> convert_gateway(const std::string &text, CRoute &route);

} // namespace ctl
