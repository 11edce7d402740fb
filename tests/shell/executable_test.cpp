// What the built daemon offers to the libraries that it loads.
#include <array>
#include <cstdio>
#include <string>

#include <sys/wait.h>

#include <gtest/gtest.h>

namespace {

struct outcome_t {
    int status; // exit status, -1 when it did not exit
    std::string output;
};

outcome_t run(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r"); // NOLINT(cert-env33-c): a fixed command
    if (pipe == nullptr) {
        return {-1, ""};
    }
    std::string output;
    std::array<char, 4096> part{};
    while (std::fgets(part.data(), part.size(), pipe) != nullptr) {
        output += part.data();
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(Executable, ExportsMlrErrUnmangledAndWeak) {
    const auto symbols = run("nm -D --defined-only '" TANDREL_EXECUTABLE "'");
    ASSERT_EQ(symbols.status, 0);
    EXPECT_NE(symbols.output.find(" W mlr_err\n"), std::string::npos) << symbols.output;
}

// The sanitizers' runtime need not come first here: it is loaded by the library as well.
TEST(Executable, ReceivesTheReportOfALibrary) {
    const auto outcome = run("ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD='" MLR_ERR_CALLER
                             "' '" TANDREL_EXECUTABLE "' -x 2>&1");
    EXPECT_EQ(outcome.status, 1); // of the usage text
    EXPECT_NE(outcome.output.find("Error: the library's number is 42\n"), std::string::npos)
        << outcome.output;
    EXPECT_NE(outcome.output.find("syslog 3 Error: the library's number is 42\n"),
              std::string::npos)
        << outcome.output;
}

TEST(Executable, PrintsItsUsageTextAndFailsOnAnUnknownOption) {
    const auto outcome = run("'" TANDREL_EXECUTABLE "' --version 2>/dev/null");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output.rfind("Usage: " TANDREL_EXECUTABLE " [-u <user>] ", 0), 0U)
        << outcome.output;
}

} // namespace
