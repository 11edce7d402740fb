#include "fakes/fake_os.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <tav/mlr.h>

#include "fakes/log_capture.h"
#include "shell/signals.h"

namespace fake_os {
namespace {

// Where an armed exit or abort goes on.
struct escape_t {
    bool armed = false;
    sigjmp_buf target{};
    ending_t ending;
};
escape_t &escape() {
    static escape_t instance;
    return instance;
}

// Plain data: free is called before and after everything else of this file lives.
const void *watched_pointer = nullptr;

void reset() {
    state() = state_t{};
    watched_pointer = nullptr;
    escape().armed = false;
}
const fakes::reset_hook hook(&reset);

template <typename First, typename... Rest>
std::string joined(const First &first, const Rest &...rest) {
    std::string text = first;
    ((text += ", " + std::string(rest)), ...);
    return text;
}

std::string text_of(long long number) {
    return std::to_string(number);
}

const char *handler_name(void (*handler)(int)) {
    if (handler == SIG_DFL) {
        return "default";
    }
    return handler == &signal_handler ? "signal_handler" : "another";
}

// Enters an armed call and takes its result.
long called(stub_t &stub, const std::string &name, const std::string &arguments) {
    journal::add(name + "(" + arguments + ")");
    return stub.take();
}

// Goes back to ending_of instead of ending the process.
[[noreturn]] void leave(const char *how, int status, const std::string &arguments) {
    auto &to = escape();
    journal::add(std::string(how) + "(" + arguments + ")");
    to.armed = false;
    to.ending = {how, status};
    // NOLINTNEXTLINE(cert-err52-cpp): the callers are not allowed to return.
    siglongjmp(to.target, 1);
}

} // namespace

state_t &state() {
    static state_t instance;
    return instance;
}

stub_t &stub_t::returns(long result, int error) {
    results.push_back({result, error});
    return *this;
}

long stub_t::take() {
    const result_t result = results.front();
    if (results.size() > 1) {
        results.pop_front();
    }
    if (result.error != 0) {
        errno = result.error;
    }
    return result.value;
}

select_script_t &select_script_t::ready(std::vector<int> descriptors,
                                        std::function<void()> before) {
    is_armed = true;
    steps.push_back({0, std::move(descriptors), std::move(before)});
    return *this;
}

select_script_t &select_script_t::timeout(std::function<void()> before) {
    return ready({}, std::move(before));
}

select_script_t &select_script_t::fail(int error, std::function<void()> before) {
    is_armed = true;
    steps.push_back({error, {}, std::move(before)});
    return *this;
}

int select_script_t::take(select_call_t call, std::vector<int> &ready_descriptors) {
    journal::add("select(" + text_of(call.seconds) + ")");
    made.push_back(std::move(call));
    if (steps.empty()) {
        // Who goes on all the same would do so for ever.
        if (++exhausted > 100) {
            std::fputs("select was called again and again without a script\n", stdout);
            std::fflush(stdout);
            __builtin_trap();
        }
        throw script_exhausted{};
    }
    const step_t step = std::move(steps.front());
    steps.pop_front();
    if (step.before) {
        step.before();
    }
    if (step.error != 0) {
        errno = step.error;
        return -1;
    }
    ready_descriptors = step.ready;
    return static_cast<int>(step.ready.size());
}

void select_script_t::clear() {
    *this = select_script_t{};
}

void clock_t::set(std::chrono::nanoseconds since_epoch) {
    is_armed = true;
    time = since_epoch;
}

void clock_t::advance(std::chrono::nanoseconds by) {
    set(time + by);
}

void watch_free(const void *pointer) {
    watched_pointer = pointer;
}

ending_t ending_of(const std::function<int()> &call) {
    auto &to = escape();
    to.armed = true;
    // NOLINTNEXTLINE(cert-err52-cpp): see leave().
    if (sigsetjmp(to.target, 1) == 0) {
        const int result = call();
        to.armed = false;
        to.ending = {"returned", result};
    }
    return to.ending;
}

} // namespace fake_os

using fake_os::called;
using fake_os::handler_name;
using fake_os::joined;
using fake_os::state;
using fake_os::text_of;

// The linker binds the daemon's references to __wrap_*, and __real_* to the system's functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {

int __real_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout);
int __wrap_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout);
int __wrap_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout) {
    if (!state().select.armed()) {
        return __real_select(nfds, reads, writes, excepts, timeout);
    }
    fake_os::select_call_t call;
    call.nfds = nfds;
    for (int fd = 0; reads != nullptr && fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, reads)) {
            call.reading.push_back(fd);
        }
    }
    call.writes = writes != nullptr;
    call.exceptions = excepts != nullptr;
    call.has_timeout = timeout != nullptr;
    if (timeout != nullptr) {
        call.seconds = timeout->tv_sec;
        call.microseconds = timeout->tv_usec;
    }
    std::vector<int> ready;
    const int result = state().select.take(std::move(call), ready);
    if (result >= 0 && reads != nullptr) {
        FD_ZERO(reads);
        for (const int fd : ready) {
            FD_SET(fd, reads);
        }
    }
    return result;
}

