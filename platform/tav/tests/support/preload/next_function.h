// For libraries that are preloaded into a program under test.
#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// The function of this name that would be called without the preloaded one. `Function` is its
// pointer type. Ends the program when there is none.
template <typename Function>
Function next_function(const char *name) {
    void *const found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::fprintf(stderr, "preload: no %s\n", name);
        std::abort();
    }
    Function function = nullptr;
    std::memcpy(&function, &found, sizeof function);
    return function;
}
