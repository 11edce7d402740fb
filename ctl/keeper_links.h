// What the kernel reported about links: whether a link can carry settings, and why a setting left
// it. Fed with the kernel's messages in their order; reads nothing itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "ctl/kernel_view.h"

namespace ctl {

using moment_t = std::chrono::steady_clock::time_point;

// The kernel reports what happens to a link and the deletion of its addresses as separate messages,
// in either order. What is no further apart than this may belong together.
constexpr std::chrono::seconds doubt_span{1};

// A Static address of a link, or its gateway.
struct setting_t {
    std::string link; // its name, as the daemon knows it
    bool is_gateway = false;
    CAddress address; // a gateway has no prefix length
    std::string node; // the name of the address's node in the store
};

// "2001:db8::5/64", or "gateway fe80::1".
std::string text_of(const setting_t &setting);
bool same_setting(const setting_t &left, const setting_t &right);

// Why the daemon removed a setting from the store.
struct verdict_t {
    enum kind_t {
        link_unable, // the link could not carry it
        uncertain,   // perhaps that
        by_hand,     // somebody deleted it in the kernel
        undecided    // not known before `until`
    } kind = uncertain;
    std::string reason; // a few words; empty: by_hand, undecided
    moment_t until{};
};

class links_t {
public:
    // The prefix of the names of the links that the daemon manages.
    explicit links_t(std::string name_prefix) : prefix(std::move(name_prefix)) {}

    // A link appeared or changed; was removed or moved away (with the name in that message); lost
    // its IPv6 addresses all at once. see() returns false for a message about one aspect of a link,
    // such as wireless drivers send: it lacks the rest, and the links must be read.
    bool see(const kernel_link_t &link, moment_t now);
    void gone(std::int32_t index, const std::string &name, moment_t now);
    void ipv6_stopped(std::int32_t index, moment_t now);
    // The kernel deleted an address or a static default route. `ended`: its lifetime had passed.
    void address_left(std::int32_t index, const in6_addr &address, bool ended, moment_t now);
    void gateway_left(std::int32_t index, const in6_addr &gateway, moment_t now);
    // All links there are, at the start and after messages were lost. Forgets what left.
    void restart(const std::vector<kernel_link_t> &links, moment_t now);
    // A new daemon knows each link by its present name.
    void daemon_restarted();

    // Why the link cannot carry settings, in a few words; empty: it can.
    std::string obstacle(const std::string &link) const;
    // The part of it that only an observer of the past knows: a link was renamed, or several have
    // had the name.
    std::string confusion(const std::string &link) const;
    // Changes when that does, and when the link is connected or disconnected.
    unsigned changes(const std::string &link) const;
    // A link was renamed, or several have the same name.
    bool is_unclear() const;
    // Of the link with this name; 0: none, or several.
    std::int32_t index(const std::string &link) const;

    verdict_t judge(const setting_t &setting, moment_t now) const;

private:
    struct entry_t {
        std::string name; // the first that has the prefix: the daemon keeps to it
        kernel_link_t now;
        bool exists = true; // false: the daemon has not noticed its end
    };
    struct departure_t {
        moment_t when;
        std::string reason; // empty: none seen
        bool certain = false;
    };
    // A link's name, and the text of a setting without its prefix length.
    using key_t = std::pair<std::string, std::string>;

    static std::string cause(const entry_t &entry);
    void left(std::int32_t index, bool is_gateway, const in6_addr &address, bool ended,
              moment_t now);
    void trouble(const std::string &link, const std::string &reason, moment_t now);
    const entry_t *find(const std::string &link, std::size_t &number) const;

    std::string prefix;
    std::map<std::int32_t, entry_t> entries;
    std::map<key_t, departure_t> departures;
    std::map<std::string, std::pair<moment_t, std::string>> troubles; // the latest of each link
    std::map<std::string, unsigned> counts;
};

} // namespace ctl
