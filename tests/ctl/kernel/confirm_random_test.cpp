// A program is killed at a random moment of a change that must be confirmed: the store has the old
// or the new settings, and the old ones after the term.
//
// CONFIRM_KILLS: how often (few without it). CONFIRM_SEED: of the random times.
#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "ctl_test.h"

namespace {

class ConfirmRandomly : public CtlTest {
protected:
    using settings_t = std::set<std::string>;

    ConfirmRandomly() : CtlTest(kt::Service::Keep::database) { rebuilds_allowed = true; }

    void SetUp() override {
        CtlTest::SetUp();
        random.seed(from_environment("CONFIRM_SEED", 1));
        store.set_address(1, "office", office);
        store.set_gateway(1, gateway);
        start_daemon_and_wait();
        ASSERT_TRUE(becomes([&] { return is_old(); }));
        keeper = begin({"keep"});
        ASSERT_NE(keeper->output().wait_for_containing("watching the links"), 0U);
    }
    void TearDown() override {
        if (HasFailure()) {
            std::cout << "The keeper's lines:\n" << keeper->output().tail(60) << store.dump();
        }
        keeper->signal(SIGTERM);
        EXPECT_EQ(keeper->wait_exit(), 0);
        CtlTest::TearDown();
    }

    // The stored Static addresses and the gateway, as of one moment. Empty: no service.
    settings_t stored() {
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        kt::Process dump(sandbox, {kt::program("TAV"), "dump", kt::paths::ipv6(1)}, options);
        if (dump.wait_exit() != 0) {
            return {};
        }
        dump.output().wait_finished();
        std::string text;
        for (const auto &line : dump.output().lines()) {
            text += line.text;
        }
        std::map<std::string, std::string> leaves;
        const nlohmann::json all = nlohmann::json::parse(text);
        for (const auto &element : all.at("elements")) {
            leaves[element.at("path")] = element.value("value", "");
        }
        settings_t settings;
        for (const auto &[path, value] : leaves) {
            const std::string address = "/Address/Value";
            const std::size_t end = path.size() - std::min(path.size(), address.size());
            if (path == kt::paths::gateway(1) ||
                (path.substr(end) == address &&
                 leaves[path.substr(0, end) + "/Type/Value"] == "Static")) {
                settings.insert(value);
            }
        }
        return settings;
    }
    bool is_old() {
        return store.node_of(1, office) == "office" && store.node_of(1, added).empty() &&
               store.gateway(1) == gateway && device.has_address("eth0", office) &&
               !device.has_address("eth0", added) &&
               device.static_gateways("eth0") == std::vector<std::string>{gateway};
    }

    struct change_t {
        std::vector<std::string> command;
        settings_t result;
    };
    change_t any_change() {
        const std::vector<change_t> changes{
            {{"address", "add", "eth0", added}, {office, gateway, added}},
            {{"address", "del", "eth0", office}, {gateway}},
            {{"gateway", "set", "eth0", "fe80::2"}, {office, "fe80::2"}},
            {{"gateway", "clear", "eth0"}, {office}},
        };
        change_t change = changes.at(choose(changes.size()));
        change.command.insert(change.command.end(), {"--confirm", "1", "--wait=1"});
        return change;
    }
    std::size_t choose(std::size_t number) { return random() % number; }
    void kill_one(kt::Process &tool) {
        const std::size_t victim = choose(3);
        ++kills.at(victim);
        if (victim == 0) {
            tool.signal(SIGKILL);
        } else if (victim == 1) {
            daemon->signal(SIGKILL);
            daemon->wait();
            start_daemon();
        } else {
            store.disconnect();
            service.crash();
            service.start();
        }
    }

    const std::string office = "2001:db8::5/64";
    const std::string added = "2001:db8::7/64";
    const std::string gateway = "fe80::1";
    std::mt19937 random;
    std::unique_ptr<kt::Process> keeper;
    std::array<unsigned, 3> kills{}; // of the tool, the daemon, the service
};

TEST_F(ConfirmRandomly, TheStoreHasTheOldOrTheNewSettingsAndTheOldOnesAfterTheTerm) {
    const settings_t old{office, gateway};
    unsigned seen_new = 0;
    for (unsigned left = from_environment("CONFIRM_KILLS", 3); left > 0; --left) {
        const change_t change = any_change();
        const auto tool = begin(change.command);
        std::this_thread::sleep_for(std::chrono::milliseconds(choose(40)));
        kill_one(*tool);
        const auto killed = std::chrono::steady_clock::now();
        bool is_new = false;
        while (std::chrono::steady_clock::now() < killed + std::chrono::milliseconds(900)) {
            const settings_t found = stored();
            ASSERT_TRUE(found == old || found == change.result || found.empty())
                << change.command[1] << ::testing::PrintToString(found);
            is_new = is_new || found == change.result;
        }
        seen_new += is_new ? 1 : 0;
        tool->wait();
        ASSERT_TRUE(becomes([&] { return stored() == old && is_old(); }))
            << change.command[0] << " " << change.command[1];
    }
    std::cout << "confirm: killed the tool " << kills[0] << " times, the daemon " << kills[1]
              << " times, the service " << kills[2] << " times; the new settings were seen "
              << seen_new << " times\n";
}

} // namespace
