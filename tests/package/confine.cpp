// Runs a program under the restrictions of a systemd unit, in its own process: like the unit, but
// without a service manager, so that a test can start, signal and examine it like any other
// process.
//
//   confine UNIT PROGRAM ARGUMENT...
//
// In force: CapabilityBoundingSet, AmbientCapabilities, NoNewPrivileges, SystemCallFilter,
// RestrictAddressFamilies, RestrictNamespaces, RestrictRealtime, MemoryDenyWriteExecute, and
// ProtectSystem=strict, for which everything but the directories of --database and --socket becomes
// read-only. The user is not changed: only the capabilities matter.
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/mount.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;
using Unit = std::map<std::string, std::vector<Words>>; // a key's assignments, in order

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void require(bool right, const std::string &what) {
    if (!right) {
        fail(what);
    }
}

Unit read_unit(const std::string &path) {
    std::ifstream file(path);
    require(file.good(), path);
    Unit unit;
    for (std::string line; std::getline(file, line);) {
        const std::size_t equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string::npos) {
            continue;
        }
        std::istringstream rest(line.substr(equals + 1));
        Words words;
        for (std::string word; rest >> word;) {
            words.push_back(word);
        }
        unit[line.substr(0, equals)].push_back(words);
    }
    return unit;
}

bool says_yes(const Unit &unit, const std::string &key) {
    const auto found = unit.find(key);
    return found != unit.end() && found->second.back() == Words{"yes"};
}

Words words_of(const Unit &unit, const std::string &key) {
    const auto found = unit.find(key);
    return found != unit.end() ? found->second.back() : Words();
}

// The calls of a set such as "@system-service", which may refer to other sets.
void add_set(const std::string &name, std::set<std::string> &calls) {
    const std::string command = "systemd-analyze syscall-filter " + name;
    const std::unique_ptr<FILE, int (*)(FILE *)> output(popen(command.c_str(), "r"), pclose);
    require(output != nullptr, command);
    std::array<char, 256> line{};
    while (std::fgets(line.data(), line.size(), output.get()) != nullptr) {
        std::istringstream words(line.data());
        std::string word;
        if (line[0] != ' ' || !(words >> word) || word.front() == '#') {
            continue; // the set's own name, its description
        }
        if (word.front() == '@') {
            add_set(word, calls);
        } else {
            calls.insert(word);
        }
    }
    if (calls.empty()) {
        throw std::runtime_error("no system call in " + name);
    }
}

std::set<std::string> allowed_calls(const Unit &unit) {
    std::set<std::string> allowed;
    add_set("@default", allowed);
    for (const Words &line : unit.at("SystemCallFilter")) {
        const bool refuse = line.front().front() == '~';
        for (std::string word : line) {
            word.erase(0, word.front() == '~' ? 1 : 0);
            std::set<std::string> calls;
            if (word.front() == '@') {
                add_set(word, calls);
            } else {
                calls.insert(word);
            }
            for (const std::string &call : calls) {
                refuse ? static_cast<void>(allowed.erase(call))
                       : static_cast<void>(allowed.insert(call));
            }
        }
    }
    return allowed;
}

using Filter = std::unique_ptr<void, void (*)(scmp_filter_ctx)>;

void refuse(const Filter &filter, const char *call, const std::vector<scmp_arg_cmp> &arguments) {
    const int number = seccomp_syscall_resolve_name(call);
    errno = -seccomp_rule_add_array(filter.get(), SCMP_ACT_ERRNO(EPERM), number,
                                    static_cast<unsigned int>(arguments.size()), arguments.data());
    require(errno == 0, std::string("refusing ") + call);
}

