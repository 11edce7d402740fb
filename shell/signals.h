// Termination signals end the daemon from ordinary code; faults end it with a logged backtrace.
#pragma once

#include <csignal>

// Set to 1 by a termination signal and never cleared.
extern volatile std::sig_atomic_t exit_requested;

// A termination signal writes one byte to [1]. The byte is never read, so that from then on every
// wait on [0] returns at once. Both are 0 if no pipe could be created.
extern int exit_pipe[2];

// The descriptor to wait on: the pipe's [0], or -1 without a pipe. (Descriptor 0 is then some other
// file, which may be readable all the time.)
int exit_descriptor();

// Creates the exit pipe and installs signal_handler for the handled signals.
void register_handlers();

// Replaces the pipe that a detached process inherited. A signal to the invoking process or to the
// intermediate child may have left a byte in the inherited pipe, which would then stay readable for
// ever. A signal to this process before the call is not lost: it has set exit_requested, which is
// never cleared.
void renew_exit_pipe();

// Restores the default dispositions and closes the pipe.
void unregister_handlers();

void signal_handler(int signal);

// Writes the call stack to standard error and the system log, then aborts.
[[noreturn]] void print_backtrace();
