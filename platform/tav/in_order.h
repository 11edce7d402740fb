// For tables that are indexed by an enumeration.
#pragma once

#include <array>
#include <cstddef>

namespace tav {

// Whether each row is at the place of its own enumerator. In an array of the enumeration's size a
// missing row leaves another one empty at the end, which is then out of place.
template <typename Row, std::size_t rows, typename Key>
constexpr bool in_order(const std::array<Row, rows> &table, Key Row::*key) {
    for (std::size_t i = 0; i < rows; ++i) {
        if (static_cast<std::size_t>(table[i].*key) != i) {
            return false;
        }
    }
    return true;
}

} // namespace tav
