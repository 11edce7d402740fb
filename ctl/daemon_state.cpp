#include "ctl/daemon_state.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "ctl/text.h"
#include "ctl/tool.h"

#ifdef TANDREL_STORE_STATUS
#include "client/admin.h"

// Weak, because the unit tests do not link the store's library.
namespace tav {
__attribute__((weak)) int service_status(mlr_client_t *client, ServiceStatus &status);
}
#endif

namespace ctl {

namespace {

namespace fs = std::filesystem;

// The namespace as the kernel names it ("net:[4026531840]"); empty with an error. A process that
// has ended has none, even before its parent has waited for it.
std::string network_of(const fs::path &process, std::error_code &error) {
    return fs::read_symlink(process / "ns/net", error).string();
}

std::string name_of(const fs::path &process) {
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

struct process_t {
    bool known = true;
    std::uint32_t pid = 0; // 0: none
};

process_t find_process() {
    std::error_code error;
    const std::string own = network_of("/proc/self", error);
    process_t result{!own.empty(), 0};
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string pid = entry->path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos ||
            name_of(entry->path()) != "tandrel") {
            continue;
        }
        std::error_code hidden;
        const std::string network = network_of(entry->path(), hidden);
        if (!network.empty() && network == own) {
            return {true, static_cast<std::uint32_t>(std::stoul(pid))};
        }
        if (hidden == std::errc::permission_denied) {
            result.known = false;
        }
    }
    return error ? process_t{false, 0} : result;
}

#ifdef TANDREL_STORE_STATUS
// The prefix of the daemon's links, by its command line; empty if that cannot be read.
std::optional<std::string> prefix_of(std::uint32_t pid) {
    const fs::path process = "/proc/" + std::to_string(pid);
    std::optional<std::string> prefix;
    if (name_of(process) != "tandrel") {
        return prefix; // it is in another process namespace
    }
    std::ifstream file(process / "cmdline");
    for (std::string word; std::getline(file, word, '\0');) {
        if (!prefix) {
            prefix = options_t().prefix;
        } else if (word == "-i" && std::getline(file, word, '\0')) {
            prefix = word;
        }
    }
    return prefix;
}

// The last listing of the process.
std::optional<std::uint64_t> last_listing(const tav::ServiceStatus &status, std::uint32_t pid) {
    std::uint64_t last = tav::never_listed;
    for (const tav::ClientStatus &client : status.clients) {
        last = client.pid == pid ? std::min(last, client.listed) : last;
    }
    return last == tav::never_listed ? std::nullopt : std::optional(last);
}
#endif

// The daemon's watchdog in the store; empty when the store cannot say.
std::optional<daemon_state_t> ask_store(client_t &client) {
#ifdef TANDREL_STORE_STATUS
    tav::ServiceStatus status;
    if (&tav::service_status == nullptr || !client.connect() ||
        tav::service_status(client.tav.handle, status) != 0) {
        return std::nullopt;
    }
    daemon_state_t state{daemon_t::disconnected, 0, 0, "", {}, {}};
    for (const tav::WatchdogStatus &one : status.watchdogs) {
        if (one.name == "tandrel" && one.state != tav::WatchdogState::gone) {
            const bool late = one.state == tav::WatchdogState::overdue;
            state = {late ? daemon_t::hangs : daemon_t::working,
                     one.pid,
                     one.since,
                     "",
                     last_listing(status, one.pid),
                     prefix_of(one.pid)};
        }
    }
    return state;
#else
    static_cast<void>(client);
    return std::nullopt;
#endif
}

bool has_unit() {
    std::error_code error;
    for (const char *place : {"/etc", "/run", "/usr/local/lib", "/usr/lib", "/lib"}) {
        if (fs::exists(fs::path(place) / "systemd/system/tandrel.service", error)) {
            return fs::exists("/run/systemd/system", error);
        }
    }
    return false;
}

} // namespace

daemon_state_t find_daemon(client_t &client) {
    const process_t process = find_process();
    std::optional<daemon_state_t> state = ask_store(client);
    if (!state) {
        state =
            daemon_state_t{process.known ? daemon_t::absent : daemon_t::unknown,
                           0,
                           0,
                           "this store does not report it, and only root can inspect its process",
                           {},
                           {}};
        if (!client.connect()) {
            state->state = daemon_t::unknown;
            state->why = "the settings store does not answer";
        } else if (process.pid != 0) {
            state->state = daemon_t::working;
        }
    } else if (state->state == daemon_t::disconnected && process.known && process.pid == 0) {
        state->state = daemon_t::absent;
    }
    if (state->pid == 0) {
        state->pid = process.pid;
    }
    return *state;
}

bool synchronises(const daemon_state_t &daemon) {
    return daemon.state == daemon_t::working || daemon.state == daemon_t::unknown;
}

std::optional<finding_t> daemon_finding(const daemon_state_t &daemon) {
    const auto finding = [&](reason_t reason, words_t words = {}) {
        words["pid"] = daemon.pid != 0 ? std::to_string(daemon.pid) : "";
        return finding_t{"", {reason, std::move(words)}};
    };
    switch (daemon.state) {
    case daemon_t::working:
        return std::nullopt;
    case daemon_t::hangs:
        return finding(reason_t::daemon_hangs,
                       {{"text", duration_text(static_cast<std::uint32_t>(daemon.since / 1000))}});
    case daemon_t::disconnected:
        return finding(reason_t::daemon_disconnected);
    case daemon_t::absent:
        return finding(reason_t::daemon_absent);
    case daemon_t::unknown:
        break;
    }
    return finding(reason_t::daemon_unknown, {{"text", daemon.why}});
}

const char *verdict(daemon_t state) {
    return state == daemon_t::working ? "kernel and store agree"
                                      : "kernel and store have the same settings; whether tandrel "
                                        "is running is not known";
}

std::optional<finding_t> prefix_finding(const daemon_state_t &daemon, const std::string &prefix) {
    if (!daemon.prefix || *daemon.prefix == prefix) {
        return std::nullopt;
    }
    return finding_t{"", {reason_t::daemon_prefix, {{"text", *daemon.prefix}, {"prefix", prefix}}}};
}

std::string service_command(const std::string &verb, const std::string &pid) {
    std::error_code error;
    if (has_unit()) {
        return "systemctl " + verb + " tandrel";
    }
    if (fs::exists("/etc/init.d/tandrel", error)) {
        return "service tandrel " + verb;
    }
    const std::string by_hand = "tandrel -D 2" + prefix_options.tandrel;
    return verb == "start"
               ? by_hand
               : "kill " + (pid.empty() ? "$(pidof tandrel)" : pid) + "; sleep 1; " + by_hand;
}

} // namespace ctl
