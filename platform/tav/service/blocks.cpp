#include "service/blocks.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(memory, size) static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(memory, size) static_cast<void>(0)
#endif

#include <cstdint>
#include <cstdlib>
#include <new>

namespace tav {

namespace {

// Each slab begins at a multiple of this. With the header of the C library they follow each other
// without gaps.
constexpr std::size_t alignment = std::size_t{16} << 10;
constexpr std::size_t slab_bytes = alignment - 2 * sizeof(void *);

struct Free {
    Free *next;
};

} // namespace

struct alignas(std::max_align_t) Blocks::Slab {
    Slab *next;
    Slab *previous;
    Free *free;
    std::size_t used;
};

void Blocks::link(Slab &slab) noexcept {
    slab.previous = nullptr;
    slab.next = first;
    if (first != nullptr) {
        first->previous = &slab;
    }
    first = &slab;
}

void Blocks::unlink(Slab &slab) noexcept {
    (slab.previous != nullptr ? slab.previous->next : first) = slab.next;
    if (slab.next != nullptr) {
        slab.next->previous = slab.previous;
    }
}

void Blocks::add_slab() {
    void *memory = nullptr;
    if (::posix_memalign(&memory, alignment, slab_bytes) != 0) {
        throw std::bad_alloc();
    }
    Slab &slab = *new (memory) Slab{nullptr, nullptr, nullptr, 0};
    char *const begin = static_cast<char *>(memory) + sizeof(Slab);
    std::size_t left = (slab_bytes - sizeof(Slab)) / size;
    do {
        --left;
        slab.free = new (begin + left * size) Free{slab.free};
    } while (left > 0);
    link(slab);
}

void *Blocks::take() {
    if (first == nullptr) {
        add_slab();
    }
    Slab &slab = *first;
    Free *const block = slab.free;
    ASAN_UNPOISON_MEMORY_REGION(block, size);
    slab.free = block->next;
    ++slab.used;
    if (slab.free == nullptr) {
        unlink(slab);
    }
    return block;
}

void Blocks::give(void *memory) noexcept {
    void *const begin =
        static_cast<char *>(memory) - reinterpret_cast<std::uintptr_t>(memory) % alignment;
    Slab &slab = *static_cast<Slab *>(begin);
    if (slab.free == nullptr) {
        link(slab);
    }
    slab.free = new (memory) Free{slab.free};
    ASAN_POISON_MEMORY_REGION(memory, size);
    if (--slab.used == 0) {
        unlink(slab);
        std::free(&slab);
    }
}

} // namespace tav
