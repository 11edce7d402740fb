// tavd: the settings store's service.
#include <getopt.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "protocol/protocol.h"
#include "service/listener.h"
#include "service/log.h"
#include "service/server.h"
#include "service/service.h"
#include "service/store.h"

namespace {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

const char usage[] =
    "Usage: tavd (--database FILE | --memory) [--socket PATH] [--socket-mode MODE]\n"
    "\n"
    "Serves the settings store until SIGTERM, SIGINT or SIGHUP.\n"
    "\n"
    "  --database FILE     keep the settings in FILE, which is created when it does not exist\n"
    "  --memory            keep the settings in memory only\n"
    "  --socket PATH       listen at PATH (else TAV_SOCKET, else /run/tav/tav.sock)\n"
    "  --socket-mode MODE  permissions of the socket, octal (0660)\n"
    "  --help              print this text\n"
    "\n"
    "Exit status: 0 ended by a signal, 1 failed (the reason is on standard error), 2 usage.\n";

struct Options {
    std::string socket;
    std::string database;
    bool memory = false;
    bool help = false;
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

// Empty when the command line is wrong, which has been said then.
std::optional<Options> parse(int argc, char **argv) {
    static const option known[] = {{"database", required_argument, nullptr, 'd'},
                                   {"memory", no_argument, nullptr, 'm'},
                                   {"socket", required_argument, nullptr, 's'},
                                   {"socket-mode", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    const char *variable = std::getenv(tav::socket_variable);
    options.socket = variable != nullptr && *variable != '\0' ? variable : tav::default_socket;
    int found = 0;
    while ((found = getopt_long(argc, argv, "h", known, nullptr)) != -1) {
        switch (found) {
        case 'd':
            options.database = optarg;
            break;
        case 'm':
            options.memory = true;
            break;
        case 's':
            options.socket = optarg;
            break;
        case 'p': {
            const std::optional<mode_t> mode = parse_mode(optarg);
            if (!mode) {
                tav::log_line("'%s' is not an octal mode", optarg);
                return std::nullopt;
            }
            options.mode = *mode;
            break;
        }
        case 'h':
            options.help = true;
            return options;
        default:
            return std::nullopt;
        }
    }
    if (optind != argc || options.memory == !options.database.empty()) {
        tav::log_line("exactly one of --database and --memory is needed, and nothing else");
        return std::nullopt;
    }
    return options;
}

// The signals that end the service arrive as readiness of this descriptor.
tav::UniqueFd catch_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    // A log that nobody reads any more must not end the service.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    return tav::UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Room for every connection that the limits allow, if the system lets us.
void raise_descriptor_limit() {
    constexpr rlim_t wanted = 4096;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = limit.rlim_max < wanted ? limit.rlim_max : wanted;
        ::setrlimit(RLIMIT_NOFILE, &limit); // refused: fewer connections, nothing worse
    }
}

void serve(const Options &options) {
    const tav::UniqueFd signals = catch_signals();
    if (!signals.valid()) {
        throw std::runtime_error("no signalfd");
    }
    raise_descriptor_limit();
    // Claimed first: whoever is second hears that, and not that the database is in use.
    tav::Listener listener(options.socket);
    const auto store = options.memory ? std::make_unique<tav::Store>()
                                      : std::make_unique<tav::Store>(options.database);
    const auto service = tav::make_service(*store, options.database);
    listener.listen(options.mode);
    tav::Server server(*service, listener, signals.get());
    tav::log_line("serving on %s (%s%s)", options.socket.c_str(),
                  options.memory ? "memory only" : "database ", options.database.c_str());
    server.run();
    tav::log_line("ending");
}

} // namespace

int main(int argc, char **argv) {
    try {
        const std::optional<Options> options = parse(argc, argv);
        if (!options) {
            std::fputs("Try 'tavd --help'.\n", stderr);
            return exit_usage;
        }
        if (options->help) {
            std::fputs(usage, stdout);
            return 0;
        }
        serve(*options);
        return 0;
    } catch (const std::exception &error) {
        tav::log_line("%s", error.what());
        return exit_failure;
    }
}
