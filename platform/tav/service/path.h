// Paths and names of the tree.
#ifndef TAV_SERVICE_PATH_H
#define TAV_SERVICE_PATH_H

#include <tav/mlr.h>

#include <string_view>
#include <vector>

namespace tav {

// "/" or "/" followed by names separated by single "/", within the limits: api_status_ok;
// otherwise api_status_bad_path or that of
// the limit: api_status_path_too_long, api_status_path_too_deep, api_status_name_too_long.
api_status_t check_path(std::string_view path);

// Takes the first name, with the "/" before it, off a text that begins with "/".
std::string_view take_name(std::string_view &path);

// The names of a path that check_path accepts; none for "/". They are parts of `path`.
std::vector<std::string_view> split_path(std::string_view path);

// That of the node which holds `path`; "/" for itself.
std::string_view parent_path(std::string_view path);

// Whether `path` is `ancestor` or lies below it.
bool is_at_or_below(std::string_view path, std::string_view ancestor);

// The order of a listing: names that are decimal numbers first, by value (equal values: bytewise),
// then all others bytewise.
struct NameLess {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const;
};

} // namespace tav

#endif
