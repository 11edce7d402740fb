#include "shell/options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <pwd.h>
#include <sched.h>
#include <unistd.h>

std::uint32_t verbosity = 0;
bool daemon_mode = true;
tk_string interface_string = "eth";
std::uint32_t run_as_uid = getuid();
std::int32_t nice_priority = nice_not_requested;
std::unique_ptr<rt_sched_request_t> rt_sched_request;

namespace {

// The arguments not yet read.
class arguments {
public:
    arguments(int argc, char *argv[]) : next(argv + 1), end(argv + argc) {}

    bool empty() const { return next >= end; }
    const char *peek() const { return *next; }
    const char *take() { return *next++; }

    // The argument that an option requires: null when it is missing or empty.
    const char *take_required() {
        if (empty() || *peek() == '\0') {
            return nullptr;
        }
        return take();
    }

private:
    char **next;
    char **end;
};

// Stores the number that a text begins with; any text after it is ignored on purpose. False when
// there is none, or neither `long` nor `value` can hold it.
bool parse_number(const char *text, std::uint32_t &value) {
    char *end = nullptr;
    errno = 0;
    const std::int64_t number = std::strtol(text, &end, 10);
    if (end == text || errno == ERANGE || number < 0 ||
        number > std::numeric_limits<std::uint32_t>::max()) {
        return false;
    }
    value = static_cast<std::uint32_t>(number);
    return true;
}

// Like atoi(3), except that a number beyond the range of int gives the end of the range.
int parse_int(const char *text) {
    using limits = std::numeric_limits<int>;
    return static_cast<int>(
        std::clamp<long>(std::strtol(text, nullptr, 10), limits::min(), limits::max()));
}

bool parse_user(arguments &args) {
    const char *user = args.take_required();
    if (user == nullptr) {
        return false;
    }
    if (const passwd *entry = getpwnam(user)) {
        run_as_uid = entry->pw_uid;
        return true;
    }
    std::fprintf(stderr, "No user named '%s'\n", user);
    if (!parse_number(user, run_as_uid)) {
        return false;
    }
    std::fprintf(stderr, "(Using UID = %ld)\n", static_cast<long>(run_as_uid));
    return true;
}

bool parse_nice(arguments &args) {
    const char *text = args.take_required();
    if (text == nullptr) {
        return false;
    }
    nice_priority = parse_int(text);
    return static_cast<std::uint32_t>(nice_priority) + 20U <= 39U;
}

bool parse_rt_scheduling(arguments &args) {
    const char *name = args.take_required();
    int policy = 0;
    if (name == nullptr || parse_sched_policy(name, policy) != 0) {
        return false;
    }
    const char *text = args.take_required();
    if (text == nullptr) {
        return false;
    }
    const int priority = parse_int(text);
    if (priority < sched_get_priority_min(policy) || priority > sched_get_priority_max(policy)) {
        return false;
    }
    rt_sched_request = std::make_unique<rt_sched_request_t>(rt_sched_request_t{policy, priority});
    return true;
}

bool parse_interface(arguments &args) {
    const char *text = args.take_required();
    if (text == nullptr) {
        return false;
    }
    interface_string = text;
    return true;
}

bool parse_verbosity(arguments &args) {
    if (args.empty()) {
        ++verbosity;
        return true;
    }
    const char *text = args.peek();
    if (*text == '\0') {
        return false;
    }
    if (*text == '-') {
        // The next option, not this one's number.
        ++verbosity;
        return true;
    }
    args.take();
    if (!parse_number(text, verbosity)) {
        std::fprintf(stderr, "Error: bad verbosity '%s'\n", text);
        return false;
    }
    return true;
}

bool parse_option(const char *option, arguments &args) {
    if (std::strcmp(option, "-u") == 0) {
        return parse_user(args);
    }
    if (std::strcmp(option, "-n") == 0) {
        return parse_nice(args);
    }
    if (std::strcmp(option, "-r") == 0) {
        return parse_rt_scheduling(args);
    }
    if (std::strcmp(option, "-i") == 0) {
        return parse_interface(args);
    }
    if (std::strcmp(option, "-d") == 0) {
        daemon_mode = false;
        return true;
    }
    if (std::strcmp(option, "-D") == 0) {
        return parse_verbosity(args);
    }
    return false;
}

} // namespace

bool parse_options(int argc, char *argv[]) {
    for (arguments args(argc, argv); !args.empty();) {
        if (!parse_option(args.take(), args)) {
            print_usage(argv[0]);
            return false;
        }
    }
    return true;
}

int parse_sched_policy(const char *name, int &policy) {
    static const struct {
        const char *name;
        int policy;
    } policies[] = {
        {"normal", SCHED_OTHER}, {"batch", SCHED_BATCH}, {"fifo", SCHED_FIFO}, {"rr", SCHED_RR}};
    for (const auto &known : policies) {
        if (std::strcmp(name, known.name) == 0) {
            policy = known.policy;
            return 0;
        }
    }
    return 1;
}

void print_usage(const char *program) {
    std::printf("Usage: %s [-u <user>] [-n <prio>] [-r <policy> <prio>] [-i <interface>] [-d] "
                "[-D [... | <N>]]\n",
                program);
    std::puts("\t-u: Run as the given <user> (name or UID)");
    std::puts("\t-n: Use normal scheduling with given priority");
    std::puts("\t-r: Use real-time scheduling with given policy & priority");
    std::puts("\t-i: Use given interface string rather than default 'eth'");
    std::puts("\t-d: Do not daemonize/fork");
    std::puts("\t-D: Increase/set debugging verbosity");
    std::puts("");
    std::puts("The priority field for normal scheduling is a number between -20 and 19, with\n"
              "-20 being the \"best\" number.  This option utilizes setpriority(2) to set the\n"
              "priority under \"normal\" scheduling policy.");
    std::puts("\nThe policy used for real-time scheduling ('-r') can be one of:\n"
              "'normal', 'batch', 'fifo', or 'rr'.  See sched_setscheduler(2) for a detailed\n"
              "description of these policies, and their allowed priority ranges.");
    std::printf("\nYou must have appropriate permissions in order to use the options -n, -r,\n"
                "and -u.  If unsure, execute '%s -d' and make sure there are no\n"
                "error messages.\n\n",
                program);
}