// Loads one filter that refuses some calls and allows all others.
void load_refusals(const std::function<void(const Filter &)> &fill) {
    const Filter filter(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    fill(filter);
    errno = -seccomp_load(filter.get());
    require(errno == 0, "seccomp_load");
}

void restrict_arguments(const Unit &unit) {
    load_refusals([&](const Filter &filter) {
        if (says_yes(unit, "MemoryDenyWriteExecute")) {
            const scmp_datum_t both = PROT_WRITE | PROT_EXEC;
            refuse(filter, "mmap", {SCMP_A2(SCMP_CMP_MASKED_EQ, both, both)});
            refuse(filter, "mprotect", {SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, PROT_EXEC)});
        }
        if (says_yes(unit, "RestrictRealtime")) {
            refuse(filter, "sched_setscheduler", {SCMP_A1(SCMP_CMP_EQ, SCHED_FIFO)});
            refuse(filter, "sched_setscheduler", {SCMP_A1(SCMP_CMP_EQ, SCHED_RR)});
        }
        if (says_yes(unit, "RestrictNamespaces")) {
            refuse(filter, "unshare", {});
            refuse(filter, "setns", {});
        }
    });
}

void restrict_families(const Unit &unit) {
    const std::map<std::string, int> known{{"AF_UNIX", AF_UNIX}, {"AF_NETLINK", AF_NETLINK}};
    std::set<int> allowed;
    for (const std::string &name : words_of(unit, "RestrictAddressFamilies")) {
        allowed.insert(known.at(name));
    }
    load_refusals([&](const Filter &filter) {
        for (int family = 0; family < AF_MAX; ++family) {
            if (allowed.count(family) == 0) {
                refuse(filter, "socket", {SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(family))});
            }
        }
    });
}

void restrict_calls(const Unit &unit) {
    const Filter filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)), seccomp_release);
    for (const std::string &call : allowed_calls(unit)) {
        const int number = seccomp_syscall_resolve_name(call.c_str());
        if (number != __NR_SCMP_ERROR) { // a call of another architecture
            seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, number, 0);
        }
    }
    errno = -seccomp_load(filter.get());
    require(errno == 0, "seccomp_load");
}

void restrict_capabilities(const Unit &unit) {
    const std::map<std::string, unsigned int> known{{"CAP_NET_ADMIN", CAP_NET_ADMIN},
                                                    {"CAP_SYS_NICE", CAP_SYS_NICE}};
    std::uint32_t kept = 0;
    for (const std::string &name : words_of(unit, "CapabilityBoundingSet")) {
        kept |= 1U << known.at(name);
    }
    for (unsigned int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        if (capability >= 32 || (kept >> capability & 1U) == 0) {
            prctl(PR_CAPBSET_DROP, capability, 0, 0, 0); // EINVAL: the kernel does not know it
        }
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> sets{};
    sets[0] = {kept, kept, kept};
    require(syscall(SYS_capset, &header, sets.data()) == 0, "capset");
    for (const std::string &name : words_of(unit, "AmbientCapabilities")) {
        require(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, known.at(name), 0, 0) == 0, "ambient");
    }
}

void protect_files(int count, char **arguments) {
    require(unshare(CLONE_NEWNS) == 0, "unshare");
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    Words writable;
    for (int i = 0; i + 1 < count; ++i) {
        const std::string option = arguments[i];
        if (option == "--database" || option == "--socket") {
            const std::string file = arguments[i + 1];
            writable.push_back(file.substr(0, file.rfind('/')));
        }
    }
    for (const std::string &directory : writable) {
        require(mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0,
                directory);
    }
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    require(mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attributes, sizeof attributes) == 0,
            "read-only");
    attributes = {};
    attributes.attr_clr = MOUNT_ATTR_RDONLY;
    for (const std::string &directory : writable) {
        require(mount_setattr(AT_FDCWD, directory.c_str(), 0, &attributes, sizeof attributes) == 0,
                directory);
    }
}

} // namespace

int main(int count, char **arguments) {
    try {
        if (count < 3) {
            throw std::runtime_error("confine UNIT PROGRAM ARGUMENT...");
        }
        const Unit unit = read_unit(arguments[1]);
        if (words_of(unit, "ProtectSystem") == Words{"strict"}) {
            protect_files(count - 2, arguments + 2);
        }
        require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "no new privileges");
        restrict_capabilities(unit);
        restrict_arguments(unit);
        restrict_families(unit);
        restrict_calls(unit);
        execv(arguments[2], arguments + 2);
        fail(arguments[2]);
    } catch (const std::exception &error) {
        std::cerr << "confine: " << error.what() << "\n";
    }
    return 126;
}
