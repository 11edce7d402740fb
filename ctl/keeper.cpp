#include "ctl/keeper.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <iostream>

#include <poll.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include "ctl/daemon_state.h"
#include "ctl/edit.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/tav_values.h"

namespace ctl {

namespace {

// The watchdog needs a ping within this time even if nothing happens.
constexpr std::chrono::hours watchdog_period{24};
constexpr std::chrono::seconds reconnect_interval{1};
constexpr std::chrono::seconds unclear_interval{5};

// Tasks that the daemon may make unnecessary by handling a change.
bool is_lazy(const task_t &task) {
    return task.kind == task_t::synchronise || task.kind == task_t::take_out;
}

bool is_attempt(const task_t &task) {
    return task.kind != task_t::forget && task.kind != task_t::settle;
}

} // namespace

keeper_t::keeper_t(const options_t &given) : options(given), links(given.prefix), feed(links) {
    library_reports = false; // the store may come and go
    openlog("tandrel-keep", LOG_PID, LOG_DAEMON);
}

int keeper_t::run() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int signals = signalfd(-1, &set, SFD_CLOEXEC);
    moment_t next{};
    for (bool needed = true;;) {
        if (needed) {
            next = step();
        }
        std::array<pollfd, 3> entries{
            {{signals, POLLIN, 0},
             {feed.fd(), POLLIN, 0},
             {client.connected() ? mlr_get_fd(client.tav.handle) : -1, POLLIN, 0}}};
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now());
        poll(entries.data(), entries.size(),
             static_cast<int>(std::max<long long>(left.count(), 0)));
        if (entries[0].revents != 0) {
            close(signals);
            end();
            return exit_done;
        }
        needed =
            feed.drain() || entries[2].revents != 0 || std::chrono::steady_clock::now() >= next;
    }
}

moment_t keeper_t::step() {
    feed.drain();
    now = std::chrono::steady_clock::now();
    wake = now + watchdog_period / 2;
    try {
        const bool is_new = !client.connected();
        connect();
        api_status_t status = tav_value::status_unset;
        client.tav.watchdog_ping(status);
        client.take_events();
        // Other programs change it, too: `tav undo`, and the service when it reverts a change.
        memory = read_memory(client.tav);
        handled = std::max(handled, memory.handled.value_or(0));
        while (handle_history()) {
        }
        if (is_new) {
            say("watching the links whose names begin with " + shown(options.prefix));
            if (const auto other = prefix_finding(find_daemon(client), options.prefix)) {
                say("tandrel: " + other->sentence());
            }
        }
        work();
        complaint.clear();
    } catch (const store_lost &error) {
        client.disconnect();
        if (complaint != error.what()) {
            complaint = error.what();
            say(complaint + std::string("; trying again every second"));
        }
        return now + reconnect_interval;
    }
    return wake;
}

void keeper_t::connect() {
    if (client.connected()) {
        return;
    }
    if (!client.subscribe()) {
        throw store_lost(unreachable_text());
    }
    const std::uint32_t other = process_of(client, keeper_name);
    if (other != 0 && other != static_cast<std::uint32_t>(getpid())) {
        throw refusal("another 'tandrelctl keep' is already running (process " +
                      std::to_string(other) + ")");
    }
    api_status_t status = tav_value::status_unset;
    constexpr auto period = std::chrono::duration_cast<std::chrono::seconds>(watchdog_period);
    if (client.tav.watchdog_register(status, keeper_name, static_cast<int>(period.count()), true) !=
        0) {
        throw store_lost(store_silent);
    }
    if (daemon_session) {
        daemon_session = 0; // the store has ended the daemon's connection, too
    }
}

// Changes that were handled but not yet recorded would be uncertain at the next start.
void keeper_t::end() {
    if (!client.connected() || handled == memory.handled.value_or(0)) {
        return;
    }
    writes_t writes;
    note_handled(writes, handled);
    try {
        carry_out(client, writes);
    } catch (const store_lost &) {
        // Then they are uncertain.
    }
}

