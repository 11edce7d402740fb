// Paths and names of the tree.
#ifndef TAV_SERVICE_PATH_H
#define TAV_SERVICE_PATH_H

#include <tav/mlr.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace tav {

// "/" or "/" followed by names separated by single "/", within the limits: api_status_ok;
// otherwise api_status_bad_path or that of
// the limit: api_status_path_too_long, api_status_path_too_deep, api_status_name_too_long.
api_status_t check_path(std::string_view path);

// Takes the first name, with the "/" before it, off a text that begins with "/".
std::string_view take_name(std::string_view &path);

// That of the node which holds `path`; "/" for itself.
std::string_view parent_path(std::string_view path);

// Whether `path` is `ancestor` or lies below it.
bool is_at_or_below(std::string_view path, std::string_view ancestor);

// A name with what its place in a listing depends on, so that this is found out once for many
// comparisons.
struct PlacedName {
    explicit PlacedName(std::string_view name);

    PlacedName(std::string_view name, std::size_t known) : text(name), digits(known) {}

    std::string_view text;
    std::size_t
        digits; // of a decimal number, without zeros in front; more than any for other names
};

// A name that is kept with its place.
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

#endif
