// A record of concurrent reads and writes of one register, and whether there is an order in which
// they could have happened one after the other: each at some moment between its begin and its end,
// each read with the state that the last write before it left.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tavtest {

class History {
public:
    using Time = std::int64_t;

    // The register has one writer, which writes one value after the other. Value 0, absence, is
    // there from the beginning.
    struct Write {
        Time begin = 0;
        Time end = 0;
        std::uint64_t value = 0; // 0: removed; no other value is written twice
    };
    // `any`: the read has seen only that there is a value.
    struct Read {
        Time begin = 0;
        Time end = 0;
        std::uint64_t value = 0;
        bool any = false;
    };
    std::vector<Write> writes; // in the writer's order
    std::vector<Read> reads;

    // Empty if there is such an order; otherwise what is wrong with one of the reads.
    std::string fault() const;

private:
    bool shows(const Read &read, std::size_t moment) const;
};

} // namespace tavtest
