#include "harness/sandbox.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kt {
namespace {

ino_t namespace_id(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

int open_own_namespace() {
    const int fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("open /proc/thread-self/ns/net");
    }
    return fd;
}

// Inside a user namespace of its own the test is root over the namespaces that it then creates.
void enter_user_namespace() {
    const std::string uid_map = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWUSER) != 0) {
        fail("unshare(CLONE_NEWUSER)");
    }
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", uid_map);
    write_file("/proc/self/gid_map", gid_map);
}

bool all_digits(const char *text) {
    return *text != '\0' && std::strspn(text, "0123456789") == std::strlen(text);
}

// The processes that live in one of the network namespaces.
std::vector<process_info_t> processes_in(const std::set<ino_t> &namespaces) {
    std::vector<process_info_t> found;
    DIR *proc = opendir("/proc");
    if (proc == nullptr) {
        return found;
    }
    for (const dirent *entry = readdir(proc); entry != nullptr; entry = readdir(proc)) {
        if (!all_digits(static_cast<const char *>(entry->d_name))) {
            continue;
        }
        const std::string directory =
            std::string("/proc/") + static_cast<const char *>(entry->d_name);
        struct stat status {};
        if (stat((directory + "/ns/net").c_str(), &status) != 0 ||
            namespaces.count(status.st_ino) == 0) {
            continue;
        }
        const std::string text = read_file(directory + "/stat");
        const auto open = text.find('(');
        const auto close = text.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close + 4 > text.size()) {
            continue;
        }
        process_info_t info{};
        info.pid =
            static_cast<pid_t>(std::strtol(static_cast<const char *>(entry->d_name), nullptr, 10));
        info.name = text.substr(open + 1, close - open - 1);
        info.parent = static_cast<pid_t>(std::strtol(text.c_str() + close + 4, nullptr, 10));
        found.push_back(info);
    }
    closedir(proc);
    return found;
}

// Ends every process of the namespaces except `spared`, including those that are forked in the
// meantime.
void kill_processes(const std::set<ino_t> &namespaces, const std::set<pid_t> &spared) {
    for (int round = 0; round < 500; ++round) {
        bool any = false;
        for (const auto &process : processes_in(namespaces)) {
            if (spared.count(process.pid) == 0) {
                any = true;
                kill(process.pid, SIGKILL);
            }
        }
        // As the subreaper the test inherits the daemonised processes.
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        if (!any) {
            return;
        }
        usleep(2000);
    }
}

} // namespace

void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void write_file(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("open " + path);
    }
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = errno;
    close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        errno = error;
        fail("write " + path);
    }
}

std::string read_file(const std::string &path) {
    const std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

NamespaceVisit::NamespaceVisit(int namespace_fd) : home(open_own_namespace()) {
    if (setns(namespace_fd, CLONE_NEWNET) != 0) {
        close(home);
        fail("setns");
    }
}

NamespaceVisit::~NamespaceVisit() {
    if (setns(home, CLONE_NEWNET) != 0) {
        std::perror("setns back");
        std::abort();
    }
    close(home);
}

Sandbox::Sandbox() : log(std::make_shared<LineLog>()) {
    create_namespaces();
    const std::string pattern =
        (std::filesystem::temp_directory_path() / "kernel-test-XXXXXX").string();
    dir = pattern;
    if (mkdtemp(dir.data()) == nullptr) {
        fail("mkdtemp " + pattern);
    }
    if (chmod(dir.c_str(), 0755) != 0) {
        fail("chmod " + dir);
    }
    start_guard(); // before the collector's thread: a fork takes only the calling thread along
    make_private_dev();
}

Sandbox::~Sandbox() {
    end_processes();
    lines.reset();
    close(guard_pipe); // the guard removes the directory and ends
    waitpid(guard, nullptr, 0);
    close(device_ns);
    close(neighbour_ns);
}

void Sandbox::create_namespaces() {
    // Fails with EPERM unless this is root or an earlier test of this process has made a user
    // namespace.
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        if (errno != EPERM) {
            fail("unshare");
        }
        enter_user_namespace();
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
            fail("unshare in a user namespace");
        }
    }
    neighbour_ns = open_own_namespace();
    if (unshare(CLONE_NEWNET) != 0) {
        fail("unshare(CLONE_NEWNET)");
    }
    device_ns = open_own_namespace();
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("making the mounts private");
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        fail("prctl(PR_SET_CHILD_SUBREAPER)");
    }
}

// Replaces /dev by a directory with the usual harmless devices and the test's log socket. Binding
// over /dev/log alone would not do: it may not exist, or be a link into another directory.
void Sandbox::make_private_dev() {
    const std::string dev = dir + "/dev";
    if (mkdir(dev.c_str(), 0755) != 0 ||
        mount("kernel-test", dev.c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        fail("mounting " + dev);
    }
    for (const std::string name : {"null", "zero", "full", "random", "urandom"}) {
        const std::string target = dev + "/" + name;
        const int fd = open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
        close(fd);
        if (mount(("/dev/" + name).c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            fail("binding " + target);
        }
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(static_cast<char *>(address.sun_path), sizeof address.sun_path, "%s/log",
                  dev.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(static_cast<const char *>(address.sun_path), 0666) != 0) {
        fail("log socket");
    }
    if (mount(dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) != 0) {
        fail("mounting over /dev");
    }
    lines = std::make_unique<Collector>();
    lines->watch_log_socket(fd, log);
}

// A process that outlives the test: when the test has ended for any reason, it ends the remaining
// processes in the namespaces and removes the directory.
void Sandbox::start_guard() {
    int ends[2];
    if (pipe2(static_cast<int *>(ends), O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    guard_pipe = ends[1];
    guard = fork();
    if (guard < 0) {
        fail("fork");
    }
    if (guard > 0) {
        close(ends[0]);
        return;
    }
    close(ends[1]);
    setsid(); // the test handles an interrupt from the terminal
    const pid_t test = getppid();
    char byte = 0;
    while (read(ends[0], &byte, 1) < 0 && errno == EINTR) {
    }
    kill_processes({namespace_id(device_ns), namespace_id(neighbour_ns)}, {getpid(), test});
    std::error_code ignored; // nothing is left to report it to
    std::filesystem::remove_all(dir, ignored);
    _exit(0);
}

std::vector<process_info_t> Sandbox::processes() const {
    auto found = processes_in({namespace_id(device_ns), namespace_id(neighbour_ns)});
    const auto own = [this](const process_info_t &process) {
        return process.pid == getpid() || process.pid == guard;
    };
    found.erase(std::remove_if(found.begin(), found.end(), own), found.end());
    return found;
}

void Sandbox::end_processes() const {
    kill_processes({namespace_id(device_ns), namespace_id(neighbour_ns)}, {getpid(), guard});
}

bool Sandbox::is_real_root() {
    // A user namespace of our own maps one user; the first one maps them all.
    std::istringstream map(read_file("/proc/self/uid_map"));
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    return geteuid() == 0 && inside == 0 && outside == 0 && count > 65535;
}

} // namespace kt
