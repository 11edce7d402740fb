// Memory that runs out: operator new of the unit tests fails where a test requests it.
#pragma once

#include <cstddef>

namespace fake_memory {

// Only the n-th allocation from now on fails with std::bad_alloc (1 is the next).
void fail(std::size_t n);
// No allocation fails any more. Returns whether one has.
bool stop();

inline unsigned spares = 0; // number of existing `spare` objects

// While such an object exists, allocations succeed and are not counted: for those of the fakes and
// of the test.
class spare {
public:
    spare() { ++spares; }
    ~spare() { --spares; }
    spare(const spare &) = delete;
    spare &operator=(const spare &) = delete;
};

} // namespace fake_memory
