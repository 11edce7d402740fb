// Paths and names of the tree.
#pragma once

#include <tav/mlr.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace tav {

// api_status_ok for "/", or "/" followed by names separated by single "/", within the limits.
// Otherwise api_status_bad_path, or the status of the limit: api_status_path_too_long,
// api_status_path_too_deep, api_status_name_too_long.
api_status_t check_path(std::string_view path);

// Removes the first name, with the "/" before it, from a text that begins with "/".
std::string_view take_name(std::string_view &path);

// The path of the parent node; "/" for "/".
std::string_view parent_path(std::string_view path);

// Whether `path` is `ancestor` or lies below it.
bool is_at_or_below(std::string_view path, std::string_view ancestor);

// A name with its sorting key, so that the key is computed once for many comparisons.
struct PlacedName {
    explicit PlacedName(std::string_view name);

    PlacedName(std::string_view name, std::size_t known) : text(name), digits(known) {}

    std::string_view text;
    std::size_t digits; // of a decimal number, without leading zeros; larger than any number's for
                        // other names
};

// A name that is stored with its sorting key.
class Name {
public:
    explicit Name(const PlacedName &name) : characters(name.text), digits(name.digits) {}

    const std::string &text() const { return characters; }
    // NOLINTNEXTLINE(google-explicit-constructor): so that both kinds are compared alike
    operator PlacedName() const { return {characters, digits}; }

private:
    std::string characters;
    std::size_t digits;
};

// The order of a listing: names that are decimal numbers first, by value (equal values: bytewise),
// then all others bytewise.
struct NameLess {
    using is_transparent = void;
    bool operator()(const PlacedName &left, const PlacedName &right) const;
    bool operator()(std::string_view left, std::string_view right) const {
        return (*this)(PlacedName(left), PlacedName(right));
    }
};

} // namespace tav
