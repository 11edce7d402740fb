// tandrelctl on a terminal. To be made before the sandbox, whose /dev has none.
#pragma once

#include <string>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <gtest/gtest.h>

#include "harness/process.h"

class Terminal {
public:
    Terminal(unsigned short rows, unsigned short columns) {
        winsize size{};
        size.ws_row = rows;
        size.ws_col = columns;
        if (openpty(&fd, &inside, nullptr, nullptr, &size) != 0) {
            kt::fail("openpty");
        }
    }
    ~Terminal() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(fd);
        close(inside);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    // One command at a time.
    void start(const std::string &socket, std::vector<std::string> arguments) {
        seen.clear();
        from = 0;
        arguments.insert(arguments.begin(), "tandrelctl");
        std::vector<char *> words;
        for (std::string &argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            login_tty(inside);
            setenv("TAV_SOCKET", socket.c_str(), 1);
            setenv("TAV_TIMEOUT_MS", "60000", 1);
            setenv("TERM", "xterm", 1);
            setenv("LC_ALL", "C.UTF-8", 1);
            unsetenv("NO_COLOR");
            execv(TANDRELCTL, words.data());
            _exit(127);
        }
    }

    // Reads until the text has come. The next call looks only at what follows it.
    bool shows(const std::string &text) {
        return kt::eventually([&] {
            read_more();
            const std::size_t at = seen.find(text, from);
            from = at != std::string::npos ? at + text.size() : from;
            return at != std::string::npos;
        });
    }
    // Waits for the end; the exit status, or -1.
    int finish() {
        int status = 0;
        const bool ended = kt::eventually([&] {
            read_more();
            return waitpid(pid, &status, WNOHANG) == pid;
        });
        read_more();
        if (!ended) {
            return -1;
        }
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void press(const std::string &keys) {
        EXPECT_EQ(write(fd, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void resize(unsigned short rows, unsigned short columns) {
        winsize size{};
        size.ws_row = rows;
        size.ws_col = columns;
        EXPECT_EQ(ioctl(fd, TIOCSWINSZ, &size), 0);
    }
    // Control-C, as the terminal sends it; the exit status.
    int interrupt() {
        EXPECT_EQ(write(fd, "\x03", 1), 1);
        return finish();
    }
    std::string seen; // of the latest command

private:
    void read_more() {
        pollfd entry{fd, POLLIN, 0};
        char buffer[4096];
        while (poll(&entry, 1, 0) > 0) {
            const ssize_t count = read(fd, buffer, sizeof buffer);
            if (count <= 0) {
                return;
            }
            seen.append(buffer, static_cast<std::size_t>(count));
        }
    }
    int fd = -1;
    int inside = -1;
    pid_t pid = -1;
    std::size_t from = 0;
};