int __real_setpriority(__priority_which_t which, id_t who, int priority);
int __wrap_setpriority(__priority_which_t which, id_t who, int priority);
int __wrap_setpriority(__priority_which_t which, id_t who, int priority) {
    auto &stub = state().setpriority;
    if (!stub.armed()) {
        return __real_setpriority(which, who, priority);
    }
    return static_cast<int>(
        called(stub, "setpriority", joined(text_of(which), text_of(who), text_of(priority))));
}

int __real_sched_setscheduler(pid_t pid, int policy, const sched_param *param);
int __wrap_sched_setscheduler(pid_t pid, int policy, const sched_param *param);
int __wrap_sched_setscheduler(pid_t pid, int policy, const sched_param *param) {
    auto &stub = state().sched_setscheduler;
    if (!stub.armed()) {
        return __real_sched_setscheduler(pid, policy, param);
    }
    return static_cast<int>(
        called(stub, "sched_setscheduler",
               joined(text_of(pid), text_of(policy), text_of(param->sched_priority))));
}

int __real_setuid(uid_t uid);
int __wrap_setuid(uid_t uid);
int __wrap_setuid(uid_t uid) {
    auto &stub = state().setuid;
    return stub.armed() ? static_cast<int>(called(stub, "setuid", text_of(uid)))
                        : __real_setuid(uid);
}

// Not in the journal: reading one's own id is no act.
uid_t __real_getuid();
uid_t __wrap_getuid();
uid_t __wrap_getuid() {
    auto &stub = state().getuid;
    return stub.armed() ? static_cast<uid_t>(stub.take()) : __real_getuid();
}

passwd *__real_getpwnam(const char *name);
passwd *__wrap_getpwnam(const char *name);
passwd *__wrap_getpwnam(const char *name) {
    if (!state().users_armed) {
        return __real_getpwnam(name);
    }
    journal::add("getpwnam(" + std::string(name) + ")");
    const auto user = state().users.find(name);
    if (user == state().users.end()) {
        return nullptr;
    }
    static passwd entry;
    entry = passwd{};
    entry.pw_uid = user->second;
    return &entry;
}

pid_t __real_fork();
pid_t __wrap_fork();
pid_t __wrap_fork() {
    auto &stub = state().fork;
    return stub.armed() ? static_cast<pid_t>(called(stub, "fork", "")) : __real_fork();
}

pid_t __real_wait(int *status);
pid_t __wrap_wait(int *status);
pid_t __wrap_wait(int *status) {
    auto &stub = state().wait;
    if (!stub.armed()) {
        return __real_wait(status);
    }
    if (status != nullptr) {
        *status = state().wait_status;
    }
    return static_cast<pid_t>(called(stub, "wait", ""));
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    auto &stub = state().wait;
    if (!stub.armed()) {
        return __real_waitpid(pid, status, options);
    }
    if (status != nullptr) {
        *status = state().wait_status;
    }
    return static_cast<pid_t>(called(stub, "waitpid", joined(text_of(pid), text_of(options))));
}

pid_t __real_setsid();
pid_t __wrap_setsid();
pid_t __wrap_setsid() {
    auto &stub = state().setsid;
    return stub.armed() ? static_cast<pid_t>(called(stub, "setsid", "")) : __real_setsid();
}

int __real_chdir(const char *path);
int __wrap_chdir(const char *path);
int __wrap_chdir(const char *path) {
    auto &stub = state().chdir;
    return stub.armed() ? static_cast<int>(called(stub, "chdir", path)) : __real_chdir(path);
}

mode_t __real_umask(mode_t mask);
mode_t __wrap_umask(mode_t mask);
mode_t __wrap_umask(mode_t mask) {
    auto &stub = state().umask;
    return stub.armed() ? static_cast<mode_t>(called(stub, "umask", text_of(mask)))
                        : __real_umask(mask);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    auto &stub = state().open;
    return stub.armed() ? static_cast<int>(called(stub, "open", joined(path, text_of(flags))))
                        : __real_open(path, flags, mode);
}

int __real_dup(int fd);
int __wrap_dup(int fd);
int __wrap_dup(int fd) {
    auto &stub = state().dup;
    return stub.armed() ? static_cast<int>(called(stub, "dup", text_of(fd))) : __real_dup(fd);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    auto &stub = state().close;
    return stub.armed() ? static_cast<int>(called(stub, "close", text_of(fd))) : __real_close(fd);
}

int __real_pipe(int *ends);
int __wrap_pipe(int *ends);
int __wrap_pipe(int *ends) {
    auto &stub = state().pipe;
    if (!stub.armed()) {
        return __real_pipe(ends);
    }
    const auto result = static_cast<int>(called(stub, "pipe", ""));
    if (result == 0) {
        ends[0] = state().pipe_read;
        ends[1] = state().pipe_write;
    }
    return result;
}

