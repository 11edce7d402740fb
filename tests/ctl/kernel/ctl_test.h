// Runs tandrelctl as a user would, with eth0, the service and (if a test starts it) the daemon.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "harness/world.h"

// A number that the environment gives to a random test.
inline unsigned from_environment(const char *name, unsigned otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::stoul(text)) : otherwise;
}

class CtlTest : public kt::KernelTest {
protected:
    explicit CtlTest(kt::Service::Keep keep = kt::Service::Keep::memory) : KernelTest(keep) {}

    struct result_t {
        int status;
        std::string output; // lines, each with its newline
        std::string errors;
    };

    void SetUp() override {
        add_eth(0);
        service.start();
        // The link has a store node and is up.
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    }

    std::unique_ptr<kt::Process> begin(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), TANDRELCTL);
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        // The library's time limit for the service; the machine may be loaded.
        options.environment["TAV_TIMEOUT_MS"] = "60000";
        return std::make_unique<kt::Process>(sandbox, arguments, options);
    }
    result_t run(const std::vector<std::string> &arguments) {
        const auto process = begin(arguments);
        result_t result{process->wait_exit(std::chrono::seconds(120)), "", ""};
        process->output().wait_finished();
        for (const auto &line : process->output().lines()) {
            result.output += line.text + "\n";
        }
        for (const auto &line : process->errors().lines()) {
            // On a busy machine a wait may take long.
            if (!contains(line.text, "tandrelctl: waiting for the kernel, ")) {
                result.errors += line.text + "\n";
            }
        }
        return result;
    }
    // The exit status.
    int tav(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), kt::program("TAV"));
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        return kt::Process(sandbox, arguments, options).wait_exit();
    }
    // Runs a command that must succeed without output.
    void done(const std::vector<std::string> &arguments) {
        const result_t result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output + result.errors, "");
    }
    static bool contains(const std::string &text, const std::string &part) {
        return text.find(part) != std::string::npos;
    }
    // Otherwise the tool cannot find out whether a daemon of another test, in another user
    // namespace, is in this network namespace, and does not report that none runs.
    static bool sees_all_processes() { return kt::Sandbox::is_real_root(); }
    static constexpr const char *sees_not_all =
        "only the machine's own root sees the network of every process";
    bool in_step() { return run({"check", "-q"}).status == 0; }
};
