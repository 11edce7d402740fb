// A datagram at the end of its block of memory, so that the address sanitizer reports every byte
// that is read after it.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "fakes/fake_libnl.h"

class exact_buffer {
public:
    // `odd`: the datagram starts at an odd address.
    explicit exact_buffer(const fake_libnl::bytes_t &datagram, bool odd = false)
        : block(static_cast<unsigned char *>(std::malloc(datagram.size() + (odd ? 1 : 0)))),
          start(block + (odd ? 1 : 0)), size(static_cast<int>(datagram.size())) {
        if (!datagram.empty()) {
            std::memcpy(start, datagram.data(), datagram.size());
        }
    }
    ~exact_buffer() { std::free(block); }
    exact_buffer(const exact_buffer &) = delete;
    exact_buffer &operator=(const exact_buffer &) = delete;

    const unsigned char *bytes() const { return start; }
    int length() const { return size; }

private:
    unsigned char *block;
    unsigned char *start;
    int size;
};
