// What the built daemon exports to the libraries that it loads.
#include <cstdlib>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <link.h>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using strings = std::vector<std::string>;

std::string content(const std::string &path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct outcome_t {
    int status; // exit status, -1 when it did not exit
    std::string output;
    std::string errors;
};

std::vector<char *> pointers(strings &texts) {
    std::vector<char *> all;
    for (auto &text : texts) {
        all.push_back(text.data());
    }
    all.push_back(nullptr);
    return all;
}

// Uses calls that the unit tests do not wrap, and no shell, which not every machine has.
outcome_t run(strings words, strings environment = {}) {
    std::string directory =
        (std::filesystem::temp_directory_path() / "executable-test-XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr) {
        return {-1, "mkdtemp", ""};
    }
    const std::string output = directory + "/output";
    const std::string errors = directory + "/errors";
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, output.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&files, 2, errors.c_str(), O_WRONLY | O_CREAT, 0600);
    pid_t child = -1;
    const int error = posix_spawn(&child, words[0].c_str(), &files, nullptr, pointers(words).data(),
                                  pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    siginfo_t end{};
    if (error == 0) {
        waitid(P_PID, static_cast<id_t>(child), &end, WEXITED);
    }
    const outcome_t outcome{error == 0 && end.si_code == CLD_EXITED ? end.si_status : -1,
                            content(output), content(errors)};
    unlink(output.c_str());
    unlink(errors.c_str());
    rmdir(directory.c_str());
    return outcome;
}

// A record of the file, copied out of it.
template <typename T>
T record(const std::string &file, std::size_t offset) {
    T value{};
    file.copy(reinterpret_cast<char *>(&value), sizeof value, offset);
    return value;
}

// The definitions of a name among the dynamic symbols of an ELF file of this machine (elf(5)).
std::vector<ElfW(Sym)> dynamic_symbols(const std::string &path, const std::string &name) {
    const std::string file = content(path);
    const auto head = record<ElfW(Ehdr)>(file, 0);
    const auto section = [&](std::size_t number) {
        return record<ElfW(Shdr)>(file, head.e_shoff + number * sizeof(ElfW(Shdr)));
    };
    std::vector<ElfW(Sym)> found;
    for (std::size_t i = 0; i < head.e_shnum; ++i) {
        const auto symbols = section(i);
        if (symbols.sh_type != SHT_DYNSYM) {
            continue;
        }
        const auto names = section(symbols.sh_link);
        for (std::size_t at = 0; at < symbols.sh_size; at += sizeof(ElfW(Sym))) {
            const auto symbol = record<ElfW(Sym)>(file, symbols.sh_offset + at);
            if (symbol.st_shndx != SHN_UNDEF &&
                file.compare(names.sh_offset + symbol.st_name, name.size() + 1, name.c_str(),
                             name.size() + 1) == 0) {
                found.push_back(symbol);
            }
        }
    }
    return found;
}

TEST(Executable, ExportsMlrErrUnmangledAndWeak) {
    const auto found = dynamic_symbols(TANDREL_EXECUTABLE, "mlr_err");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(ELF32_ST_BIND(found[0].st_info), STB_WEAK); // the same in 64-bit files
}

// The sanitizers' runtime need not be loaded first here: the library loads it as well.
TEST(Executable, ReceivesTheReportOfALibrary) {
    const std::filesystem::path library = MLR_ERR_CALLER; // blanks separate paths in LD_PRELOAD
    const auto outcome =
        run({TANDREL_EXECUTABLE, "-x"}, {"LD_PRELOAD=" + library.filename().string(),
                                         "LD_LIBRARY_PATH=" + library.parent_path().string(),
                                         "ASAN_OPTIONS=verify_asan_link_order=0"});
    EXPECT_EQ(outcome.status, 1); // of the usage text
    EXPECT_NE(outcome.errors.find("Error: the library's number is 42\n"), std::string::npos)
        << outcome.errors;
    EXPECT_NE(outcome.output.find("syslog 3 Error: the library's number is 42\n"),
              std::string::npos)
        << outcome.output;
}

TEST(Executable, PrintsItsUsageTextAndFailsOnAnUnknownOption) {
    const auto outcome = run({TANDREL_EXECUTABLE, "--version"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output.rfind("Usage: " TANDREL_EXECUTABLE " [-u <user>] ", 0), 0U)
        << outcome.output;
}

} // namespace
