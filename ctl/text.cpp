#include "ctl/text.h"

#include <cstdio>
#include <utility>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "sync/sync.h"

namespace ctl {

namespace {

constexpr std::pair<std::uint32_t, const char *> flag_names[] = {
    {IFA_F_TENTATIVE, "tentative"},   {IFA_F_DADFAILED, "dadfailed"},
    {IFA_F_DEPRECATED, "deprecated"}, {IFA_F_OPTIMISTIC, "optimistic"},
    {IFA_F_TEMPORARY, "temporary"},   {IFA_F_NODAD, "nodad"},
};

constexpr std::pair<std::uint8_t, const char *> protocol_names[] = {
    {RTPROT_UNSPEC, "unspec"}, {RTPROT_REDIRECT, "redirect"}, {RTPROT_KERNEL, "kernel"},
    {RTPROT_BOOT, "boot"},     {RTPROT_STATIC, "static"},     {RTPROT_RA, "ra"},
    {RTPROT_DHCP, "dhcp"},
};

} // namespace

std::string escaped(const std::string &text) {
    std::string result;
    const auto add_code = [&result](unsigned char byte) {
        char code[5];
        std::snprintf(code, sizeof code, "\\x%02x", byte);
        result += code;
    };
    unsigned char before = 0;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        // U+0080 to U+009F are control characters as well.
        const bool second_set = before == 0xc2 && byte >= 0x80 && byte < 0xa0;
        if (letter == '\\') {
            result += "\\\\";
        } else if (letter == '\n') {
            result += "\\n";
        } else if (byte < 0x20 || byte == 0x7f) {
            add_code(byte);
        } else if (second_set) {
            result.pop_back();
            add_code(before);
            add_code(byte);
        } else {
            result.push_back(letter);
        }
        before = byte;
    }
    return result;
}

std::string shell_word(const std::string &text) {
    constexpr const char *plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "_@%+=:,./-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char letter : text) {
        if (letter == '\'') {
            quoted += "'\\''";
        } else {
            quoted.push_back(letter);
        }
    }
    return quoted + "'";
}

std::string address_text(const in6_addr &address) {
    return CSync::in6addr_to_str(address, 0, false);
}

std::string prefix_text(const CAddress &address) {
    return CSync::in6addr_to_str(address.addr, address.prefix_len, true);
}

std::string protocol_name(std::uint8_t protocol) {
    for (const auto &[number, name] : protocol_names) {
        if (number == protocol) {
            return name;
        }
    }
    return std::to_string(protocol);
}

std::string flags_text(std::uint32_t flags) {
    std::string text;
    for (const auto &[flag, name] : flag_names) {
        if ((flags & flag) != 0) {
            text += (text.empty() ? "" : " ") + std::string(name);
        }
    }
    return text;
}

std::string duration_text(std::uint32_t seconds) {
    if (seconds == forever) {
        return "forever";
    }
    constexpr std::pair<std::uint32_t, char> units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}};
    std::string text;
    int parts = 0;
    for (const auto &[size, letter] : units) {
        if (seconds >= size && parts < 2) {
            text += std::to_string(seconds / size) + letter;
            seconds %= size;
            ++parts;
        }
    }
    return parts == 0 || (parts == 1 && seconds > 0 && text.back() == 'm')
               ? text + std::to_string(seconds) + "s"
               : text;
}

std::string state_text(const kernel_address_t &address) {
    std::string text = flags_text(address.flags);
    if (address.valid != forever) {
        text += (text.empty() ? "" : ", ") + std::string("valid ") + duration_text(address.valid) +
                ", preferred " + duration_text(address.preferred);
    }
    return text;
}

} // namespace ctl
