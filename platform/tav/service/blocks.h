// Memory for the many objects that live long: blocks of equal size, in slabs of their own. Among
// the short-lived objects of transactions and answers they would be scattered over far more pages
// than they need, and no page with one of them can be given back. For one thread only.
#pragma once

#include <cstddef>

namespace tav {

class Blocks {
public:
    // The size of each block: at least that of a pointer, and far less than the 16 KiB of a slab.
    constexpr explicit Blocks(std::size_t block_bytes) : size(block_bytes) {}

    // May throw std::bad_alloc.
    void *take();
    // A slab without used blocks is given back.
    void give(void *memory) noexcept;

private:
    struct Slab;

    void link(Slab &slab) noexcept;
    void unlink(Slab &slab) noexcept;
    void add_slab();

    std::size_t size;
    Slab *first = nullptr; // with free blocks; the one that had none most recently
};

// For std::allocate_shared, and for containers that allocate their elements one by one.
template <typename T>
struct BlockAllocator {
    using value_type = T;

    BlockAllocator() = default;
    template <typename Other>
    // Implicit, as containers require it of every allocator.
    BlockAllocator(const BlockAllocator<Other> & /*other*/) noexcept {}

    T *allocate(std::size_t /*one*/) { return static_cast<T *>(blocks.take()); }
    void deallocate(T *memory, std::size_t /*one*/) noexcept { blocks.give(memory); }
    template <typename Other>
    bool operator==(const BlockAllocator<Other> & /*other*/) const {
        return true;
    }
    template <typename Other>
    bool operator!=(const BlockAllocator<Other> & /*other*/) const {
        return false;
    }

private:
    static inline Blocks blocks{sizeof(T)};
};

} // namespace tav
