// What a user, the kernel's administrator and the neighbour's router do to a device: random
// sequences of operations, and the text form in which they are kept and replayed.
//
// A sequence is a list of bursts. Within a burst the operations follow each other at the burst's
// pace; after it nothing is done until the world is quiet.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace model {

// The arguments of each, in order. A slot is 0..2 for the link eth0..eth2; the interface node of a
// slot is slot + 1. Addresses, nodes and gateways are positions in the lists below.
enum class Kind {
    kernel_add,      // slot, address, prefix length, 1: expires after a moment
    kernel_delete,   // slot, address, prefix length
    kernel_lifetime, // slot, address, prefix length: announced again with another life time
    advertise,       // slot, prefix, 1: expires after a moment; the neighbour's router
    link_create,     // slot
    link_delete,     // slot
    link_move,       // slot: into the neighbour's namespace
    link_rename,     // slot: ethN to eth7N or back
    link_down,       // slot
    link_up,         // slot
    route_add,       // slot, gateway, protocol, metric (0: the kernel's own)
    route_delete,    // slot, gateway, protocol, metric
    store_set,       // slot, node, address, prefix length, type, spelling
    store_address,   // slot, node, address, prefix length, spelling: the one leaf only
    store_type,      // slot, node, type: the other leaf only
    store_remove,    // slot, node
    store_rename,    // slot, node, new node: a copy, then a removal
    store_malformed, // slot, node, which
    gateway_set,     // slot, gateway, spelling
    gateway_bad,     // slot, which malformed text
    gateway_remove,  // slot
    foreign,         // slot, which: something other than the mirrored leaves
    interface_drop,  // slot: the interface's whole node
    touch,           // asks for a synchronisation
    daemon_stop,     // 1: killed; 0: in the orderly way
    daemon_start,    // and waited for
    store_stop,      // killed
    store_start,     // and the daemon waited for
    overflow,        // of the daemon's receive buffer, and the daemon waited for
};

struct Operation {
    Kind kind;
    std::vector<int> arguments; // as many as the kind has
};

// settled: quiet after each operation. slow: 20 to 80 ms between two. fast: up to 2 ms. frozen: the
// daemon is stopped meanwhile.
enum class Pace { settled, slow, fast, frozen };

struct Burst {
    Pace pace = Pace::settled;
    std::vector<Operation> operations;
};

struct Sequence {
    std::uint32_t seed = 0; // also of the pauses within the bursts
    int turn_delay = 0;     // milliseconds by which each cycle of the daemon is slowed down
    std::vector<Burst> bursts;
};

constexpr int slots = 3;
constexpr int kernel_addresses = 6; // 0..5 are for any link
constexpr int address_advertised =
    6; // 6 and 7: the addresses that the slot's link forms in prefixes 0 and 1
constexpr int address_link_local = 8; // the slot's own
constexpr int prefixes = 2;

// The text of an address or gateway without prefix length, in the kernel's spelling.
std::string address_text(int slot, int address);
std::string gateway_text(int gateway);
std::string prefix_text(int prefix);
std::string hardware_address(int slot);
std::string node_name(int node);
std::string type_text(int type);          // 1..3; all others are unknown types
std::string malformed_address(int which); // never a readable address
std::string malformed_gateway(int which);
// Another spelling of the same text; 0 is the kernel's.
std::string spelled(const std::string &text, int spelling);

// Relative to the node that holds the interfaces: a leaf that the daemon does not mirror; and the
// leaf whose touch causes a synchronisation, of an interface without a link.
std::string foreign_leaf(int number, int which);
std::string touched_leaf();

constexpr int nodes = 6;
constexpr int gateways = 4;
constexpr int unreachable_gateway = 3;
constexpr int malformed_texts = 5;
constexpr int spellings = 3;
constexpr int foreign_things = 4;

bool is_store_side(Kind kind);  // changes the store, by a user
bool is_kernel_side(Kind kind); // changes the kernel, not by the daemon
bool restarts_daemon(Kind kind);

Sequence generate(std::uint32_t seed);

// The text form: a line "seed N", a line "delay N", then per burst a line "burst PACE" and a line
// per operation. parse throws std::runtime_error naming the line.
std::string to_text(const Operation &operation);
std::string to_text(const Sequence &sequence);
Sequence parse(const std::string &text);

} // namespace model
