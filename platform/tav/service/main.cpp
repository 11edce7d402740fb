// tavd: the settings store's service.
#include <getopt.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "protocol/protocol.h"
#include "service/access.h"
#include "service/listener.h"
#include "service/log.h"
#include "service/path.h"
#include "service/repair.h"
#include "service/server.h"
#include "service/service.h"
#include "service/store.h"

namespace {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

const char usage[] =
    "Usage: tavd (--database FILE [--durability MODE] | --memory) [OPTION]...\n"
    "       tavd --repair --database FILE\n"
    "\n"
    "Serves the settings store until SIGTERM, SIGINT or SIGHUP.\n"
    "\n"
    "Where to keep the settings. A write is done completely or not at all, and acknowledged\n"
    "when it is done.\n"
    "  --database FILE      in FILE, which is created if it does not exist. An acknowledged\n"
    "                       write survives a crash of the service.\n"
    "  --durability full    an acknowledged write also survives a crash of the machine and a\n"
    "                       power cut (the default)\n"
    "  --durability normal  a crash or a power cut may lose the last writes, but never an\n"
    "                       earlier one and never half of one. Faster, and wears flash memory\n"
    "                       less.\n"
    "  --memory             in memory: the settings are lost when the service ends\n"
    "  --repair             do not serve: keep what can be read of the damaged database FILE, and\n"
    "                       print what was dropped\n"
    "  --max-bytes NUMBER   let the settings use at most this much memory; K, M and G multiply\n"
    "                       by 1024 (default: 256M)\n"
    "  --history NUMBER     keep the last NUMBER transactions of users, and as many of services,\n"
    "                       so that tav can list and undo them (default: 1000; 0: none)\n"
    "  --initial-node PATH  create the node PATH in a new store. May be given several times.\n"
    "\n"
    "Who may use them: root, the user that the service runs as, and\n"
    "  --write-group NAME   members of this group\n"
    "  --read-group NAME    members of this group, for reading only. If both groups are given,\n"
    "                       the socket belongs to the read group, and writers must be members\n"
    "                       of both.\n"
    "\n"
    "Where to serve them:\n"
    "  --socket PATH        at PATH (default: TAV_SOCKET, or /run/tav/tav.sock). A missing\n"
    "                       directory is created with mode 0750.\n"
    "  --socket-mode MODE   with these permissions on the socket, in octal (default: 0660)\n"
    "\n"
    "  --help               print this text\n"
    "  --version            print the version\n"
    "\n"
    "Exit status: 0 ended by a signal, 1 failed (the reason is on standard error), 2 usage.\n";

struct Options {
    std::string socket;
    std::string database;
    std::optional<tav::Durability> durability; // only with a database
    std::optional<std::size_t> max_bytes;
    std::size_t history = tav::limits::history_transactions;
    std::vector<std::string> initial_nodes;
    std::string write_group;
    std::string read_group;
    bool memory = false;
    const char *print = nullptr; // only print this text
    bool repair = false;
    mode_t mode = 0660;
};

std::optional<mode_t> parse_mode(const char *text) {
    char *end = nullptr;
    const unsigned long mode = std::strtoul(text, &end, 8);
    if (end == text || *end != '\0' || mode > 0777) {
        return std::nullopt;
    }
    return static_cast<mode_t>(mode);
}

std::optional<tav::Durability> parse_durability(const std::string &text) {
    if (text == "full") {
        return tav::Durability::full;
    }
    if (text == "normal") {
        return tav::Durability::normal;
    }
    return std::nullopt;
}

std::optional<std::size_t> parse_bytes(const std::string &text) {
    const std::string units = "KMG";
    std::size_t number = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const std::size_t unit = rest < end ? units.find(*rest) : std::string::npos;
    const auto shift = static_cast<unsigned int>(unit == std::string::npos ? 0 : 10 * (unit + 1));
    if (error != std::errc() || rest + (shift != 0 ? 1 : 0) != end || number == 0 ||
        number > std::numeric_limits<std::size_t>::max() >> shift) {
        return std::nullopt;
    }
    return number << shift;
}

std::optional<std::size_t> parse_number(const std::string &text) {
    std::size_t number = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

// Stores one option with its argument. False, after a message, if the argument is wrong.
bool take(int found, const char *argument, Options &options) {
    switch (found) {
    case 'd':
        options.database = argument;
        return true;
    case 'D':
        options.durability = parse_durability(argument);
        if (!options.durability) {
            tav::log_line("'%s' is not a durability; use full or normal", argument);
        }
        return options.durability.has_value();
    case 'm':
        options.memory = true;
        return true;
    case 'R':
        options.repair = true;
        return true;
    case 'M':
        options.max_bytes = parse_bytes(argument);
        if (!options.max_bytes) {
            tav::log_line("'%s' is not a number of bytes", argument);
        }
        return options.max_bytes.has_value();
    case 'H':
        if (const std::optional<std::size_t> number = parse_number(argument)) {
            options.history = *number;
            return true;
        }
        tav::log_line("'%s' is not a number of transactions", argument);
        return false;
    case 'n':
        options.initial_nodes.emplace_back(argument);
        if (tav::check_path(argument) != api_status_ok) {
            tav::log_line("'%s' is not the path of a node", argument);
            return false;
        }
        return true;
    case 's':
        options.socket = argument;
        return true;
    case 'w':
        options.write_group = argument;
        return true;
    case 'r':
        options.read_group = argument;
        return true;
    case 'p': {
        const std::optional<mode_t> mode = parse_mode(argument);
        if (!mode) {
            tav::log_line("'%s' is not an octal mode", argument);
            return false;
        }
        options.mode = *mode;
        return true;
    }
    default:
        return false;
    }
}

// Empty, after a message, if the command line is wrong.
std::optional<Options> parse(int argc, char **argv) {
    static const option known[] = {{"database", required_argument, nullptr, 'd'},
                                   {"durability", required_argument, nullptr, 'D'},
                                   {"write-group", required_argument, nullptr, 'w'},
                                   {"read-group", required_argument, nullptr, 'r'},
                                   {"memory", no_argument, nullptr, 'm'},
                                   {"repair", no_argument, nullptr, 'R'},
                                   {"max-bytes", required_argument, nullptr, 'M'},
                                   {"history", required_argument, nullptr, 'H'},
                                   {"initial-node", required_argument, nullptr, 'n'},
                                   {"socket", required_argument, nullptr, 's'},
                                   {"socket-mode", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    const char *variable = std::getenv(tav::socket_variable);
    options.socket = variable != nullptr && *variable != '\0' ? variable : tav::default_socket;
    int found = 0;
    while ((found = getopt_long(argc, argv, "h", known, nullptr)) != -1) {
        if (found == 'h' || found == 'V') {
            options.print = found == 'h' ? usage : "tavd " TAV_VERSION "\n";
            return options;
        }
        if (!take(found, optarg, options)) {
            return std::nullopt;
        }
    }
    if (optind != argc || options.memory == !options.database.empty()) {
        tav::log_line("give exactly one of --database and --memory, and no other arguments");
        return std::nullopt;
    }
    if (options.memory && options.durability) {
        tav::log_line("--durability needs --database; --memory keeps nothing");
        return std::nullopt;
    }
    if (options.memory && options.repair) {
        tav::log_line("--repair needs --database");
        return std::nullopt;
    }
    return options;
}

// This descriptor is readable when a signal that ends the service has arrived.
tav::UniqueFd catch_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    // A log whose reader has exited must not end the service.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    // A write beyond RLIMIT_FSIZE must fail like one to a full disk.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    return tav::UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Allows as many descriptors as there may be connections, if the system permits it. Returns the
// limit.
std::size_t raise_descriptor_limit() {
    constexpr rlim_t wanted = 4096;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::runtime_error(std::string("cannot get the limit of open files: ") +
                                 std::strerror(errno));
    }
    if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(limit.rlim_max, wanted);
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised; // otherwise there are fewer connections
        }
    }
    constexpr rlim_t most = std::numeric_limits<std::size_t>::max();
    return static_cast<std::size_t>(std::min(limit.rlim_cur, most));
}

tav::Rights rights_of(const Options &options) {
    tav::Rights rights;
    rights.owner = ::geteuid();
    if (!options.write_group.empty()) {
        rights.write_group = tav::group_named(options.write_group);
    }
    if (!options.read_group.empty()) {
        rights.read_group = tav::group_named(options.read_group);
    }
    return rights;
}

void serve(const Options &options) {
    tav::Rights rights = rights_of(options);
    const tav::UniqueFd signals = catch_signals();
    if (!signals.valid()) {
        throw std::runtime_error(std::string("cannot create a signalfd: ") + std::strerror(errno));
    }
    rights.connections = tav::connection_limits(raise_descriptor_limit());
    // Claimed first, so that a second service reports the socket and not the database as in use.
    tav::Listener listener(options.socket, rights.socket_group());
    const auto durability = options.durability.value_or(tav::Durability::full);
    const auto store = options.memory ? std::make_unique<tav::Store>(options.initial_nodes)
                                      : std::make_unique<tav::Store>(options.database, durability,
                                                                     options.initial_nodes);
    store->byte_limit = options.max_bytes.value_or(store->byte_limit);
    store->keep_history(tav::HistoryBounds{options.history});
    const auto service = tav::make_service(*store, options.database);
    service->resume(tav::wall_clock());
    service->usage().change(tav::Limit::connections, rights.connections.all);
    service->usage().change(tav::Limit::user_connections, rights.connections.per_user);
    listener.listen(options.mode);
    tav::Server server(*service, listener, signals.get(), rights);
    tav::log_line("serving on %s (%s%s)", options.socket.c_str(),
                  options.memory ? "memory only" : "database ", options.database.c_str());
    server.run();
    tav::log_line("exiting");
}

} // namespace

int main(int argc, char **argv) {
    try {
        const std::optional<Options> options = parse(argc, argv);
        if (!options) {
            std::fputs("Try 'tavd --help'.\n", stderr);
            return exit_usage;
        }
        if (options->print != nullptr) {
            std::fputs(options->print, stdout);
            if (std::fflush(stdout) == 0) {
                return 0;
            }
            throw std::runtime_error("the output could not be written");
        }
        // Users without access to the service must not be able to read its files either.
        ::umask(027);
        if (options->repair) {
            std::fputs(tav::repair_database(options->database).c_str(), stdout);
            return 0;
        }
        serve(*options);
        return 0;
    } catch (const std::exception &error) {
        tav::log_line("%s", error.what());
        return exit_failure;
    }
}
