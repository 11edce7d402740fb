#include "faults/plan.h"

#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "in_order.h"

namespace faults {

namespace {

using ModeName = std::pair<Mode, const char *>;
constexpr std::array<ModeName, static_cast<std::size_t>(Mode::vanish) + 1> modes{{
    {Mode::fail, "fail"},
    {Mode::refuse, "refuse"},
    {Mode::garble, "garble"},
    {Mode::hang, "hang"},
    {Mode::cut, "cut"},
    {Mode::overflow, "overflow"},
    {Mode::echo, "echo"},
    {Mode::duplicate, "duplicate"},
    {Mode::reorder, "reorder"},
    {Mode::spurious, "spurious"},
    {Mode::vanish, "vanish"},
}};
static_assert(tav::in_order(modes, &ModeName::first));

using OperationName = std::pair<Operation, const char *>;
constexpr std::array<OperationName, static_cast<std::size_t>(Operation::ping) + 1> operations{{
    {Operation::read, "read"},
    {Operation::list, "list"},
    {Operation::write, "write"},
    {Operation::remove, "remove"},
    {Operation::enlist, "register"},
    {Operation::events, "events"},
    {Operation::watchdog, "watchdog"},
    {Operation::ping, "ping"},
}};
static_assert(tav::in_order(operations, &OperationName::first));

template <typename Table>
auto value_in(const Table &table, const std::string &name) {
    for (const auto &[value, known] : table) {
        if (name == known) {
            return value;
        }
    }
    throw std::invalid_argument("fault plan: unknown word '" + name + "'");
}

long number(const std::string &text, long least) {
    std::size_t used = 0;
    long value = least - 1;
    try {
        value = std::stol(text, &used);
    } catch (const std::logic_error &) {
        used = 0;
    }
    if (used == 0 || used != text.size() || value < least) {
        throw std::invalid_argument("fault plan: '" + text + "' is not a number, or is too small");
    }
    return value;
}

// The default operations of a fault.
std::set<Operation> usual_operations(Mode mode) {
    switch (mode) {
    case Mode::echo:
        return {Operation::enlist};
    case Mode::duplicate:
    case Mode::reorder:
    case Mode::spurious:
        return {Operation::events};
    default:
        std::set<Operation> all;
        for (const auto &[operation, name] : operations) {
            all.insert(operation);
        }
        return all;
    }
}

} // namespace

const char *name_of(Mode mode) {
    return modes.at(static_cast<std::size_t>(mode)).second;
}

const char *name_of(Operation operation) {
    return operations.at(static_cast<std::size_t>(operation)).second;
}

Plan::Plan(const std::string &text) {
    std::istringstream words(text);
    std::string word;
    std::getline(words, word, ':');
    what = value_in(modes, word);
    while (std::getline(words, word, ':')) {
        const std::size_t sign = word.find('=');
        set(word.substr(0, sign), sign == std::string::npos ? "" : word.substr(sign + 1));
    }
    if (where.empty()) {
        where = usual_operations(what);
    }
    if ((what == Mode::vanish) != !removed.empty()) {
        throw std::invalid_argument("fault plan: 'vanish' needs a path, and nothing else has one");
    }
}

void Plan::set(const std::string &key, const std::string &value) {
    if (key == "on") {
        std::istringstream names(value);
        for (std::string name; std::getline(names, name, '+');) {
            where.insert(value_in(operations, name));
        }
    } else if (key == "after") {
        spared = static_cast<std::uint64_t>(number(value, 0));
    } else if (key == "every") {
        every = static_cast<std::uint64_t>(number(value, 1));
    } else if (key == "limit") {
        most = static_cast<std::uint64_t>(number(value, 0));
    } else if (key == "undone") {
        without_effect = true;
    } else if (key == "result") {
        returned = static_cast<int>(number(value, -1000));
    } else if (key == "path") {
        removed = value;
    } else if (key == "while") {
        while_file = value;
    } else {
        throw std::invalid_argument("fault plan: unknown setting '" + key + "'");
    }
}

bool Plan::strikes(Operation operation) {
    if (where.count(operation) == 0 ||
        (!while_file.empty() && ::access(while_file.c_str(), F_OK) != 0)) {
        return false;
    }
    ++seen;
    if (seen <= spared || (seen - spared) % every != 0 || struck >= most) {
        return false;
    }
    ++struck;
    return true;
}

std::size_t Plan::below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
}

} // namespace faults
