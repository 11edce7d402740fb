// The one rule by which the tools write names and values as text, and read them back.
//
//   \n \t \\    newline, tab, backslash
//   \xHH        any other byte that is not printed unchanged, two hexadecimal digits
//
// Printed unchanged: printable ASCII and well-formed UTF-8, except control characters (U+0000 to
// U+001F, U+007F to U+009F), line and paragraph separators, and the invisible marks that change the
// direction of writing. So one line is printed as one line, no text controls the terminal, and the
// output can be read back byte for byte.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tav::terminal {

// `ascii_only`: for a terminal that does not understand UTF-8, where every byte from 0x80 on may be
// a control character.
std::string escaped(std::string_view text, bool ascii_only = false);

// One character as `escaped` prints it.
struct Piece {
    std::array<char, 4> bytes{};
    std::size_t size = 0;

    operator std::string_view() const { return {bytes.data(), size}; }
};

// Removes the first character of `text`, which is not empty. Allocates no memory.
Piece take_escaped(std::string_view &text, bool ascii_only = false) noexcept;

// Whether there is a byte from 0x7f on that `escaped` would not print unchanged.
bool holds_hidden(std::string_view text);

// The reverse of `escaped`. Also takes \" and "\ ", which quoted words of a script need. Empty for
// a backslash that does not begin any of these, and for \x00: neither names nor values may contain
// that byte.
std::optional<std::string> unescaped(std::string_view text);

// `text` as one word of a shell's command line (as bash reads it), escaped by the same rule.
std::string shell_word(std::string_view text, bool ascii_only = false);

} // namespace tav::terminal
