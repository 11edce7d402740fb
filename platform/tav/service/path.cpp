#include "service/path.h"

#include <algorithm>

#include "protocol/limits.h"

namespace tav {

namespace {

bool is_number(std::string_view name) {
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string_view without_zeros(std::string_view number) {
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    return number;
}

} // namespace

api_status_t check_path(std::string_view path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
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
    if (path.size() > limits::path_bytes) {
        return api_status_path_too_long;
    }
    if (names > limits::depth) {
        return api_status_path_too_deep;
    }
    return names_fit ? api_status_ok : api_status_name_too_long;
}

std::string_view take_name(std::string_view &path) {
    path.remove_prefix(1); // the "/"
    const std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size());
    return name;
}

std::vector<std::string_view> split_path(std::string_view path) {
    std::vector<std::string_view> names;
    if (path == "/") {
        return names;
    }
    while (!path.empty()) {
        names.push_back(take_name(path));
    }
    return names;
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

bool NameLess::operator()(std::string_view left, std::string_view right) const {
    const bool left_number = is_number(left);
    const bool right_number = is_number(right);
    if (left_number != right_number) {
        return left_number;
    }
    if (left_number) {
        const std::string_view a = without_zeros(left);
        const std::string_view b = without_zeros(right);
        if (a.size() != b.size()) {
            return a.size() < b.size();
        }
        if (a != b) {
            return a < b;
        }
    }
    return left < right;
}

} // namespace tav
