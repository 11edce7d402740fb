// Without options: the tests. With one of them: single sequences, by hand or in a long run.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "runner.h"

namespace {

constexpr int shrink_tries = 80;

int usage() {
    std::cerr << "usage: model_tests [--replay SEED|FILE] [--shrink SEED|FILE] [--show SEED]\n"
                 "  --replay  carries the sequence out; status 1 when it fails\n"
                 "  --shrink  looks for a shorter one that fails as well, and prints it\n"
                 "  --show    prints the sequence\n"
                 "Anything else is an option of GoogleTest.\n";
    return 2;
}

model::Sequence load(const std::string &what) {
    if (!what.empty() && what.find_first_not_of("0123456789") == std::string::npos) {
        return model::generate(static_cast<std::uint32_t>(std::stoul(what)));
    }
    const std::ifstream file(what);
    if (!file) {
        throw std::runtime_error("cannot read " + what);
    }
    std::ostringstream text;
    text << file.rdbuf();
    return model::parse(text.str());
}

int replay(const model::Sequence &sequence) {
    const model::Verdict verdict = model::run(sequence);
    std::cout << (verdict.failure.empty() ? "passed" : "FAILED") << ": seed " << sequence.seed
              << ", operations " << verdict.operations << ", items " << verdict.items
              << ", undetermined " << verdict.undetermined << ", refused " << verdict.refused
              << "\n";
    if (verdict.failure.empty()) {
        return 0;
    }
    std::cout << verdict.failure << model::to_text(sequence) << verdict.log;
    return 1;
}

} // namespace

int main(int argc, char **argv) {
    const std::string option = argc > 1 ? argv[1] : "";
    if (option == "--replay" || option == "--shrink" || option == "--show") {
        if (argc != 3) {
            return usage();
        }
        try {
            const model::Sequence sequence = load(argv[2]);
            if (option == "--replay") {
                return replay(sequence);
            }
            std::cout << model::to_text(option == "--show" ? sequence
                                                           : model::shrink(sequence, shrink_tries));
            return 0;
        } catch (const std::exception &error) {
            std::cerr << error.what() << "\n";
            return 2;
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
