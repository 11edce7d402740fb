#include "fakes/fake_memory.h"

#include <cstdlib>
#include <new>

#include "fakes/log_capture.h"

namespace fake_memory {
namespace {

// Plain data: memory is also allocated before and after the lifetime of this file's objects.
bool armed = false;
bool struck = false;
std::size_t left = 0;

bool strikes() {
    if (!armed || spares > 0 || --left > 0) {
        return false;
    }
    armed = false;
    struck = true;
    return true;
}

void reset() {
    stop();
}
const fakes::reset_hook hook(&reset);

} // namespace

void fail(std::size_t n) {
    armed = true;
    struck = false;
    left = n;
}

bool stop() {
    armed = false;
    return struck;
}

} // namespace fake_memory

void *operator new(std::size_t size) {
    if (!fake_memory::strikes()) {
        if (void *memory = std::malloc(size > 0 ? size : 1)) {
            return memory;
        }
    }
    throw std::bad_alloc();
}

// Temporary buffers of algorithms come from here; without one they do without.
void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return std::malloc(size > 0 ? size : 1);
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
