// The command keep: restores settings that were removed from the store because their link could not
// carry them.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ctl/keeper_kernel.h"
#include "ctl/keeper_store.h"

namespace ctl {

class keeper_t {
public:
    explicit keeper_t(const options_t &given);

    // Runs until SIGTERM or SIGINT. Returns the exit code.
    int run();

private:
    // Does all that can be done now. Must be called again at the returned time, or earlier if an
    // event comes.
    moment_t step();
    void connect();
    void end();

    // --- keeper_history.cpp: what was removed from the store
    // Handles the changes up to the first that cannot be judged yet. Returns true if it must be
    // called again before anything else.
    bool handle_history();
    void note(writes_t &writes, std::uint64_t reached);
    void handle_gap(writes_t &writes);
    // Returns false if the change cannot be judged before `wake`; then discard `writes`.
    bool handle(const store_change_t &change, writes_t &writes);
    bool handle_departure(const setting_t &setting, std::int64_t time, writes_t &writes);
    bool handle_deletion(std::uint64_t number, const setting_t &setting, writes_t &writes);
    // Handles the reversion of the change with that number by the store. What was decided about
    // earlier changes must have been stored already.
    void withdraw(std::uint64_t number, writes_t &writes);
    void handle_gateway(const store_change_t &change, const fact_t &fact, writes_t &writes);
    void keep(const setting_t &setting, const std::string &why, writes_t &writes);
    bool is_being_removed(const setting_t &setting) const;
    bool is_in_kernel(const setting_t &setting) const;

    // Stores why nothing is restored on a link, because keep --list cannot see past events.
    void store_confusion();
    void notice_new_daemon();
    void work();
    void work_on(const std::string &link, const std::vector<const task_t *> &tasks);
    // Returns true if the memory must be read from the store again.
    bool perform(const task_t &task);
    static void say(const std::string &text);
    static std::string line_of(const setting_t &setting, const std::string &text);
    // Queues a line; it is logged when the writes that belong to it have been stored.
    void report(const setting_t &setting, const std::string &text) {
        news.push_back(line_of(setting, text));
    }
    // Logs the text, but only once until nothing is left to do for the link.
    void say_once(const setting_t &setting, const std::string &text);
    void wake_at(moment_t moment) { wake = std::min(wake, moment); }

    const options_t options;
    links_t links;
    kernel_feed_t feed;
    client_t client;
    memory_t memory;
    moment_t now{};
    moment_t wake{};
    std::uint64_t handled = 0; // the last change handled; memory.handled may lag behind
    std::uint64_t missed = 0;  // changes up to this number are missing from the history
    bool relevant = false;     // a decision was made since `memory.handled` was written

    std::map<std::string, pace_t> paces;
    std::map<std::string, unsigned> seen_changes; // links_t::changes at the last attempt, by link
    std::map<std::string, std::set<std::string>> said;
    // When each deletion that the daemon may still carry out was first seen, by the number of the
    // change.
    std::map<std::uint64_t, moment_t> first_seen;
    struct clearing_t {
        setting_t gateway;
        std::int64_t time = 0;
        bool written_back = false; // the daemon wrote it back, and will remove it
    };
    std::map<std::string, clearing_t> cleared; // gateways that somebody removed, by link
    std::string touched;         // the link whose node is used to make the daemon synchronise
    std::vector<setting_t> seen; // what was stored at the last look
    // The daemon's store session (session_of), while some link's name is unclear.
    std::optional<std::uint64_t> daemon_session;
    std::string complaint;         // the last error logged about the store
    std::vector<std::string> news; // lines to log
};

// Why a remembered setting is not restored at present; empty: nothing is in the way.
std::string what_stops(const memory_t &memory, const links_t &links, const setting_t &setting,
                       const std::string &prefix);

// The other forms of the command.
int keep_list(const options_t &options);
int keep_forget(const options_t &options);

} // namespace ctl
