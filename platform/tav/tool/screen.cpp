#include "tool/screen.h"

#include <iostream>

namespace tav::tool {

namespace {

bool colors = false; // set by choose_color

} // namespace

void choose_color(terminal::Color color) {
    colors = terminal::use_color(color);
}

std::string shown(std::string_view text, Style style) {
    return painted(terminal::shown(text), style);
}

std::string painted(std::string_view words, Style style) {
    return terminal::painted(words, style, colors);
}

std::string element_line(std::string_view name, element_type_t type, std::string_view value,
                         Style style) {
    const std::string kind = painted(" (" + std::string(type_name(type)) + ")", Style::dim);
    if (type == element_type_node) {
        return shown(name, style) + kind;
    }
    return shown(name, style) + " = " + shown(value, style) + kind;
}

void complain(std::string_view message) {
    std::cerr << "tav: " << message << '\n';
}

bool finish_output() {
    std::cout.flush();
    if (std::cout) {
        return true;
    }
    complain("the output could not be written");
    return false;
}

} // namespace tav::tool
