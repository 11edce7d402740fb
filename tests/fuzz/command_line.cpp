// The command line: the resulting settings, the output, and whether it is accepted.
#include <algorithm>
#include <cstdio>
#include <pwd.h>
#include <unistd.h>

#include "fakes/usage_text.h"
#include "fuzz/fuzz.h"
#include "shell/options.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name.
extern "C" passwd *__wrap_getpwnam(const char *name);

// The only users are "root" (0), "nobody" (65534) and one whose name is a number, "12" (1000).
extern "C" passwd *__wrap_getpwnam(const char *name) {
    static passwd entry;
    const std::string user = name;
    entry.pw_uid = user == "root" ? 0U : user == "nobody" ? 65534U : 1000U;
    return user == "root" || user == "nobody" || user == "12" ? &entry : nullptr;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

struct outcome_t {
    bool accepted = true;
    std::uint32_t verbosity = 0;
    bool daemon_mode = true;
    std::string interface = "eth";
    std::uint32_t uid = 4242;
    std::int32_t nice = -100;
    bool has_rt = false;
    std::int32_t policy = 0, priority = 0;
    std::string standard_error, standard_output;

    std::string text() const {
        return std::to_string(accepted) + " D" + std::to_string(verbosity) + " d" +
               std::to_string(daemon_mode) + " i" + interface + " u" + std::to_string(uid) + " n" +
               std::to_string(nice) + " r" + std::to_string(has_rt) + " " + std::to_string(policy) +
               " " + std::to_string(priority) + "\n" + standard_error + "\n" + standard_output;
    }
};

// A stream that collects what is written to it.
class collector_t {
public:
    explicit collector_t(FILE *&replaced) : variable(replaced), original(replaced) {
        cookie_io_functions_t functions{};
        functions.write = &collector_t::write;
        variable = fopencookie(this, "w", functions);
        std::setvbuf(variable, nullptr, _IOLBF, 0);
    }
    ~collector_t() { finish(); }
    collector_t(const collector_t &) = delete;
    collector_t &operator=(const collector_t &) = delete;

    const std::string &finish() {
        if (variable != original) {
            std::fclose(variable);
            variable = original;
        }
        return text;
    }

private:
    static ssize_t write(void *self, const char *bytes, std::size_t size) {
        static_cast<collector_t *>(self)->text.append(bytes, size);
        return static_cast<ssize_t>(size);
    }

    FILE *&variable;
    FILE *original;
    std::string text;
};

outcome_t actual(std::vector<std::string> words) {
    verbosity = 0;
    daemon_mode = true;
    interface_string = "eth";
    run_as_uid = 4242;
    nice_priority = nice_not_requested;
    rt_sched_request.reset();

    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    outcome_t result;
    {
        collector_t out(stdout);
        collector_t err(stderr);
        result.accepted = parse_options(static_cast<int>(words.size()), argv.data());
        result.standard_error = err.finish();
        result.standard_output = out.finish();
    }
    result.verbosity = verbosity;
    result.daemon_mode = daemon_mode;
    result.interface = interface_string;
    result.uid = run_as_uid;
    result.nice = nice_priority;
    if (rt_sched_request) {
        result.has_rt = true;
        result.policy = rt_sched_request->policy;
        result.priority = rt_sched_request->priority;
    }
    return result;
}

// Linux's numbers: policy, lowest and highest priority.
bool policy_of(const std::string &name, int &policy, int &least, int &most) {
    const bool real_time = name == "fifo" || name == "rr";
    policy = name == "batch" ? 3 : name == "fifo" ? 1 : name == "rr" ? 2 : 0;
    least = real_time ? 1 : 0;
    most = real_time ? 99 : 0;
    return real_time || name == "normal" || name == "batch";
}

// The number that a text begins with, if it fits 32 bits.
bool take_number(const std::string &text, std::uint32_t &to) {
    const fuzz::decimal_t number = fuzz::decimal(text);
    if (number.consumed == 0 || number.value < 0 || number.value > 0xffffffff) {
        return false;
    }
    to = static_cast<std::uint32_t>(number.value);
    return true;
}

std::int32_t nearest_int(const std::string &text) {
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(fuzz::decimal(text).value, -0x80000000LL, 0x7fffffffLL));
}

// Takes one option and its arguments from the front of the words; false if they are not valid.
bool expect_option(std::vector<std::string> &words, outcome_t &to) {
    const std::string option = words.front();
    words.erase(words.begin());
    const auto take = [&words] {
        const std::string word = words.empty() ? "" : words.front();
        if (!words.empty()) {
            words.erase(words.begin());
        }
        return word; // a missing argument is treated like an empty one
    };
    if (option == "-d") {
        to.daemon_mode = false;
        return true;
    }
    if (option == "-D") {
        if (words.empty() || words.front().substr(0, 1) == "-") {
            ++to.verbosity;
            return true;
        }
        const std::string level = take();
        const bool fits = take_number(level, to.verbosity);
        if (!level.empty() && !fits) {
            to.standard_error += "Error: bad verbosity '" + level + "'\n";
        }
        return fits;
    }
    if (option == "-i") {
        const std::string name = take();
        to.interface = name.empty() ? to.interface : name;
        return !name.empty();
    }
    if (option == "-n") {
        const std::string priority = take();
        if (!priority.empty()) {
            to.nice = nearest_int(priority);
        }
        return !priority.empty() && to.nice >= -20 && to.nice <= 19;
    }
    if (option == "-r") {
        int policy = 0;
        int least = 0;
        int most = 0;
        if (!policy_of(take(), policy, least, most)) {
            return false;
        }
        const std::string priority = take();
        const std::int32_t number = nearest_int(priority);
        if (priority.empty() || number < least || number > most) {
            return false;
        }
        to.has_rt = true;
        to.policy = policy;
        to.priority = number;
        return true;
    }
    if (option == "-u") {
        const std::string user = take();
        if (user.empty()) {
            return false;
        }
        if (user == "root" || user == "nobody" || user == "12") {
            to.uid = user == "root" ? 0U : user == "12" ? 1000U : 65534U;
            return true;
        }
        to.standard_error += "No user named '" + user + "'\n";
        if (!take_number(user, to.uid)) {
            return false;
        }
        to.standard_error += "(Using UID = " + std::to_string(to.uid) + ")\n";
        return true;
    }
    return false;
}

outcome_t expected(std::vector<std::string> words) {
    outcome_t result;
    const std::string program = words.front();
    words.erase(words.begin());
    while (result.accepted && !words.empty()) {
        result.accepted = expect_option(words, result);
    }
    if (!result.accepted) {
        result.standard_output = usage_of(program);
    }
    return result;
}

} // namespace

// An input is the command line, its words separated by NUL; the first is the program's name.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::vector<std::string> words = fuzz::split(std::string(data, data + size), '\0');
    fuzz::require_same(actual(words).text(), expected(words).text(),
                       "the command line was taken otherwise");
    return 0;
}
