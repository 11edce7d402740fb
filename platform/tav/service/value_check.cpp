#include "service/value_check.h"

#include <algorithm>
#include <charconv>

#include "protocol/limits.h"

namespace tav {

namespace {

template <typename Number>
bool converts(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// Removes the decimal digits at the start of `text`; false if there is none.
bool take_digits(std::string_view &text) {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(digits);
    return digits > 0;
}

void take_one_of(std::string_view &text, std::string_view allowed) {
    if (!text.empty() && allowed.find(text.front()) != std::string_view::npos) {
        text.remove_prefix(1);
    }
}

// from_chars would also take "inf", ".5" and the like.
bool is_decimal_real(std::string_view text) {
    take_one_of(text, "-");
    if (!take_digits(text)) {
        return false;
    }
    if (!text.empty() && text.front() == '.') {
        text.remove_prefix(1);
        if (!take_digits(text)) {
            return false;
        }
    }
    if (!text.empty() && (text.front() == 'e' || text.front() == 'E')) {
        text.remove_prefix(1);
        take_one_of(text, "+-");
        if (!take_digits(text)) {
            return false;
        }
    }
    return text.empty();
}

bool text_fits_type(const Value &value) {
    switch (value.type) {
    case element_type_boolean:
        return value.text == "true" || value.text == "false";
    case element_type_integer:
        return converts<std::int64_t>(value.text);
    case element_type_real:
        return is_decimal_real(value.text) && converts<double>(value.text);
    case element_type_string:
        return value.text.find('\0') == std::string::npos;
    case element_type_none:
    case element_type_node:
    case element_type_min_:
    case element_type_max_:
        break;
    }
    return false;
}

} // namespace

api_status_t check_value(const Value &value) {
    if (value.text.size() > limits::value_bytes) {
        return api_status_value_too_long;
    }
    return text_fits_type(value) ? api_status_ok : api_status_bad_value;
}

} // namespace tav
