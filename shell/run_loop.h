// Connects to the store and the kernel, runs the engine over both, and rebuilds everything ten
// seconds after any failure.
#pragma once

// Returns 0 once a termination signal has been honoured. Exceptions that do not derive from
// std::exception, and those of connecting to and registering with the store, leave it after both
// connections have been released.
int run_daemon();
