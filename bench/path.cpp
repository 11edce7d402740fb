// The path of one change from the kernel to a reader of the store: each system call and each switch
// to another process, from the kernel's notification until the reader has fetched the event, as
// perf sees them.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/listener.h"
#include "support/numbers.h"
#include "support/world.h"

namespace {

constexpr useconds_t between_changes_us = 200000;
// A busy disk may delay a change by some hundred milliseconds.
constexpr useconds_t longest_change_us = 500000;

// A process that fetches each event, as a program that shows the settings does.
class Reader {
public:
    explicit Reader(const std::string &socket) : id(fork()) {
        if (id != 0) {
            return;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        bench::Listener listener(socket);
        for (;;) {
            pollfd waiting{listener.fd(), POLLIN, 0};
            poll(&waiting, 1, -1);
            listener.fetch();
        }
    }
    ~Reader() {
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;
    pid_t pid() const { return id; }

private:
    pid_t id;
};

// One line of the trace.
struct event_t {
    double at = 0; // seconds
    pid_t thread = 0;
    int processor = 0;
    std::string name, text;
};

long number_after(const std::string &text, const char *key) {
    const std::size_t at = text.find(key);
    return at == std::string::npos ? -1 : std::atol(text.c_str() + at + std::strlen(key));
}

// The system calls of the path. Others are shown with their number.
std::string name_of(long number) {
    static const std::map<long, std::string> names{
#define CALL(name) {SYS_##name, #name}
        CALL(read),
        CALL(write),
        CALL(pread64),
        CALL(pwrite64),
        CALL(poll),
        CALL(select),
        CALL(pselect6),
        CALL(sendto),
        CALL(recvfrom),
        CALL(sendmsg),
        CALL(recvmsg),
        CALL(epoll_wait),
        CALL(fdatasync),
        CALL(fsync),
        CALL(ftruncate),
        CALL(futex),
        CALL(newfstatat),
        CALL(fstat),
        CALL(stat),
        CALL(statx),
        CALL(fallocate),
        CALL(brk),
        CALL(mmap),
        CALL(munmap),
        CALL(lseek),
        CALL(epoll_pwait),
        CALL(clock_nanosleep),
        CALL(epoll_ctl),
        CALL(ioctl),
        CALL(sched_yield),
        CALL(fcntl),
        CALL(madvise),
        CALL(getpid),
        CALL(pwritev),
        CALL(writev),
        CALL(preadv)
#undef CALL
    };
    const auto found = names.find(number);
    return found == names.end() ? "system call " + std::to_string(number) : found->second;
}

// The file that a process's descriptor leads to; empty for a socket.
using files_t = std::map<pid_t, std::map<int, std::string>>;

// "pwrite64(settings.db-wal, 4096)" of "NR 12 (b, 55d0, 1000, ...)". Descriptors of sockets stay
// numbers; of the flags only the one that leaves the message in the socket is shown.
std::string call_text(const std::string &text, const std::map<int, std::string> &files) {
    const long number = number_after(text, "NR ");
    unsigned long argument[4] = {};
    const std::size_t open = text.find('(');
    if (open != std::string::npos) {
        std::sscanf(text.c_str() + open, "(%lx, %lx, %lx, %lx", &argument[0], &argument[1],
                    &argument[2], &argument[3]);
    }
    std::string shown = name_of(number) + "(";
    if (number == SYS_poll || number == SYS_select || number == SYS_pselect6 ||
        number == SYS_futex || number == SYS_sched_yield || number == SYS_clock_nanosleep) {
        return shown + ")";
    }
    const auto file = files.find(static_cast<int>(argument[0]));
    if (number == SYS_newfstatat || number == SYS_stat) {
        shown += "a path";
    } else if (file != files.end() && file->second.find('/') == 0) {
        shown += file->second.substr(file->second.rfind('/') + 1);
    } else {
        shown += std::to_string(argument[0]);
    }
    const bool peeks = (number == SYS_recvmsg && (argument[2] & MSG_PEEK) != 0) ||
                       (number == SYS_recvfrom && (argument[3] & MSG_PEEK) != 0);
    return shown + (peeks ? ", look only)" : ")");
}

std::vector<event_t> read_trace(const std::string &file) {
    const std::string command =
        "perf script -i '" + file + "' -F tid,cpu,time,event,trace --ns 2>/dev/null";
    const std::unique_ptr<FILE, int (*)(FILE *)> output(popen(command.c_str(), "r"), pclose);
    std::vector<event_t> events;
    char line[1024];
    while (output && std::fgets(line, sizeof line, output.get()) != nullptr) {
        event_t event;
        char name[64];
        int used = 0;
        if (std::sscanf(line, " %d [%d] %lf: %63[^ ] %n", &event.thread, &event.processor,
                        &event.at, name, &used) == 4) {
            event.name = name;
            event.name.pop_back(); // a colon
            event.text = line + used;
            event.text.erase(event.text.find_last_not_of('\n') + 1);
            events.push_back(event);
        }
    }
    return events;
}

// What happened between the notification and the end of the reader's fetch.
struct step_t {
    double at = 0; // seconds since the notification
    pid_t process = 0;
    int processor = 0;
    std::string text;
    bool is_call = false, is_switch = false;
};

class Path {
public:
    Path(std::map<pid_t, std::string> names_of, files_t files_of)
        : names(std::move(names_of)), files(std::move(files_of)) {}

    // Empty when the trace lacks the beginning or the end.
    std::vector<step_t> steps(const std::vector<event_t> &trace, pid_t requester, pid_t daemon,
                              pid_t reader) const;
    const std::string &name(pid_t process) const { return names.at(process); }

private:
    bool knows(pid_t process) const { return names.count(process) > 0; }
    void add(std::vector<step_t> &found, const event_t &event, double begin,
             std::map<pid_t, std::string> &calls) const;

    std::map<pid_t, std::string> names;
    files_t files;
};

// A call appears when it returns, with its result, or when its process goes to sleep in it.
void Path::add(std::vector<step_t> &found, const event_t &event, double begin,
               std::map<pid_t, std::string> &calls) const {
    const double at = event.at - begin;
    if (event.name == "sched:sched_switch") {
        const auto next = static_cast<pid_t>(number_after(event.text, "next_pid="));
        const auto previous = static_cast<pid_t>(number_after(event.text, "prev_pid="));
        if (knows(previous)) {
            const bool sleeps = event.text.find("prev_state=R") == std::string::npos;
            found.push_back({at, previous, event.processor,
                             sleeps ? calls[previous] + " sleeps" : "has to wait", false, false});
        }
        if (knows(next)) {
            found.push_back({at, next, event.processor, "runs", false, true});
        }
        return;
    }
    if (!knows(event.thread)) {
        return;
    }
    if (event.name == "sched:sched_waking") {
        const auto woken = static_cast<pid_t>(number_after(event.text, " pid="));
        if (knows(woken)) {
            found.push_back(
                {at, event.thread, event.processor, "wakes " + name(woken), false, false});
        }
    } else if (event.name == "raw_syscalls:sys_enter") {
        calls[event.thread] = call_text(event.text, files.at(event.thread));
    } else {
        const std::size_t result = event.text.rfind(" = ");
        const std::string text = calls[event.thread];
        found.push_back({at, event.thread, event.processor,
                         (text.empty() ? name_of(number_after(event.text, "NR ")) + "()" : text) +
                             event.text.substr(result),
                         true, false});
        calls[event.thread].clear();
    }
}

std::vector<step_t> Path::steps(const std::vector<event_t> &trace, pid_t requester, pid_t daemon,
                                pid_t reader) const {
    std::vector<step_t> found;
    std::map<pid_t, std::string> calls;
    double begin = 0;
    bool reader_ran = false;
    for (const event_t &event : trace) {
        if (begin == 0) {
            const bool notified = event.name == "sched:sched_waking" && event.thread == requester &&
                                  number_after(event.text, " pid=") == daemon;
            if (!notified) {
                continue;
            }
            begin = event.at;
        }
        add(found, event, begin, calls);
        const bool of_reader = !found.empty() && found.back().process == reader;
        reader_ran = reader_ran || (of_reader && found.back().is_switch);
        if (reader_ran && of_reader && found.back().text.rfind("recvfrom", 0) == 0 &&
            found.back().text.substr(found.back().text.rfind(' ')) == " 1") {
            return found; // the wake-up byte, the last thing a fetch takes
        }
    }
    return {};
}

class Recorder {
public:
    Recorder(kt::Sandbox &sandbox, std::string to) : file(std::move(to)) {
        process = std::make_unique<kt::Process>(
            sandbox,
            std::vector<std::string>{"/usr/bin/perf", "record", "-q", "-a", "-m", "16M", "-k",
                                     "CLOCK_MONOTONIC", "-e",
                                     "raw_syscalls:sys_enter,raw_syscalls:sys_exit,sched:sched_"
                                     "switch,sched:sched_waking",
                                     "-o", file});
        sleep(1);
    }
    std::vector<event_t> stop() {
        process->signal(SIGINT); // it ends by this signal when the file is complete
        process->wait();
        if (access(file.c_str(), R_OK) != 0) {
            throw std::runtime_error("perf cannot record: " + process->errors().tail(3));
        }
        return read_trace(file);
    }

private:
    std::string file;
    std::unique_ptr<kt::Process> process;
};

void print_steps(const Path &path, const std::vector<step_t> &steps) {
    bench::table_head({"µs", "process", "on", "what"});
    for (const step_t &step : steps) {
        bench::table_row({bench::number_text(step.at * 1e6, 0), path.name(step.process),
                          std::to_string(step.processor), step.text});
    }
}

// Medians over all changes.
void print_counts(const Path &path, const std::vector<std::vector<step_t>> &all,
                  const std::vector<pid_t> &processes) {
    std::puts("");
    bench::table_head(
        {"One change, median of " + std::to_string(all.size()), "system calls", "times it runs"});
    for (const pid_t process : processes) {
        std::vector<double> calls, runs;
        for (const auto &steps : all) {
            const auto count = [&](bool step_t::*kind) {
                return static_cast<double>(
                    std::count_if(steps.begin(), steps.end(), [&](const step_t &step) {
                        return step.process == process && step.*kind;
                    }));
            };
            calls.push_back(count(&step_t::is_call));
            runs.push_back(count(&step_t::is_switch));
        }
        bench::table_row({path.name(process), bench::number_text(bench::median(calls), 0),
                          bench::number_text(bench::median(runs), 0)});
    }
}

void measure(bench::World &world, int samples) {
    const Reader reader(world.tavd.socket());
    bench::Requester kernel(world.link_index());
    const pid_t daemon = world.daemon->pid();
    const pid_t service = world.tavd.pid();
    const auto change = [&](int number) {
        usleep(between_changes_us);
        kernel.add(bench::address_text(number));
        usleep(between_changes_us);
        kernel.remove(bench::address_text(number));
    };
    change(1); // also ends what the first change alone does
    std::map<pid_t, std::string> names{
        {daemon, "tandrel"}, {service, "tavd"}, {reader.pid(), "reader"}, {getpid(), "requester"}};
    files_t files;
    for (const auto &process : names) {
        files[process.first] = kt::descriptors(process.first);
    }
    const Path path(names, files);
    std::vector<std::vector<step_t>> all;
    for (int i = 0; i < samples; ++i) {
        Recorder recorder(world.sandbox, world.sandbox.directory() + "/perf.data");
        usleep(between_changes_us);
        kernel.add(bench::address_text(1));
        usleep(longest_change_us);
        const auto steps = path.steps(recorder.stop(), getpid(), daemon, reader.pid());
        kernel.remove(bench::address_text(1));
        if (!steps.empty()) {
            all.push_back(steps);
        }
    }
    if (all.empty()) {
        throw std::runtime_error("no change was recorded whole");
    }
    std::sort(all.begin(), all.end(),
              [](const auto &left, const auto &right) { return left.back().at < right.back().at; });
    print_steps(path, all[all.size() / 2]);
    print_counts(path, all, {daemon, service, reader.pid()});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv, "The path of one change from the kernel to a reader of the store",
        {1, 9, "normal", ""});
    try {
        bench::World world(options.durability);
        world.renew_link();
        world.start_daemon();
        world.wait_for_stored(1);
        measure(world, options.samples);
        world.stop_daemon();
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
