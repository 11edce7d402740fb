// What the keeper remembers, in the store, where the daemon does not look:
//
//   /Software/tandrel/Keeper/Handled/Value                                   1234
//   /Software/tandrel/Keeper/Links/<link>/Addresses/<address>/Value          2001:db8::5/64
//   /Software/tandrel/Keeper/Links/<link>/Addresses/<address>/Node/Value     office
//   /Software/tandrel/Keeper/Links/<link>/Addresses/<address>/Reason/Value   link down
//   /Software/tandrel/Keeper/Links/<link>/Gateway/Value                      fe80::1
//   /Software/tandrel/Keeper/Links/<link>/Gateway/Reason/Value               link down
//   /Software/tandrel/Keeper/Links/<link>/Confusion/Value                    link renamed
//   /Software/tandrel/Keeper/Links/<link>/Removals/<address>/Value           2001:db8::6/64
//   /Software/tandrel/Keeper/Links/<link>/Removals/<address>/Node/Value      7
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/keeper_plan.h"
#include "ctl/tool.h"

namespace ctl {

// One step of a change that the store makes whole or not at all.
struct write_t {
    enum kind_t {
        set,   // write the leaf
        clear, // remove everything at and below the path, if there is anything
        same,  // a condition: the leaf has this text
        absent // a condition: there is nothing at the path
    } kind = set;
    std::string path, text;
};
using writes_t = std::vector<write_t>;

// Throws store_lost.
memory_t read_memory(toolkit::CTav &tav);

// The steps that remember or forget.
void remember(writes_t &writes, const kept_t &kept);
void forget(writes_t &writes, const setting_t &setting);
void begin_removal(writes_t &writes, const removal_t &removal);
void end_removal(writes_t &writes, const setting_t &setting);
void note_handled(writes_t &writes, std::uint64_t number);
// An empty `confusion` removes the note.
void note_confusion(writes_t &writes, const std::string &link, const std::string &confusion);
// Restores the memory of `setting` to what it was when the store's change `number` was handled.
// `since`: the leaves of each later change at or below its kept_path, the oldest first. Returns the
// settings that are then remembered again (true) or forgotten (false).
std::vector<std::pair<setting_t, bool>>
remember_as_before(std::uint64_t number, const setting_t &setting,
                   const std::vector<std::vector<leaf_change_t>> &since, writes_t &writes);
// The node where a setting is remembered. All gateways of a link have the same node.
std::string kept_path(const setting_t &setting);
// The node of everything that is remembered about a link.
std::string link_memory(const std::string &link);

// The steps of a task; none for task_t::synchronise.
writes_t writes_of(const task_t &task, const std::string &prefix);

} // namespace ctl