void keeper_t::store_confusion() {
    std::set<std::string> names;
    for (const auto &item : memory.confusion) {
        names.insert(item.first);
    }
    for (const kept_t &kept : memory.kept) {
        names.insert(kept.setting.link);
    }
    for (const std::string &link : names) {
        const std::string is = links.confusion(link);
        if (memory.confusion[link] == is) {
            continue;
        }
        writes_t writes;
        note_confusion(writes, link, is);
        memory.confusion[link] = is;
        if (carry_out(client, writes) && !is.empty()) {
            say(shown(link) + ": its settings are not restored (" + is + ")");
        }
    }
}

// A daemon that connects again has discarded what it knew about links.
void keeper_t::notice_new_daemon() {
    if (!links.is_unclear()) {
        daemon_session.reset();
        return;
    }
    const std::uint64_t session = session_of(client, daemon_name);
    if (session != 0 && daemon_session && session != *daemon_session) {
        links.daemon_restarted();
    }
    daemon_session = session;
    wake_at(now + unclear_interval); // no event says that it has connected
}

void keeper_t::work() {
    const kernel_view_t kernel = read_kernel();
    const store_view_t store = read_store(client.tav, options.prefix);
    seen = settings_of(store);
    notice_new_daemon();
    store_confusion();
    const plan_t plan = make_plan(memory, kernel, store, links, options.prefix);
    std::map<std::string, std::vector<const task_t *>> by_link;
    for (const task_t &task : plan.tasks) {
        by_link[task.setting.link].push_back(&task);
    }
    for (auto &[link, pace] : paces) {
        if (by_link.count(link) == 0 && plan.unsettled.count(link) == 0) {
            pace.reset();
            said.erase(link);
        }
    }
    touched.clear();
    for (const auto &[link, tasks] : by_link) {
        work_on(link, tasks);
    }
    if (!touched.empty()) {
        try {
            nudge_daemon(client, options, interface_number(touched, options.prefix));
        } catch (const refusal &) {
            // The store changed at the same time; the next attempt retries.
        }
    }
}

void keeper_t::work_on(const std::string &link, const std::vector<const task_t *> &tasks) {
    pace_t &pace = paces[link];
    unsigned &changes = seen_changes[link];
    if (changes != links.changes(link)) {
        changes = links.changes(link);
        pace.reset();
    }
    bool attempt = false;
    bool lazy = true;
    for (const task_t *task : tasks) {
        attempt = attempt || is_attempt(*task);
        lazy = lazy && (is_lazy(*task) || !is_attempt(*task));
    }
    const bool due = attempt && pace.is_due(now, lazy);
    bool changed = false;
    for (const task_t *task : tasks) {
        if (!is_attempt(*task) || due) {
            changed = perform(*task) || changed;
        }
    }
    if (changed) {
        memory = read_memory(client.tav);
    }
    if (due) {
        pace.attempted(now);
    }
    if (attempt) {
        wake_at(pace.next());
    }
}

bool keeper_t::perform(const task_t &task) {
    if (task.kind == task_t::synchronise) {
        say_once(task.setting, "is stored but not in the kernel; asking tandrel to try again");
        touched = task.setting.link;
        return false;
    }
    if (!carry_out(client, writes_of(task, options.prefix))) {
        return true; // the store has changed meanwhile
    }
    switch (task.kind) {
    case task_t::restore:
        say_once(task.setting, "was restored (" + task.words + ")");
        break;
    case task_t::forget:
        say_once(task.setting, "was forgotten (" + task.words + ")");
        break;
    case task_t::take_out:
        say_once(task.setting, "has a duplicate on the network; trying again");
        break;
    case task_t::remove:
        say_once(task.setting, "was removed (" + task.words + ")");
        break;
    default:
        break;
    }
    return true;
}

void keeper_t::say(const std::string &text) {
    syslog(LOG_INFO, "%s", text.c_str());
    std::cout << text << std::endl;
}

std::string keeper_t::line_of(const setting_t &setting, const std::string &text) {
    return shown(setting.link) + ": " + text_of(setting) + " " + text;
}

void keeper_t::say_once(const setting_t &setting, const std::string &text) {
    if (said[setting.link].insert(text_of(setting) + text).second) {
        say(line_of(setting, text));
    }
}

int keep(const options_t &options) {
    if (options.list || options.forget) {
        return options.list ? keep_list(options) : keep_forget(options);
    }
    return keeper_t(options).run();
}

} // namespace ctl
