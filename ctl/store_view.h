// The store's view: everything that stands below the interfaces' node, also what the daemon cannot
// use, with the reason.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <boost/optional.hpp>

#include "ctl/reasons.h"
#include "sync/model.h"

namespace ctl {

// The store did not answer, or its connection ended.
class store_lost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr const char *store_unreachable =
    "the settings store cannot be reached; is its service running?";
constexpr const char *store_silent = "the settings store does not answer";

// One child of "Addresses".
struct stored_address_t {
    std::string node;
    std::string text;               // of its address leaf; empty when there is none
    std::string type_text;          // likewise
    CTavAddress address;            // meaningful without a fault
    boost::optional<fault_t> fault; // why the daemon skips it
};

struct stored_gateway_t {
    std::string text;
    CTavRoute route; // meaningful without a fault
    boost::optional<fault_t> fault;
};

// One child node of the interfaces' node.
struct stored_interface_t {
    std::string node;
    long number = 0;  // 0: its name is no number, and the daemon's whole read fails
    std::string link; // the kernel link that it stands for
    boost::optional<stored_gateway_t> gateway;
    std::vector<stored_address_t> addresses; // in listing order
    std::vector<std::string> strange;        // paths of elements that the daemon does not look at
    bool holds_more = false; // beside "IPv6"; of a node without a number, anything at all
};

struct store_view_t {
    bool answered = false; // otherwise nothing is known of it
    bool listed = false;   // the interfaces' node exists
    std::vector<stored_interface_t> interfaces;
    std::vector<std::string> strange; // children of the interfaces' node that are no nodes
};

// `prefix`: what the names of the links begin with. Throws store_lost.
store_view_t read_store(toolkit::CTav &tav, const std::string &prefix);

// Converts the text of an address or gateway leaf by the daemon's rules; a fault tells what is
// wrong, and leaves the output alone.
boost::optional<fault_t> convert_address(const std::string &text, CAddress &address);
boost::optional<fault_t> convert_gateway(const std::string &text, CRoute &route);

} // namespace ctl
