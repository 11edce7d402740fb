// The paths of the store's change events: the log line of each, and whether a synchronisation
// follows.
#include "fakes/engine_fixture.h"
#include "fuzz/fuzz.h"
#include "fuzz/log_sink.h"

namespace {

using fuzz::format;
using log_sink::info;

const std::string prefix = "/Software/System Settings/Network/Interface/";

struct event_t {
    int command = 0;
    std::string path;
};

// An input is a list of lines, each a byte for the command and a path, in which a leading "~" means
// the interfaces' node.
std::vector<event_t> events_of(const std::uint8_t *data, std::size_t size) {
    std::vector<event_t> events;
    for (const std::string &line : fuzz::split(std::string(data, data + size), '\n')) {
        if (line.empty()) {
            continue;
        }
        std::string path = line.substr(1);
        if (path.compare(0, 1, "~") == 0) {
            path = prefix + path.substr(1);
        }
        events.push_back({static_cast<signed char>(line[0]), path});
    }
    return events;
}

// As a printf-style message shows a text: up to its first NUL.
std::string shown(const std::string &text) {
    return text.c_str();
}

std::string rejected(int level, const char *pattern, const std::string &text) {
    return log_sink::joined(
        {info(static_cast<std::uint32_t>(level), std::string(pattern) + " '" + shown(text) + "'")});
}

bool is_interface_number(const std::string &text) {
    const fuzz::decimal_t number = fuzz::decimal(text);
    return number.consumed == text.size() && number.value > 0;
}

// The log line that says why the path is skipped; empty if it is mirrored. The path's parts after
// the prefix: number, "IPv6", subpath, name, leaf node, "Value".
std::string rejection(const std::string &path) {
    if (path.substr(0, prefix.size()) != prefix) {
        return log_sink::joined(
            {log_sink::warning(1, "Unexpected event path: '" + shown(path) + "'")});
    }
    const std::vector<std::string> parts = fuzz::split(path.substr(prefix.size()), '/');
    const auto is = [&parts](std::size_t i, const char *text) { return parts[i] == text; };
    const char *const other = "Ignoring TAV update to non-value attribute";
    if (parts.size() == 1 || parts[0].empty()) {
        return rejected(2, "Bad interface path component:", path);
    }
    if (!is_interface_number(parts[0])) {
        return rejected(2, "Bad interface number:", parts[0]);
    }
    if (parts.size() == 2 || !is(1, "IPv6")) {
        return log_sink::joined({info(4, "Ignoring update to non-IPv6 settings")});
    }
    if (parts.size() == 3) {
        return rejected(2, "Bad subpath component:", path);
    }
    if (is(2, "Default Gateway")) {
        return parts.size() == 4 && is(3, "Value") ? "" : rejected(2, other, path);
    }
    if (!is(2, "Addresses")) {
        return rejected(2, "Ignoring TAV update to unknown node", "/" + parts[2]);
    }
    if (parts.size() == 4) {
        return rejected(2, "Bad addrlist index tail:", path);
    }
    if (parts.size() == 5) {
        return rejected(2, "Bad addrlist subpath:", path);
    }
    if (parts.size() > 6 || !is(5, "Value")) {
        return rejected(2, other, path);
    }
    if (!is(4, "Address") && !is(4, "Type")) {
        return rejected(2, "Ignoring unknown sub-address path", "/" + parts[4]);
    }
    return "";
}

std::string expected_log(const std::vector<event_t> &events) {
    std::string log = log_sink::joined({info(4, "New TAV event arrived")});
    bool changed = false;
    for (const event_t &event : events) {
        if (event.command == 1) {
            continue;
        }
        log += log_sink::joined(
            {info(3, "Processing TAV event: cmd = " + std::to_string(event.command) + ", path = '" +
                         shown(event.path) + "'")});
        const std::string reason = rejection(event.path);
        log += reason;
        changed = changed || reason.empty();
    }
    if (changed) {
        log += log_sink::joined({info(4, "Synchronizing kernel & TAV settings..."),
                                 info(4, "Discovering all IPv6 TAV settings...")});
    }
    return log;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // These keep no state between runs: the store's tree is empty, and there are no links.
    static toolkit::CTav tav((fakes::reset_all(), mlr_init()));
    static CNetlink channel;
    static Engine engine(&tav, &channel, "eth");
    engine.state = 4;

    const std::vector<event_t> events = events_of(data, size);
    for (const event_t &event : events) {
        fake_tav::queue_event(event.command, event.path);
    }
    log_sink::record_up_to(4);
    engine.handle_tav_update();
    fuzz::require_same(log_sink::joined(log_sink::take()), expected_log(events),
                       "the events were taken otherwise");
    fuzz::require(fake_tav::writes() == 0, "something was written");
    fake_tav::forget_calls();
    journal::clear();
    return 0;
}
