// Preloaded into the daemon, makes single system calls behave as they do on other machines or under
// shortage. Environment variables select them:
//
//   KT_RCVBUF_CAP=<bytes>       SO_RCVBUFFORCE is refused and SO_RCVBUF is cut at that size
//   KT_FAIL_SEND=<type>:<n>     the first n netlink messages of that type cannot be sent
//   KT_LOSE_SEND=<type>:<n>     the first n are taken and never arrive
//   KT_FAIL_BIND=<n>            the first n netlink sockets cannot be bound
//   KT_FAIL_MEMBERSHIP=<n>      the first n group memberships are refused
//   KT_FAIL_FORK=1              no process can be forked
//   KT_FAIL_PIPE=1              no pipe can be made
//   KT_SETSID_DELAY=<ms>        setsid takes that long
//   KT_PAUSE_MS=<ms>            the pause of ten seconds before a rebuild takes that long
//   KT_CLOCK_RATE=<n>           the monotonic clock runs that many times as fast
//   KT_SYSLOG_DELAY=<us>        each line to the system log takes that much longer
//   KT_SELECT_DELAY=<ms>        every select begins that much later, as on a slow machine
//
// Calls of the store's client library: see store_calls.cpp.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/preload/next_function.h"

namespace {

long number(const char *variable) {
    const char *text = std::getenv(variable);
    return text != nullptr ? std::strtol(text, nullptr, 10) : 0;
}

bool is_netlink(const void *address, socklen_t length) {
    sa_family_t family = AF_UNSPEC;
    if (address == nullptr || length < sizeof family) {
        return false;
    }
    std::memcpy(&family, address, sizeof family);
    return family == AF_NETLINK;
}

// Whether the message is one of the first of its type to which the variable applies.
bool is_planned(const char *variable, const msghdr *message, long &failed) {
    const char *plan = std::getenv(variable);
    const char *colon = plan != nullptr ? std::strchr(plan, ':') : nullptr;
    nlmsghdr header{};
    if (colon == nullptr || !is_netlink(message->msg_name, message->msg_namelen) ||
        message->msg_iovlen == 0 || message->msg_iov[0].iov_len < sizeof header) {
        return false;
    }
    std::memcpy(&header, message->msg_iov[0].iov_base, sizeof header);
    if (header.nlmsg_type != std::strtol(plan, nullptr, 10) ||
        failed >= std::strtol(colon + 1, nullptr, 10)) {
        return false;
    }
    ++failed;
    return true;
}

} // namespace

extern "C" {

int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    static const auto next =
        next_function<int (*)(int, int, int, const void *, socklen_t)>("setsockopt");
    static long refused_memberships = 0;
    if (level == SOL_NETLINK && option == NETLINK_ADD_MEMBERSHIP &&
        refused_memberships < number("KT_FAIL_MEMBERSHIP")) {
        ++refused_memberships;
        errno = EPERM;
        return -1;
    }
    const int cap = static_cast<int>(number("KT_RCVBUF_CAP"));
    if (cap > 0 && level == SOL_SOCKET && option == SO_RCVBUFFORCE) {
        errno = EPERM;
        return -1;
    }
    if (cap > 0 && level == SOL_SOCKET && option == SO_RCVBUF && length == sizeof(int)) {
        int wanted = 0;
        std::memcpy(&wanted, value, sizeof wanted);
        if (wanted > cap) {
            return next(fd, level, option, &cap, sizeof cap);
        }
    }
    return next(fd, level, option, value, length);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    static const auto next = next_function<ssize_t (*)(int, const msghdr *, int)>("sendmsg");
    static long failed = 0;
    static long lost = 0;
    if (is_planned("KT_FAIL_SEND", message, failed)) {
        errno = ENOBUFS;
        return -1;
    }
    if (is_planned("KT_LOSE_SEND", message, lost)) {
        return static_cast<ssize_t>(message->msg_iov[0].iov_len);
    }
    return next(fd, message, flags);
}

int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    static const auto next = next_function<int (*)(int, const sockaddr *, socklen_t)>("bind");
    static long failed = 0;
    if (is_netlink(address, length) && failed < number("KT_FAIL_BIND")) {
        ++failed;
        errno = ENOMEM;
        return -1;
    }
    return next(fd, address, length);
}

pid_t fork() noexcept {
    static const auto next = next_function<pid_t (*)()>("fork");
    if (number("KT_FAIL_FORK") != 0) {
        errno = EAGAIN;
        return -1;
    }
    return next();
}

pid_t setsid() noexcept {
    static const auto next = next_function<pid_t (*)()>("setsid");
    // The whole time, even if signals arrive.
    timespec left{0, number("KT_SETSID_DELAY") * 1000000};
    while (nanosleep(&left, &left) != 0) {
    }
    return next();
}

int pipe(int ends[2]) noexcept {
    static const auto next = next_function<int (*)(int *)>("pipe");
    if (number("KT_FAIL_PIPE") != 0) {
        errno = EMFILE;
        return -1;
    }
    return next(ends);
}

int clock_gettime(clockid_t clock, timespec *time) noexcept {
    static const auto next = next_function<int (*)(clockid_t, timespec *)>("clock_gettime");
    static const long rate = number("KT_CLOCK_RATE");
    const int result = next(clock, time);
    if (rate > 0 && clock == CLOCK_MONOTONIC && result == 0) {
        const long long nanoseconds = (time->tv_sec * 1000000000LL + time->tv_nsec) * rate;
        time->tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
        time->tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    }
    return result;
}

void syslog(int priority, const char *format, ...) {
    static const auto next = next_function<void (*)(int, const char *, va_list)>("vsyslog");
    static const long delay = number("KT_SYSLOG_DELAY");
    if (delay > 0) {
        usleep(static_cast<useconds_t>(delay));
    }
    va_list arguments;
    va_start(arguments, format);
    next(priority, format, arguments);
    va_end(arguments);
}

int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *limit) {
    static const auto next =
        next_function<int (*)(int, fd_set *, fd_set *, fd_set *, timeval *)>("select");
    static const long delay = number("KT_SELECT_DELAY");
    if (delay > 0) {
        usleep(static_cast<useconds_t>(delay * 1000));
    }
    static const long pause = number("KT_PAUSE_MS");
    if (pause > 0 && limit != nullptr && limit->tv_sec == 10 && limit->tv_usec == 0) {
        timeval shorter{pause / 1000, pause % 1000 * 1000};
        return next(count, readable, writable, exceptional, &shorter);
    }
    return next(count, readable, writable, exceptional, limit);
}
}
