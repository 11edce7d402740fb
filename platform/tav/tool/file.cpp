#include "tool/file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tool/screen.h"

namespace tav::tool {

namespace {

struct Closer {
    void operator()(std::FILE *file) const {
        if (file != stdin) {
            std::fclose(file);
        }
    }
};

} // namespace

std::string file_name(const std::string &file) {
    return file == "-" ? "standard input" : shown(file);
}

std::optional<std::string> read_file(const std::string &file) {
    const std::unique_ptr<std::FILE, Closer> stream(file == "-" ? stdin
                                                                : std::fopen(file.c_str(), "rbe"));
    std::string all;
    if (stream != nullptr) {
        std::array<char, 65536> part{};
        std::size_t got = 0;
        while ((got = std::fread(part.data(), 1, part.size(), stream.get())) > 0) {
            all.append(part.data(), got);
        }
    }
    if (stream == nullptr || std::ferror(stream.get()) != 0) {
        const int reason = errno; // showing the name may change errno
        complain(file_name(file) + ": " + std::strerror(reason));
        return std::nullopt;
    }
    return all;
}

} // namespace tav::tool
