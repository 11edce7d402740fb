// Runs a fuzz target over the inputs in a file, one per line: its name, which says what it shows, a
// blank, and its bytes. A byte may be written as \xNN, a newline as \n, and a backslash is doubled.
// The first error ends the process, and the last name printed is that of the failing input.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

// In memory of the exact size, so that the address sanitizer reports each read beyond the end.
std::vector<std::uint8_t> bytes_of(const std::string &text) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char byte = text[i];
        if (byte == '\\') {
            byte = text.at(++i);
            if (byte == 'x') {
                byte = static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
                i += 2;
            } else if (byte == 'n') {
                byte = '\n';
            }
        }
        bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    bytes.shrink_to_fit();
    return bytes;
}

} // namespace

int main(int argc, char *argv[]) {
    std::ifstream file(argc == 2 ? argv[1] : "");
    std::size_t inputs = 0;
    for (std::string line; std::getline(file, line); ++inputs) {
        const std::size_t blank = std::min(line.find(' '), line.size());
        std::printf("%s\n", line.substr(0, blank).c_str());
        std::fflush(stdout);
        const auto bytes = bytes_of(line.substr(std::min(blank + 1, line.size())));
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu inputs, nothing found\n", inputs);
    return inputs > 0 ? 0 : 1;
}
