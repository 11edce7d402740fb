#include "service/path.h"

#include <algorithm>

#include "protocol/limits.h"

namespace tav {

namespace {

std::size_t significant_digits(std::string_view name) {
    if (name.empty() ||
        !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return PlacedName::no_number;
    }
    return name.size() - std::min(name.find_first_not_of('0'), name.size());
}

} // namespace

api_status_t check_path(std::string_view path) {
    if (path.empty() || path.front() != '/') {
        return api_status_bad_path;
    }
    if (path.size() > limits::path_bytes) {
        return api_status_path_too_long; // going through millions of names would take long
    }
    if (path.find('\0') != std::string_view::npos) {
        return api_status_bad_path;
    }
    if (path == "/") {
        return api_status_ok;
    }
    std::size_t names = 0;
    bool names_fit = true;
    for (std::string_view rest = path; !rest.empty(); ++names) {
        const std::string_view name = take_name(rest);
        if (name.empty()) {
            return api_status_bad_path;
        }
        names_fit = names_fit && name.size() <= limits::name_bytes;
    }
    if (names > limits::depth) {
        return api_status_path_too_deep;
    }
    return names_fit ? api_status_ok : api_status_name_too_long;
}

std::string_view parent_path(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

bool is_at_or_below(std::string_view path, std::string_view ancestor) {
    if (ancestor == "/") {
        return true;
    }
    return path.substr(0, ancestor.size()) == ancestor &&
           (path.size() == ancestor.size() || path[ancestor.size()] == '/');
}

PlacedName::PlacedName(std::string_view name) : text(name), digits(significant_digits(name)) {}

// Both have the same number of significant digits.
int order_of_numbers(const PlacedName &left, const PlacedName &right) {
    const int order = left.text.substr(left.text.size() - left.digits)
                          .compare(right.text.substr(right.text.size() - right.digits));
    return order != 0 ? order : left.text.compare(right.text);
}

} // namespace tav
