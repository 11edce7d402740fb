#include "ctl/text.h"

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
    {RTPROT_DHCP, "dhcp"},     {RTPROT_BABEL, "babel"},       {RTPROT_BGP, "bgp"},
    {RTPROT_ISIS, "isis"},     {RTPROT_OSPF, "ospf"},         {RTPROT_RIP, "rip"},
    {RTPROT_EIGRP, "eigrp"},
};

constexpr std::pair<std::uint8_t, const char *> scope_names[] = {
    {RT_SCOPE_UNIVERSE, "global"}, {RT_SCOPE_SITE, "site"},       {RT_SCOPE_LINK, "link"},
    {RT_SCOPE_HOST, "host"},       {RT_SCOPE_NOWHERE, "nowhere"},
};

template <std::size_t Count>
std::string name_in(const std::pair<std::uint8_t, const char *> (&names)[Count],
                    std::uint8_t wanted) {
    for (const auto &[number, name] : names) {
        if (number == wanted) {
            return name;
        }
    }
    return std::to_string(wanted);
}

} // namespace

std::string address_text(const in6_addr &address) {
    return CSync::in6addr_to_str(address, 0, false);
}

std::string prefix_text(const CAddress &address) {
    return CSync::in6addr_to_str(address.addr, address.prefix_len, true);
}

std::string protocol_name(std::uint8_t protocol) {
    return name_in(protocol_names, protocol);
}

std::string scope_name(std::uint8_t scope) {
    return name_in(scope_names, scope);
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
