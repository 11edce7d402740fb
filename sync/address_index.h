// Finding addresses by their bytes in a list of any length.
#pragma once

#include <cstddef>
#include <map>

#include "sync/model.h"

struct address_less {
    bool operator()(const in6_addr &left, const in6_addr &right) const;
};

// The positions of a list's items by their 16 bytes. Items of the same bytes stand in the order in
// which they were put in.
using address_index = std::multimap<in6_addr, std::size_t, address_less>;

template <typename Address>
address_index index_of(const std::vector<Address> &addresses) {
    address_index index;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        index.emplace(addresses[i].addr, i);
    }
    return index;
}
