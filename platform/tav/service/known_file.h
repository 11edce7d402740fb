// A file that must stay in its place, and whole, while the service uses it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace tav {

class KnownFile {
public:
    // The file that has this name now.
    explicit KnownFile(std::string name);

    // What happened to it since then or the last call, for a sentence about it; null if nothing
    // did. It may have grown, and been moved away and back again.
    const char *loss();
    // Its present size is right, also if it is smaller than before.
    void accept_size();

    const std::string &name() const { return file_name; }

private:
    std::string file_name;
    dev_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
};

} // namespace tav
