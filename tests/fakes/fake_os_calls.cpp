// The replaced calls. Those that end the process are in fake_os.cpp, next to ending_of.
#include "fakes/fake_os.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
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

#include <tav/mlr.h>

#include "fakes/fake_memory.h"
#include "fakes/log_capture.h"
#include "shell/signals.h"

using fake_os::state;

namespace {

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

// Records an armed call and takes its result.
long called(fake_os::stub_t &stub, const std::string &name, const std::string &arguments) {
    journal::add(name + "(" + arguments + ")");
    return stub.take();
}

// A wait that fails does not change the status.
pid_t waited(pid_t child, int *status) {
    if (child != -1 && status != nullptr) {
        *status = state().wait_status;
    }
    return child;
}

} // namespace

// The linker binds the daemon's references to __wrap_*, and __real_* to the system's functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {

int __real_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout);
int __wrap_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout);
int __wrap_select(int nfds, fd_set *reads, fd_set *writes, fd_set *excepts, timeval *timeout) {
    if (!state().select.armed()) {
        return __real_select(nfds, reads, writes, excepts, timeout);
    }
    const fake_memory::spare spare;
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

// A call that is recorded with the text `arguments`, and whose result is prepared.
#define REPLACED(result_t, name, parameters, passed, arguments)                                    \
    result_t __real_##name parameters;                                                             \
    result_t __wrap_##name parameters;                                                             \
    result_t __wrap_##name parameters {                                                            \
        auto &stub = state().name;                                                                 \
        return stub.armed() ? static_cast<result_t>(called(stub, #name, arguments))                \
                            : __real_##name passed;                                                \
    }

REPLACED(int, setpriority, (__priority_which_t which, id_t who, int priority),
         (which, who, priority), joined(text_of(which), text_of(who), text_of(priority)))
REPLACED(int, sched_setscheduler, (pid_t pid, int policy, const sched_param *param),
         (pid, policy, param),
         joined(text_of(pid), text_of(policy), text_of(param->sched_priority)))
REPLACED(int, setuid, (uid_t uid), (uid), text_of(uid))
REPLACED(pid_t, fork, (), (), "")
REPLACED(pid_t, setsid, (), (), "")
REPLACED(int, chdir, (const char *path), (path), path)
REPLACED(mode_t, umask, (mode_t mask), (mask), text_of(mask))
REPLACED(int, dup, (int fd), (fd), text_of(fd))
REPLACED(int, close, (int fd), (fd), text_of(fd))
// The handler as "default", "signal_handler" or "another", the mask as "empty" or "not empty".
REPLACED(int, sigaction, (int signal, const struct sigaction *action, struct sigaction *old),
         (signal, action, old),
         joined(text_of(signal), handler_name(action->sa_handler), text_of(action->sa_flags),
                sigisemptyset(&action->sa_mask) != 0 ? "empty" : "not empty"))

unsigned int __wrap_alarm(unsigned int seconds);
unsigned int __wrap_alarm(unsigned int seconds) {
    journal::add("alarm(" + text_of(seconds) + ")");
    return 0;
}

// Not in the journal: reading the user ID has no effect.
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

pid_t __real_wait(int *status);
pid_t __wrap_wait(int *status);
pid_t __wrap_wait(int *status) {
    auto &stub = state().wait;
    if (!stub.armed()) {
        return __real_wait(status);
    }
    return waited(static_cast<pid_t>(called(stub, "wait", "")), status);
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    auto &stub = state().wait;
    if (!stub.armed()) {
        return __real_waitpid(pid, status, options);
    }
    return waited(
        static_cast<pid_t>(called(stub, "waitpid", joined(text_of(pid), text_of(options)))),
        status);
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

// Like the real call, one block from malloc with the pointers and, after them, the texts.
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

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
