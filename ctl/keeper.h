// The command keep: settings that leave the store because their link cannot carry them are set
// again when it can.
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

    // Until SIGTERM or SIGINT. Returns the exit code.
    int run();

private:
    // Does all that can be done now. Returns when to call it again if no event comes before.
    moment_t step();
    void connect();
    void end();

    // --- keeper_history.cpp: what left the store
    // Handles the changes up to the first that cannot be judged yet. If true, call it again before
    // anything else.
    bool handle_history();
    void note(writes_t &writes, std::uint64_t reached);
    void handle_gap(writes_t &writes);
    // False: it cannot be judged before `wake`, and `writes` is of no use.
    bool handle(const store_change_t &change, writes_t &writes);
    bool handle_departure(const setting_t &setting, writes_t &writes);
    bool handle_deletion(std::uint64_t number, const setting_t &setting, writes_t &writes);
    // The store has taken back the change with that number. What was noted before is stored.
    void withdraw(std::uint64_t number, writes_t &writes);
    void handle_gateway(const store_change_t &change, const fact_t &fact, writes_t &writes);
    void keep(const setting_t &setting, const std::string &why, writes_t &writes);
    bool is_being_removed(const setting_t &setting) const;
    bool is_in_kernel(const setting_t &setting) const;

    // For keep --list, which sees only the present.
    void show_confusion();
    void notice_new_daemon();
    void work();
    void work_on(const std::string &link, const std::vector<const task_t *> &tasks);
    // Returns whether to read again what the store remembers.
    bool perform(const task_t &task);
    static void say(const std::string &text);
    static std::string line_of(const setting_t &setting, const std::string &text);
    // Says it once the store has stored the writes that go with it.
    void tell(const setting_t &setting, const std::string &text) {
        news.push_back(line_of(setting, text));
    }
    // Unless it was said before and the link still needs something.
    void say_once(const setting_t &setting, const std::string &text);
    void wake_at(moment_t moment) { wake = std::min(wake, moment); }

    const options_t options;
    links_t links;
    kernel_feed_t feed;
    client_t client;
    memory_t memory;
    moment_t now{};
    moment_t wake{};
    std::uint64_t handled = 0; // at least memory.handled, which is not written at each change
    std::uint64_t missed = 0;  // up to this one, changes are known to be missing
    bool relevant = false;     // something was decided since `memory.handled` was written

    std::map<std::string, pace_t> paces;
    std::map<std::string, unsigned> seen_changes; // links_t::changes
    std::map<std::string, std::set<std::string>> said;
    std::map<std::uint64_t, moment_t> first_seen; // deletions that the daemon may still carry out
    struct clearing_t {
        setting_t gateway;
        std::int64_t time = 0;
        bool written_back = false; // by the daemon, which removes it again
    };
    std::map<std::string, clearing_t> cleared; // gateways that somebody removed, by link
    std::string touched;         // the link whose node is used to make the daemon synchronise
    std::vector<setting_t> seen; // what was stored at the last look
    // The daemon's session_of since links have been unclear.
    std::optional<std::uint64_t> daemon_session;
    std::string complaint;         // the last one about the store
    std::vector<std::string> news; // lines to say
};

// The other forms of the command.
int keep_list(const options_t &options);
int keep_forget(const options_t &options);

} // namespace ctl
