#include "support/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

namespace tavtest {

Terminal::Terminal(const std::vector<std::string> &arguments) {
    std::vector<char *> words;
    for (const std::string &word : arguments) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    const winsize size{50, 1000, 0, 0};
    child = ::forkpty(&master, nullptr, nullptr, &size);
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    if (child < 0) {
        throw std::runtime_error("forkpty");
    }
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
}

Terminal::~Terminal() {
    if (child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    ::close(master);
}

void Terminal::type(const std::string &keys) const {
    if (::write(master, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        throw std::runtime_error("write to the terminal");
    }
}

// False at the end, or after the time.
bool Terminal::read_more(int timeout_ms) {
    pollfd entry{master, POLLIN, 0};
    std::array<char, 4096> part{};
    if (::poll(&entry, 1, timeout_ms) != 1) {
        return false;
    }
    const ssize_t got = ::read(master, part.data(), part.size());
    if (got <= 0) {
        return false;
    }
    all.append(part.data(), static_cast<std::size_t>(got));
    return true;
}

bool Terminal::wait_for(const std::string &text) {
    std::size_t found = 0;
    while ((found = all.find(text, seen)) == std::string::npos) {
        if (!read_more(patience_ms)) {
            return false;
        }
    }
    seen = found + text.size();
    return true;
}

std::string Terminal::finish() {
    while (read_more(patience_ms)) {
    }
    ::waitpid(child, nullptr, 0);
    child = -1;
    return all;
}

} // namespace tavtest
