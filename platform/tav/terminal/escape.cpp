#include "terminal/escape.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "terminal/hex.h"

namespace tav::terminal {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// Characters that UTF-8 can encode but that are not printed: they control a terminal or are
// invisible.
constexpr std::array<Range, 6> hidden{{
    {0x80, 0x9f},     // control characters
    {0x61c, 0x61c},   // direction mark
    {0x200e, 0x200f}, // direction marks
    {0x2028, 0x202e}, // separators, embeddings and overrides of direction
    {0x2066, 0x2069}, // isolates of direction
    {0xd800, 0xdfff}, // halves of a pair: not UTF-8
}};

// The smallest character that a sequence may encode, by the number of its bytes.
constexpr std::array<char32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
constexpr char32_t largest = 0x10ffff;

std::size_t length_announced(unsigned char first) {
    if (first >= 0xc0 && first < 0xe0) {
        return 2;
    }
    if (first >= 0xe0 && first < 0xf0) {
        return 3;
    }
    return first >= 0xf0 && first < 0xf8 ? 4 : 1;
}

// The number of bytes at the start of `text` that encode one printable character from U+0080 on; 0
// if they do not.
std::size_t shown_character(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = length_announced(first);
    if (length == 1 || length > text.size()) {
        return 0;
    }
    char32_t character = first & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0U) != 0x80) {
            return 0;
        }
        character = (character << 6U) | (byte & 0x3fU);
    }
    if (character < smallest.at(length) || character > largest) {
        return 0;
    }
    const bool must_hide = std::any_of(hidden.begin(), hidden.end(), [=](const Range &range) {
        return character >= range.first && character <= range.last;
    });
    return must_hide ? 0 : length;
}

std::size_t shown_bytes(std::string_view text, bool ascii_only) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        return first >= 0x20 && first != 0x7f && first != '\\' ? 1 : 0;
    }
    return ascii_only ? 0 : shown_character(text);
}

} // namespace

Piece take_escaped(std::string_view &text, bool ascii_only) noexcept {
    constexpr std::string_view digits = "0123456789abcdef";
    const std::size_t shown = shown_bytes(text, ascii_only);
    const auto first = static_cast<unsigned char>(text.front());
    Piece piece;
    if (shown > 0) {
        piece.size = text.copy(piece.bytes.data(), shown);
    } else if (first == '\n') {
        piece = {{'\\', 'n'}, 2};
    } else if (first == '\t') {
        piece = {{'\\', 't'}, 2};
    } else if (first == '\\') {
        piece = {{'\\', '\\'}, 2};
    } else {
        piece = {{'\\', 'x', digits[first >> 4U], digits[first & 0xfU]}, 4};
    }
    text.remove_prefix(std::max<std::size_t>(shown, 1));
    return piece;
}

std::string escaped(std::string_view text, bool ascii_only) {
    std::string result;
    while (!text.empty()) {
        result += take_escaped(text, ascii_only);
    }
    return result;
}

bool holds_hidden(std::string_view text) {
    while (!text.empty()) {
        const std::size_t shown = shown_bytes(text, false);
        if (shown == 0 && static_cast<unsigned char>(text.front()) >= 0x7f) {
            return true;
        }
        text.remove_prefix(std::max<std::size_t>(shown, 1));
    }
    return false;
}

std::optional<std::string> unescaped(std::string_view text) {
    constexpr std::string_view letters = "nt\\\" ";
    constexpr std::string_view meanings = "\n\t\\\" ";
    std::string result;
    while (!text.empty()) {
        const char first = text.front();
        text.remove_prefix(1);
        if (first != '\\') {
            result.push_back(first);
            continue;
        }
        const std::size_t letter = letters.find(text.substr(0, 1));
        if (!text.empty() && letter != std::string_view::npos) {
            result.push_back(meanings[letter]);
            text.remove_prefix(1);
            continue;
        }
        const std::optional<std::string> byte =
            text.size() >= 3 && text.front() == 'x' ? from_hex(text.substr(1, 2)) : std::nullopt;
        if (!byte || byte->front() == '\0') {
            return std::nullopt;
        }
        result += *byte;
        text.remove_prefix(3);
    }
    return result;
}

std::string shell_word(std::string_view text, bool ascii_only) {
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.:,+@%";
    if (!text.empty() && text.find_first_not_of(plain) == std::string_view::npos) {
        return std::string(text);
    }
    const std::string visible = escaped(text, ascii_only);
    if (visible == text && text.find('\'') == std::string_view::npos) {
        return "'" + visible + "'";
    }
    std::string quoted = "$'";
    for (const char c : visible) {
        quoted += c == '\'' ? "\\'" : std::string(1, c);
    }
    return quoted + "'";
}

} // namespace tav::terminal
