#include "fuzz/netlink_reference.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#include "fuzz/fuzz.h"
#include "fuzz/log_sink.h"

// Numbers instead of names throughout, because the decoders use the names. See netlink(7) and
// rtnetlink(7).
namespace reference {

namespace {

char byte(const std::string &datagram, std::size_t at) {
    return at < datagram.size() ? datagram[at] : '\0';
}

std::string bytes(const std::string &datagram, std::size_t at, std::size_t number) {
    std::string taken;
    for (std::size_t i = 0; i < number; ++i) {
        taken.push_back(byte(datagram, at + i));
    }
    return taken;
}

template <typename Number>
Number number(const std::string &datagram, std::size_t at) {
    std::array<char, sizeof(Number)> taken;
    for (std::size_t i = 0; i < taken.size(); ++i) {
        taken[i] = byte(datagram, at + i);
    }
    Number value{};
    std::memcpy(&value, taken.data(), sizeof value);
    return value;
}

unsigned u8(const std::string &datagram, std::size_t at) {
    return number<std::uint8_t>(datagram, at);
}
unsigned u16(const std::string &datagram, std::size_t at) {
    return number<std::uint16_t>(datagram, at);
}
std::int64_t u32(const std::string &datagram, std::size_t at) {
    return number<std::uint32_t>(datagram, at);
}
std::int32_t i32(const std::string &datagram, std::size_t at) {
    return number<std::int32_t>(datagram, at);
}

std::int64_t rounded_up(std::int64_t length) {
    return (length + 3) / 4 * 4;
}

// The offsets of the messages.
std::vector<std::size_t> messages(const std::string &datagram) {
    constexpr std::int64_t signed_end = std::int64_t{1} << 31;
    std::vector<std::size_t> starts;
    std::int64_t at = 0;
    while (at < static_cast<std::int64_t>(datagram.size())) {
        starts.push_back(static_cast<std::size_t>(at));
        const std::int64_t step = rounded_up(u32(datagram, static_cast<std::size_t>(at)));
        if (step == 0 || step >= signed_end) {
            break; // with such a length the walk would stop or, as a signed number, go backwards
        }
        at += step;
    }
    return starts;
}

// Maps the type of each attribute to the offset of its payload; the last attribute of a type is
// used.
std::map<unsigned, std::size_t> attributes(const std::string &datagram, std::size_t message,
                                           std::size_t family_header) {
    std::map<unsigned, std::size_t> found;
    std::int64_t at = static_cast<std::int64_t>(16 + family_header);
    const std::int64_t end = u32(datagram, message);
    while (end - at >= 4) {
        const std::size_t here = message + static_cast<std::size_t>(at);
        const std::int64_t length = u16(datagram, here);
        if (length < 4 || length > end - at) {
            break;
        }
        found[u16(datagram, here + 2)] = here + 4;
        at += rounded_up(length);
    }
    return found;
}

std::string until_nul(const std::string &datagram, std::size_t at) {
    std::string text;
    while (byte(datagram, at) != '\0') {
        text.push_back(byte(datagram, at++));
    }
    return text;
}

std::string hardware_address(const std::string &datagram, std::size_t at) {
    std::string text;
    for (std::size_t i = 0; i < 6; ++i) {
        text += fuzz::format(8, i == 0 ? "%02x" : ":%02x", u8(datagram, at + i));
    }
    return text;
}

std::string addr_record(std::int64_t ifindex, unsigned scope, unsigned prefix,
                        const std::string &addr) {
    return "addr " + std::to_string(ifindex) + " " + std::to_string(scope) + " " +
           std::to_string(prefix) + " " + addr + "\n";
}

std::string route_record(std::int64_t ifindex, unsigned protocol, unsigned dst_len,
                         const std::string &dst, const std::string &gateway) {
    return "route " + std::to_string(ifindex) + " " + std::to_string(protocol) + " " +
           std::to_string(dst_len) + " " + dst + " " + gateway + "\n";
}

const std::string no_address(16, '\0');

// Empty for a message that lacks the address.
std::string addr(const std::string &datagram, std::size_t message) {
    auto found = attributes(datagram, message, 8);
    if (found.count(1) == 0) {
        return "";
    }
    return addr_record(i32(datagram, message + 20), u8(datagram, message + 19),
                       u8(datagram, message + 17), bytes(datagram, found[1], 16));
}

// Empty for a message that lacks the link.
std::string route(const std::string &datagram, std::size_t message) {
    auto found = attributes(datagram, message, 12);
    if (found.count(4) == 0) {
        return "";
    }
    return route_record(i32(datagram, found[4]), u8(datagram, message + 21),
                        u8(datagram, message + 17),
                        found.count(1) == 1 ? bytes(datagram, found[1], 16) : no_address,
                        found.count(5) == 1 ? bytes(datagram, found[5], 16) : no_address);
}

decoded_t each(const std::string &datagram, std::string (*record)(const std::string &, std::size_t),
               const char *skipped) {
    decoded_t result;
    for (const std::size_t message : messages(datagram)) {
        const std::string one = record(datagram, message);
        result.records += one;
        if (one.empty()) {
            result.log += log_sink::info(2, skipped) + "\n";
        }
    }
    return result;
}

} // namespace

decoded_t links(const std::string &datagram) {
    decoded_t result;
    for (const std::size_t message : messages(datagram)) {
        const unsigned hardware = u16(datagram, message + 18);
        if (hardware != 1) {
            result.log +=
                log_sink::info(2, "Ignoring unknown interface type " + std::to_string(hardware)) +
                "\n";
            continue;
        }
        auto found = attributes(datagram, message, 16);
        if (found.count(1) == 0 || found.count(3) == 0) {
            result.log += log_sink::info(2, "Skipping link msg with no addr/name") + "\n";
            continue;
        }
        result.records += "link " + std::to_string(i32(datagram, message + 20)) + " " +
                          hardware_address(datagram, found[1]) + " " +
                          until_nul(datagram, found[3]) + "\n";
    }
    return result;
}

decoded_t addrs(const std::string &datagram) {
    return each(datagram, &addr, "Skipping addr msg with no addr");
}

decoded_t routes(const std::string &datagram) {
    return each(datagram, &route, "Skipping route msg with no idx");
}

int type(const std::string &datagram) {
    return static_cast<int>(u16(datagram, 4));
}

bool ends_after_first(const std::string &datagram) {
    bool ends = false;
    for (const std::size_t message : messages(datagram)) {
        ends = ends || (message > 0 && u16(datagram, message + 4) == 3);
    }
    return ends;
}

bool incomplete(const std::string &datagram) {
    bool found = false;
    for (const std::size_t message : messages(datagram)) {
        const bool interrupted = (u16(datagram, message + 6) & 0x10U) != 0;
        const bool failed = u16(datagram, message + 4) == 3 && i32(datagram, message + 16) < 0;
        found = found || interrupted || failed;
    }
    return found;
}

std::string refusal(const std::string &datagram) {
    const bool capped = (u16(datagram, 6) & 0x100U) != 0;
    const std::int64_t error = i32(datagram, 16);
    if (datagram.empty() || type(datagram) != 2 || capped || error >= 0) {
        return "none";
    }
    // The request, cut at its own length. The first record is used, from whichever message it
    // comes.
    const std::string content = datagram.size() > 20 ? datagram.substr(20) : "";
    const std::string request =
        content.substr(0, static_cast<std::size_t>(static_cast<std::uint32_t>(u32(content, 0))));
    const int kind = type(request);
    decoded_t decoded;
    std::string addr_text = addr_record(0, 0, 0, no_address);
    std::string route_text = route_record(0, 0, 0, no_address, no_address);
    for (const std::size_t message : messages(request)) {
        const bool address = kind == 20 || kind == 21;
        const bool way = kind == 24 || kind == 25;
        const std::string record = address ? addr(request, message)
                                   : way   ? route(request, message)
                                           : "";
        if (!record.empty()) {
            (address ? addr_text : route_text) = record;
            return std::to_string(-error) + " " + std::to_string(kind) + " " + addr_text +
                   route_text;
        }
    }
    return "none";
}

} // namespace reference