// The journal gets "sigaction(<signal>, <handler>, <flags>, <mask>)": the handler as "default",
// "signal_handler" or "another", the mask as "empty" or "not empty".
int __real_sigaction(int signal, const struct sigaction *action, struct sigaction *old);
int __wrap_sigaction(int signal, const struct sigaction *action, struct sigaction *old);
int __wrap_sigaction(int signal, const struct sigaction *action, struct sigaction *old) {
    auto &stub = state().sigaction;
    if (!stub.armed()) {
        return __real_sigaction(signal, action, old);
    }
    return static_cast<int>(
        called(stub, "sigaction",
               joined(text_of(signal), handler_name(action->sa_handler), text_of(action->sa_flags),
                      sigisemptyset(&action->sa_mask) != 0 ? "empty" : "not empty")));
}

// The journal gets "write(<descriptor>, <bytes in decimal>)".
ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size) {
    auto &stub = state().write;
    if (!stub.armed()) {
        return __real_write(fd, data, size);
    }
    std::string text = text_of(fd);
    for (size_t i = 0; i < size; ++i) {
        text += ", " + text_of(static_cast<const unsigned char *>(data)[i]);
    }
    return called(stub, "write", text);
}

int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t size) {
    auto &stub = state().setsockopt;
    if (!stub.armed()) {
        return __real_setsockopt(fd, level, name, value, size);
    }
    int number = 0;
    std::memcpy(&number, value, std::min(sizeof number, static_cast<std::size_t>(size)));
    return static_cast<int>(called(
        stub, "setsockopt", joined(text_of(fd), text_of(level), text_of(name), text_of(number))));
}

const char *__real_inet_ntop(int family, const void *address, char *text, socklen_t size);
const char *__wrap_inet_ntop(int family, const void *address, char *text, socklen_t size);
const char *__wrap_inet_ntop(int family, const void *address, char *text, socklen_t size) {
    auto &stub = state().inet_ntop;
    if (stub.armed() && stub.take() == 0) {
        return nullptr;
    }
    return __real_inet_ntop(family, address, text, size);
}

int __real_backtrace(void **frames, int size);
int __wrap_backtrace(void **frames, int size);
int __wrap_backtrace(void **frames, int size) {
    if (!state().backtrace_armed) {
        return __real_backtrace(frames, size);
    }
    journal::add("backtrace(" + text_of(size) + ")");
    return static_cast<int>(state().frames.size());
}

// One block from malloc holds the pointers and behind them the texts, as the real one's does.
char **__real_backtrace_symbols(void *const *frames, int size);
char **__wrap_backtrace_symbols(void *const *frames, int size);
char **__wrap_backtrace_symbols(void *const *frames, int size) {
    if (!state().backtrace_armed) {
        return __real_backtrace_symbols(frames, size);
    }
    journal::add("backtrace_symbols(" + text_of(size) + ")");
    if (state().no_symbols) {
        return nullptr;
    }
    const auto &lines = state().frames;
    const std::size_t table = lines.size() * sizeof(char *);
    std::size_t total = table;
    for (const auto &line : lines) {
        total += line.size() + 1;
    }
    auto *pointers = static_cast<char **>(std::malloc(total));
    char *at = static_cast<char *>(static_cast<void *>(pointers)) + table;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        pointers[i] = at;
        std::memcpy(at, lines[i].c_str(), lines[i].size() + 1);
        at += lines[i].size() + 1;
    }
    fake_os::watch_free(pointers);
    return pointers;
}

mlr_client_t *__real_mlr_init();
mlr_client_t *__wrap_mlr_init();
mlr_client_t *__wrap_mlr_init() {
    if (state().before_mlr_init) {
        state().before_mlr_init();
    }
    return __real_mlr_init();
}

void __real_free(void *pointer);
void __wrap_free(void *pointer);
void __wrap_free(void *pointer) {
    if (pointer != nullptr && pointer == fake_os::watched_pointer) {
        fake_os::watched_pointer = nullptr;
        journal::add("free(watched)");
    }
    __real_free(pointer);
}

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
[[noreturn]] void __wrap_exit(int status) {
    if (!fake_os::escape().armed) {
        __real_exit(status);
    }
    fake_os::leave("exit", status, text_of(status));
}

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
[[noreturn]] void __wrap__exit(int status) {
    if (!fake_os::escape().armed) {
        __real__exit(status);
    }
    fake_os::leave("_exit", status, text_of(status));
}

[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
[[noreturn]] void __wrap_abort() {
    if (!fake_os::escape().armed) {
        __real_abort();
    }
    fake_os::leave("abort", 0, "");
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Declared as ordinary functions under the symbols' names: their result is an object.
std::chrono::steady_clock::time_point real_steady_now() noexcept
    __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point wrapped_steady_now() noexcept
    __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point wrapped_steady_now() noexcept {
    const auto &clock = state().clock;
    return clock.armed() ? std::chrono::steady_clock::time_point(clock.now()) : real_steady_now();
}
