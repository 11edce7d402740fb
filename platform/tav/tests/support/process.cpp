#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tavtest {

TempDir::TempDir() {
    // Short, because the path of a socket is limited.
    std::string name = (std::filesystem::temp_directory_path() / "tavtest.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path = name;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string read_file(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool exists(const std::string &path) {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

std::vector<std::string> preloading(const std::string &library, std::vector<std::string> more) {
    const std::filesystem::path path = library;
    more.push_back("LD_PRELOAD=" + path.filename().string());
    more.push_back("LD_LIBRARY_PATH=" + path.parent_path().string());
    more.emplace_back("ASAN_OPTIONS=verify_asan_link_order=0"); // the sanitizer's comes later
    return more;
}

namespace {

void redirect(const std::string &file, int flags, int to) {
    const int fd = ::open(file.c_str(), flags, 0600);
    if (fd < 0 || ::dup2(fd, to) < 0) {
        ::_exit(126);
    }
    ::close(fd);
}

} // namespace

Process::Process(const TempDir &dir, const std::string &name,
                 const std::vector<std::string> &arguments, const std::string &input)
    : output_file(dir.file(name + ".out")), errors_file(dir.file(name + ".err")) {
    const std::string input_file = dir.file(name + ".in");
    std::ofstream(input_file, std::ios::binary) << input;
    std::ofstream(output_file) << "";
    std::ofstream(errors_file) << "";
    std::vector<char *> words;
    for (const std::string &word : arguments) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        redirect(input_file, O_RDONLY, STDIN_FILENO);
        redirect(output_file, O_WRONLY | O_TRUNC, STDOUT_FILENO);
        redirect(errors_file, O_WRONLY | O_TRUNC | O_APPEND, STDERR_FILENO);
        char **program = words.data();
        for (; *program != nullptr && **program != '/'; ++program) {
            ::putenv(*program);
        }
        ::execv(*program, program);
        ::_exit(127);
    }
    if (child < 0) {
        throw std::runtime_error("fork");
    }
}

Process::~Process() {
    if (running()) {
        ::kill(child, SIGKILL);
        wait();
    }
}

void Process::signal(int number) const {
    ::kill(child, number);
}

bool Process::running() {
    if (!ended && ::waitpid(child, &status, WNOHANG) == child) {
        ended = true;
    }
    return !ended;
}

int Process::wait() {
    if (!ended) {
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        ended = true;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

bool Process::wait_for_error_text(const std::string &text) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience_ms);
    for (;;) {
        const bool alive = running();
        if (errors().find(text) != std::string::npos) {
            return true;
        }
        if (!alive || std::chrono::steady_clock::now() > end) {
            return false;
        }
        ::poll(nullptr, 0, 2);
    }
}

Ran run(const TempDir &dir, const std::vector<std::string> &arguments, const std::string &input) {
    static int number = 0;
    Process process(dir, "run" + std::to_string(++number), arguments, input);
    Ran result;
    result.status = process.wait();
    result.output = process.output();
    result.errors = process.errors();
    return result;
}

} // namespace tavtest
