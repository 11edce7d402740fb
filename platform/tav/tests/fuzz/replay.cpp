// Runs a fuzz target over the files of the named directories, in the order of their names. An error
// ends the process; the failing file is then the last one printed.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

void replay(const std::filesystem::path &file) {
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream buffer;
    buffer << stream.rdbuf();
    const std::string content = buffer.str();
    // In memory of the exact size, so that the address sanitizer reports each read beyond the end.
    const std::vector<std::uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

} // namespace

int main(int argc, char *argv[]) {
    std::size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        for (const auto &file : files) {
            replay(file);
        }
        inputs += files.size();
    }
    std::printf("%zu inputs, nothing found\n", inputs);
    return inputs > 0 ? 0 : 1;
}
