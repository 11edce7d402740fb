// A real pipe as exit pipe, in its state after a termination signal: with one byte inside.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "shell/signals.h"

class exit_pipe_with_a_byte {
public:
    exit_pipe_with_a_byte() {
        // A read of more bytes than there are must not block.
        EXPECT_EQ(pipe2(exit_pipe, O_CLOEXEC | O_NONBLOCK), 0);
        own[0] = exit_pipe[0];
        own[1] = exit_pipe[1];
        EXPECT_EQ(write(own[1], "", 1), 1);
        EXPECT_EQ(bytes_left(), 1);
    }
    ~exit_pipe_with_a_byte() {
        close(own[0]);
        close(own[1]);
    }
    exit_pipe_with_a_byte(const exit_pipe_with_a_byte &) = delete;
    exit_pipe_with_a_byte &operator=(const exit_pipe_with_a_byte &) = delete;

    int read_end() const { return own[0]; }
    int bytes_left() const {
        int count = -1;
        EXPECT_EQ(ioctl(own[0], FIONREAD, &count), 0);
        return count;
    }

private:
    int own[2] = {-1, -1};
};
