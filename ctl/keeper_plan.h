// What the keeper has to do, decided from what it remembers and from both views. Changes nothing.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ctl/keeper_links.h"
#include "ctl/store_view.h"

namespace ctl {

// A setting that was removed from the store and will be restored.
struct kept_t {
    setting_t setting;
    std::string why;
    std::int64_t since = 0; // seconds since 1970
};

// A Static address that somebody removed from the store, but that the kernel still has.
struct removal_t {
    setting_t setting;
    // The daemon has stored the address as Automatic under this node, and the keeper has made it
    // Static there, so that the daemon deletes it from the kernel with the node. Empty: not yet.
    std::string node;
};

struct memory_t {
    std::optional<std::uint64_t> handled; // number of the store's last change that was handled
    std::vector<kept_t> kept;
    std::vector<removal_t> removals;
    std::map<std::string, std::string> confusion; // links_t::confusion, by link
};

// What one change of the store did to one setting.
struct fact_t {
    enum kind_t { left, set } kind = left; // `set` is used only for gateways
    setting_t setting;
};

// One leaf of a change. `before` is empty if it did not exist, `after` if it no longer exists.
struct leaf_change_t {
    std::string path;
    std::optional<std::string> before, after;
};

// The settings that a change of these leaves removed from the store or set in it. An address is a
// setting only if it is Static. `type_unchanged`: whether to assume that an address whose type leaf
// did not change is Static.
std::vector<fact_t> facts_of(const std::vector<leaf_change_t> &leaves, const std::string &prefix,
                             bool type_unchanged);

// The settings that these leaves contain after the change but did not contain before.
std::vector<setting_t> settings_made(const std::vector<leaf_change_t> &leaves,
                                     const std::string &prefix);

// The Static addresses and the gateways that are stored.
std::vector<setting_t> settings_of(const store_view_t &store);

struct task_t {
    enum kind_t {
        restore,     // set `setting` in the store again, under its node
        forget,      // no longer remember `setting`
        synchronise, // the daemon has to try again what the kernel refused
        take_out,    // remove the node of an address that has a duplicate, and remember it
        adopt,       // make the Automatic address of `setting.node` Static
        remove,      // then remove that node
        drop,        // remove that node: the address is stored again under another one
        settle       // forget the removal: it is done, or no longer wanted
    } kind = restore;
    setting_t setting;
    std::string text;                   // of the stored address or gateway
    std::string words;                  // why, for the log
    std::int32_t type = type_automatic; // drop: of the stored address
};

struct plan_t {
    std::vector<task_t> tasks;
    // Links with a Static address whose check for duplicates has not ended.
    std::set<std::string> unsettled;
};

plan_t make_plan(const memory_t &memory, const kernel_view_t &kernel, const store_view_t &store,
                 const links_t &links, const std::string &prefix);

// When the next attempt for a link may be made: after a second, two, four, ... a minute.
class pace_t {
public:
    // Whether an attempt may be made now. `lazy`: the attempt may turn out to be unnecessary, so
    // the first one waits a second.
    bool is_due(moment_t now, bool lazy);
    void attempted(moment_t now);
    // Nothing is needed, or something changed, so that the next attempt may succeed.
    void reset();
    moment_t next() const { return not_before; }

private:
    std::chrono::seconds delay{1};
    moment_t not_before{};
    moment_t last{};
    bool idle = true;
};

} // namespace ctl
