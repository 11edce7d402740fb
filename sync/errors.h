// The engine's exceptions: siblings, so that a handler for one does not catch another. Their text
// begins with the signature of the throwing function, except where a comment at the throw says
// otherwise.
#pragma once

#include <stdexcept>
#include <string>

#include <tav/toolkit.h>

// The store's connection, or the engine itself, failed.
class sync_err : public std::runtime_error {
public:
    explicit sync_err(const tk_string &text) : std::runtime_error(std::string(text)) {}
};

// One item in the store is missing or unusable.
class sync_minor_err : public std::runtime_error {
public:
    explicit sync_minor_err(const tk_string &text) : std::runtime_error(std::string(text)) {}
};

// An address text cannot be converted.
class sync_addr_err : public std::runtime_error {
public:
    explicit sync_addr_err(const tk_string &text) : std::runtime_error(std::string(text)) {}
};

// Formats an exception's text; cut at 255 characters.
tk_string error_text(const char *format, ...) __attribute__((format(printf, 1, 2)));
