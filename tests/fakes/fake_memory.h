// Memory that runs out: operator new of the unit tests fails where a test says so.
#pragma once

#include <cstddef>

namespace fake_memory {

// The n-th allocation from now on fails with std::bad_alloc (1 is the next), and it alone.
void fail(std::size_t n);
// No allocation fails any more. Returns whether one has.
bool stop();

inline unsigned spares = 0; // how many `spare` live

// While one lives, allocations succeed and are not counted: those of the fakes and of the test.
class spare {
public:
    spare() { ++spares; }
    ~spare() { --spares; }
    spare(const spare &) = delete;
    spare &operator=(const spare &) = delete;
};

} // namespace fake_memory
