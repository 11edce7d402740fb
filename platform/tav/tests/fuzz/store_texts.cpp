// The texts that the store's service checks or compares: paths, names, values.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "fuzz/fuzz.h"
#include "service/path.h"
#include "service/value_check.h"

namespace {

using fuzz::require;
using fuzz::split;

// Lets a short input reach the limits: FF, a number and a byte mean four times that number of this
// byte. Cut at 5,000 bytes.
std::string expanded(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    std::string text;
    while (!input.empty() && text.size() < 5000) {
        const std::uint8_t one = input.byte();
        if (one != 0xff) {
            text.push_back(static_cast<char>(one));
            continue;
        }
        const std::size_t number = input.byte() * std::size_t{4};
        text.append(number, static_cast<char>(input.byte()));
    }
    return text;
}

api_status_t path_status(const std::string &path) {
    const std::vector<std::string> names = split(path, '/');
    if (names.size() < 2 || !names[0].empty()) {
        return api_status_bad_path;
    }
    if (path.size() > 4096) {
        return api_status_path_too_long;
    }
    bool empty_name = false;
    bool long_name = false;
    for (std::size_t i = 1; i < names.size(); ++i) {
        if (names[i].find('\0') != std::string::npos) {
            return api_status_bad_path;
        }
        empty_name = empty_name || names[i].empty();
        long_name = long_name || names[i].size() > 255;
    }
    if (path == "/") {
        return api_status_ok;
    }
    if (empty_name) {
        return api_status_bad_path;
    }
    return names.size() - 1 > 64 ? api_status_path_too_deep
           : long_name           ? api_status_name_too_long
                                 : api_status_ok;
}

std::vector<std::string> names_of(const std::string &path) {
    std::vector<std::string> names = split(path, '/');
    names.erase(names.begin());
    return path == "/" ? std::vector<std::string>() : names;
}

bool has_nothing_but_digits(const std::string &text) {
    for (const char one : text) {
        if (one < '0' || one > '9') {
            return false;
        }
    }
    return !text.empty();
}

// Numbers with leading zeros are compared by their value.
bool is_less(std::string left, std::string right) {
    const std::string left_name = left;
    const std::string right_name = right;
    const bool left_number = has_nothing_but_digits(left);
    if (left_number != has_nothing_but_digits(right)) {
        return left_number;
    }
    if (left_number) {
        left.insert(0, right.size(), '0');
        right.insert(0, left_name.size(), '0');
        if (left != right) {
            return left < right;
        }
    }
    return left_name < right_name;
}

bool is_integer(std::string text) {
    const bool negative = text.substr(0, 1) == "-";
    text.erase(0, negative ? 1 : 0);
    if (!has_nothing_but_digits(text)) {
        return false;
    }
    text.erase(0, text.find_first_not_of('0'));
    const std::string most = negative ? "9223372036854775808" : "9223372036854775807";
    return text.size() < most.size() || (text.size() == most.size() && text <= most);
}

bool is_real(const std::string &text) {
    std::string rest = text;
    rest.erase(0, rest.substr(0, 1) == "-" ? 1 : 0);
    const std::size_t exponent = rest.find_first_of("eE");
    if (exponent != std::string::npos) {
        std::string digits = rest.substr(exponent + 1);
        digits.erase(0, digits.find_first_of("+-") == 0 ? 1 : 0);
        if (!has_nothing_but_digits(digits)) {
            return false;
        }
    }
    const std::string mantissa = rest.substr(0, exponent);
    const std::vector<std::string> parts = split(mantissa, '.');
    if (parts.size() > 2 || !has_nothing_but_digits(parts.front()) ||
        !has_nothing_but_digits(parts.back())) {
        return false;
    }
    const double number = std::strtod(text.c_str(), nullptr);
    const bool is_zero = mantissa.find_first_of("123456789") == std::string::npos;
    return std::isfinite(number) && (number != 0.0 || is_zero);
}

bool fits(int type, const std::string &text) {
    switch (type) {
    case 3:
        return text == "true" || text == "false";
    case 4:
        return is_integer(text);
    case 5:
        return is_real(text);
    case 6:
        return split(text, '\0').size() == 1;
    default:
        return false;
    }
}

void check_paths(const std::string &left, const std::string &right) {
    for (const std::string &path : {left, right}) {
        require(tav::check_path(path) == path_status(path), "another verdict on a path");
    }
    if (path_status(left) != api_status_ok || path_status(right) != api_status_ok) {
        return;
    }
    std::vector<std::string> names;
    for (std::string_view rest = left; rest.size() > 1;) {
        names.emplace_back(tav::take_name(rest));
    }
    require(names == names_of(left), "other names of a path");
    const std::vector<std::string> above = names_of(right);
    const bool below =
        above.size() <= names.size() && std::equal(above.begin(), above.end(), names.begin());
    require(tav::is_at_or_below(left, right) == below, "another place of a path");
}

} // namespace

// The input is used as a value of each type and, split at a newline, as two paths and two names.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text = expanded(data, size);
    for (int type = 0; type < 8; ++type) {
        const auto expected = text.size() > 65536 ? api_status_value_too_long
                              : fits(type, text)  ? api_status_ok
                                                  : api_status_bad_value;
        const tav::Value value{static_cast<element_type_t>(type), text, -1};
        require(tav::check_value(value) == expected, "another verdict on a value");
    }
    const std::size_t newline = text.find('\n');
    const std::string left = text.substr(0, newline);
    const std::string right = newline == std::string::npos ? "/" : text.substr(newline + 1);
    check_paths(left, right);
    require(tav::NameLess()(left, right) == is_less(left, right), "another order of names");
    require(tav::NameLess()(right, left) == is_less(right, left), "another order of names");
    return 0;
}
