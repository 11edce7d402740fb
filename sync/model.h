// Addresses, routes and interfaces as each side sees them.
//
// Each exists as a kernel view (CKern..., filled by the netlink decoders), a store view (CTav...,
// filled by the store readers) and a full view, which is both at once. The views inherit their base
// virtually, so a full object has the base's members only once and can be passed to the writers of
// either side. All are plain values; copying throws only std::bad_alloc.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include <boost/optional.hpp>
#include <netinet/in.h>

#include <tav/toolkit.h>

struct CAddress {
    in6_addr addr{};             // network byte order
    std::uint8_t prefix_len = 0; // 0 when unknown
};

struct CKernAddress : virtual public CAddress {
    std::int32_t ifindex = 0;
    std::uint8_t scope = 0; // RT_SCOPE_..., rtnetlink(7)
};

enum address_type_t : std::int32_t {
    type_unset = 0,
    type_link_local = 1,
    type_automatic = 2,
    type_static = 3
};

struct CTavAddress : virtual public CAddress {
    std::int32_t type = type_unset; // address_type_t
    tk_string node;                 // its node under "Addresses", or the name chosen for it
};

struct CFullAddress : public CKernAddress, public CTavAddress {};

struct CRoute {
    in6_addr dst{};
    std::uint8_t dst_len = 0;
    in6_addr gateway{}; // all zero: none
};

struct CKernRoute : virtual public CRoute {
    std::int32_t ifindex = 0;
    std::uint8_t protocol = 0; // RTPROT_..., rtnetlink(7)
};

struct CTavRoute : virtual public CRoute {};

struct CFullRoute : public CKernRoute, public CTavRoute {};

struct CInterface {
    CInterface() = default;
    // Copied, never moved: assigning a full interface assigns this base once for each view, and the
    // second move would move from an empty name.
    CInterface(const CInterface &) = default;
    CInterface &operator=(const CInterface &) = default;

    tk_string name;
};

struct CKernInterface : virtual public CInterface {
    std::int32_t ifindex = 0;
    tk_string hwaddr; // "00:1a:2b:3c:4d:5e"
};

struct CTavInterface : virtual public CInterface {
    std::int32_t number = 0; // N of the store's node; 0 while no node is known
};

struct CFullInterface : public CKernInterface, public CTavInterface {};

// One interface in the store.
struct tavcfg_t {
    CTavInterface iface;
    boost::optional<CTavRoute> gateway;
    std::vector<CTavAddress> addresses;  // in listing order
    std::vector<tk_string> listed_nodes; // every child of "Addresses", readable or not
};

// Deletions of one address with one prefix length that the kernel has not answered yet.
struct deletions_t {
    std::size_t unanswered = 0;
    std::size_t added_again = 0; // how many of them, the oldest, were followed by an addition
};

// Orders by address and prefix length.
struct address_and_prefix_less {
    bool operator()(const CAddress &left, const CAddress &right) const;
};
using deletion_map_t = std::map<CAddress, deletions_t, address_and_prefix_less>;

// One tracked interface in the engine's table.
struct ifcfg_t {
    CFullInterface iface;
    boost::optional<CFullRoute> gateway; // present in the kernel, or requested there
    bool gateway_leaving = false;        // its deletion was requested, but not yet answered
    std::vector<CFullAddress> addresses;
    deletion_map_t deletions;         // the daemon's own (sync/deletions.h)
    std::set<tk_string> listed_nodes; // names taken in the store, as last listed
};

// Keyed by the position of the interface's node in the store's listing.
using tavcfg_map_t = std::unordered_map<std::uint32_t, tavcfg_t>;
// Keyed by kernel interface index.
using ifcfg_map_t = std::unordered_map<std::int32_t, ifcfg_t>;

// Both maps start with at least this many buckets. Their bucket counts are primes, an integer key
// hashes to itself, and its bucket is the key modulo the bucket count.
constexpr std::size_t initial_buckets = 10;

// The map's values, bucket by bucket; valid until the map changes. unordered_map's own iterators
// depend on the order of insertion as well.
template <typename Map>
auto in_bucket_order(Map &map) {
    std::vector<decltype(&map.begin()->second)> values;
    for (std::size_t bucket = 0; bucket < map.bucket_count(); ++bucket) {
        for (auto entry = map.begin(bucket); entry != map.end(bucket); ++entry) {
            values.push_back(&entry->second);
        }
    }
    return values;
}

// The first value in bucket order whose interface has the name; null when there is none.
template <typename Map>
auto find_by_name(Map &map, const tk_string &name) {
    const auto values = in_bucket_order(map);
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const auto *value) { return value->iface.name == name; });
    return found != values.end() ? *found : nullptr;
}

// The same address: the prefix length is content, not identity.
bool same_address(const CAddress &left, const CAddress &right);
// A default route by its destination's bytes; the prefix length is ignored.
bool is_default_route(const CRoute &route);
bool has_gateway(const CRoute &route);
bool same_gateway(const CRoute &left, const CRoute &right);
