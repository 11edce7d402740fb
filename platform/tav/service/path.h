// Paths and names of the tree.
#pragma once

#include <tav/mlr.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace tav {

// api_status_ok for "/", or "/" followed by names separated by single "/", within the limits.
// Otherwise api_status_bad_path, or the status of the limit: api_status_path_too_long,
// api_status_path_too_deep, api_status_name_too_long. Of a path that is too long only the first
// byte is examined.
api_status_t check_path(std::string_view path);

// Removes the first name, with the "/" before it, from a text that begins with "/".
inline std::string_view take_name(std::string_view &path) {
    const std::string_view name = path.substr(1, path.find('/', 1) - 1);
    path.remove_prefix(1 + name.size());
    return name;
}

// The path of the parent node; "/" for "/".
std::string_view parent_path(std::string_view path);

// Whether `path` is `ancestor` or lies below it.
bool is_at_or_below(std::string_view path, std::string_view ancestor);

// A name with its sorting key, so that the key is computed once for many comparisons.
struct PlacedName {
    explicit PlacedName(std::string_view name);

    PlacedName(std::string_view name, std::size_t known) : text(name), digits(known) {}

    std::string_view text;
    std::size_t digits; // of a decimal number, without leading zeros; no_number for other names

    static constexpr std::size_t no_number = std::string_view::npos; // more than any number has
    bool is_number() const { return digits != no_number; }
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
// then all others bytewise. Below 0 if `left` comes first, 0 if the names are equal.
int order_of_numbers(const PlacedName &left, const PlacedName &right);
inline int order_of(const PlacedName &left, const PlacedName &right) {
    if (left.digits != right.digits) {
        return left.digits < right.digits ? -1 : 1;
    }
    return left.is_number() ? order_of_numbers(left, right) : left.text.compare(right.text);
}

struct NameLess {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const {
        return order_of(PlacedName(left), PlacedName(right)) < 0;
    }
};

} // namespace tav
