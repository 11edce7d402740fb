// The first process of the emulated board: sets the system up, runs what /board/plan lists one by
// one, reports each result on the console, and switches the board off. README.md describes the
// lines.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char plan_path[] = "/board/plan";
constexpr char output_path[] = "/tmp/output";
constexpr int limit_seconds = 300;

// The console is the only output, so all failures are reported there.
void complain(const std::string &what) {
    std::printf("board: error %s: %s\n", what.c_str(), std::strerror(errno));
}

void mount_at(const char *type, const char *where) {
    mkdir(where, 0755);
    if (mount(type, where, type, 0, nullptr) != 0 && errno != EBUSY) {
        complain(std::string("mount ") + where);
    }
}

void set_up() {
    mount_at("proc", "/proc");
    mount_at("sysfs", "/sys");
    mount_at("devtmpfs", "/dev");
    mount_at("devpts", "/dev/pts");
    // The root is in memory and may be written to.
    mkdir("/tmp", 01777);
    chmod("/tmp", 01777);
    // Only the kernel's messages about a crash may appear between the lines.
    constexpr int set_console_level = 8;
    klogctl(set_console_level, nullptr, 1);
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("HOME", "/", 1);
}

// The board has no clock and starts in 1970; use the time of its image.
void set_clock() {
    std::ifstream file("/board/time");
    timespec now{};
    if (!(file >> now.tv_sec) || clock_settime(CLOCK_REALTIME, &now) != 0) {
        complain("the clock");
    }
}

// Modules in the order of their dependencies, one path per line.
void load_modules() {
    std::ifstream list("/board/module-list");
    for (std::string path; std::getline(list, path);) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || (syscall(SYS_finit_module, fd, "", 0) != 0 && errno != EEXIST)) {
            complain(path);
        }
        close(fd);
    }
}

void describe() {
    utsname system{};
    uname(&system);
    const int one = 1;
    char first = 0;
    std::memcpy(&first, &one, 1);
    std::printf("board: kernel %s %s, %s-endian, %zu-bit pointers, %zu-bit time\n",
                static_cast<const char *>(system.release),
                static_cast<const char *>(system.machine), first == 1 ? "little" : "big",
                sizeof(void *) * 8, sizeof(std::time_t) * 8);
}

[[noreturn]] void become(std::vector<std::string> &words) {
    std::vector<char *> arguments;
    for (auto &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const int null = open("/dev/null", O_RDONLY);
    const int output =
        open(static_cast<const char *>(output_path), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(null, 0);
    dup2(output, 1);
    dup2(output, 2);
    setsid();
    const std::string program = words[0];
    if (chdir(program.substr(0, program.rfind('/')).c_str()) == 0) {
        execv(arguments[0], arguments.data());
    }
    std::perror(arguments[0]);
    _exit(127);
}

// Waits for the child and for all processes that it leaves; returns the child's status, or -1 after
// the limit.
int wait_for(pid_t child) {
    timespec limit{};
    clock_gettime(CLOCK_MONOTONIC, &limit);
    limit.tv_sec += limit_seconds;
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended == child) {
            return status;
        }
        if (ended == 0) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            if (now.tv_sec >= limit.tv_sec) {
                kill(-child, SIGKILL);
                kill(child, SIGKILL);
                waitpid(child, nullptr, 0);
                return -1;
            }
            usleep(1000);
        }
    }
}

std::string output() {
    const std::ifstream file(static_cast<const char *>(output_path));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Indented, so that no line of it is mistaken for one of ours.
void show(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::printf("    %s\n", line.c_str());
    }
}

// The test's reason for skipping: the line after the place in the source.
std::string reason_for_skipping(const std::string &text) {
    const auto place = text.find(": Skipped\n");
    if (place == std::string::npos) {
        return "no reason given";
    }
    const auto start = place + std::strlen(": Skipped\n");
    return text.substr(start, text.find('\n', start) - start);
}

// One line: "test" or "show", name, program, arguments, with tabs between.
void run(const std::string &line) {
    std::istringstream fields(line);
    std::string kind;
    std::string name;
    std::getline(fields, kind, '\t');
    std::getline(fields, name, '\t');
    std::vector<std::string> words;
    for (std::string word; std::getline(fields, word, '\t');) {
        words.push_back(word);
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        become(words);
    }
    const int status = child > 0 ? wait_for(child) : -1;
    const std::string text = output();
    if (status == -1) {
        show(text);
        std::printf("board: FAIL %s: not done after %d s\n", name.c_str(), limit_seconds);
    } else if (status != 0) {
        show(text);
        std::printf("board: FAIL %s: %s %d\n", name.c_str(),
                    WIFSIGNALED(status) ? "signal" : "status",
                    WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    } else if (text.find("[  SKIPPED ]") != std::string::npos) {
        std::printf("board: skip %s: %s\n", name.c_str(), reason_for_skipping(text).c_str());
    } else if (kind == "show") {
        std::printf("%sboard: shown %s\n", text.c_str(), name.c_str());
    } else if (text.find("[  PASSED  ] 1 test.") == std::string::npos) {
        show(text);
        std::printf("board: FAIL %s: it did not run\n", name.c_str());
    } else {
        std::printf("board: pass %s\n", name.c_str());
    }
}

} // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    set_up();
    set_clock();
    load_modules();
    describe();
    std::vector<std::string> plan;
    std::ifstream list(static_cast<const char *>(plan_path));
    for (std::string line; std::getline(list, line);) {
        plan.push_back(line);
    }
    std::printf("board: plan %zu\n", plan.size());
    for (const auto &line : plan) {
        run(line);
    }
    std::printf("board: end\n");
    std::fflush(stdout);
    fsync(1);
    sync();
    reboot(RB_POWER_OFF);
    complain("power off");
    pause();
}
