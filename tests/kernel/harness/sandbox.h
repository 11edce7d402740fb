// A private environment for one test: network namespaces (the device's, which the test itself
// enters, and a neighbour's), a /dev with a log socket that the test reads, and a directory for
// sockets and databases. Needs root or permission to create user namespaces.
//
// Every process in one of the two network namespaces belongs to the test. All of them are ended,
// and the directory is removed, when the sandbox is destroyed, and also when the test process dies
// before that.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "harness/lines.h"

namespace kt {

// Throws std::runtime_error naming the call and its errno.
[[noreturn]] void fail(const std::string &what);

struct process_info_t {
    pid_t pid;
    pid_t parent;
    std::string name; // first 15 characters of the program's file name
};

class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Descriptors of the two network namespaces, owned by the sandbox.
    int device() const { return device_ns; }
    int neighbour() const { return neighbour_ns; }

    // Without a trailing "/".
    const std::string &directory() const { return dir; }
    Collector &collector() { return *lines; }
    // The messages received on /dev/log.
    LineLog &syslog() { return *log; }

    // All processes of the two namespaces except the test itself.
    std::vector<process_info_t> processes() const;

    // Whether the test has the privileges of the machine's root, not only of a user namespace.
    static bool is_real_root();

private:
    void create_namespaces();
    void make_private_dev();
    void start_guard();
    void end_processes() const;

    int device_ns = -1;
    int neighbour_ns = -1;
    std::string dir;
    int guard_pipe = -1;
    pid_t guard = -1;
    std::unique_ptr<Collector> lines;
    std::shared_ptr<LineLog> log;
};

// Writes a file under /proc/sys, in the calling process's network namespace.
void write_file(const std::string &path, const std::string &text);
// The file's content; empty when it cannot be read.
std::string read_file(const std::string &path);

// During its lifetime the calling thread is in another network namespace.
class NamespaceVisit {
public:
    explicit NamespaceVisit(int namespace_fd);
    ~NamespaceVisit();
    NamespaceVisit(const NamespaceVisit &) = delete;
    NamespaceVisit &operator=(const NamespaceVisit &) = delete;

private:
    int home;
};

} // namespace kt
