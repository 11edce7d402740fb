// What tandrelctl sends to a terminal of what others stored, or named their links.
#include "ctl_test.h"

#include <set>

#include "support/hostile_text.h"
#include "terminal.h"

namespace {

using tavtest::hostile_text;
using tavtest::unescaped_part;

// Wide, so that nothing is cut.
class OnATerminal : protected Terminal, public CtlTest {
protected:
    OnATerminal() : Terminal(50, 2000) {}

    void open(std::vector<std::string> arguments) {
        words.clear();
        for (const std::string &argument : arguments) {
            words += argument.substr(0, 20) + " ";
        }
        arguments.insert(arguments.begin(), "--color=never");
        start(service.socket(), arguments);
    }
    std::string help(std::vector<std::string> arguments) {
        arguments.emplace_back("--help");
        const result_t result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.output;
    }
    // The command prints something, and nothing but plain text.
    void expect_plain(const std::vector<std::string> &arguments) {
        open(arguments);
        finish();
        expect_plain_but({});
    }
    // The same for the latest command, without the parts that it adds itself.
    void expect_plain_but(const std::vector<std::string> &own) {
        std::string printed = seen;
        EXPECT_NE(printed, "") << words;
        for (const std::string &part : own) {
            for (std::size_t at = 0; (at = printed.find(part, at)) != std::string::npos;) {
                printed.erase(at, part.size());
            }
        }
        EXPECT_EQ(unescaped_part(printed), "") << words;
    }

    std::string words;
    // Two names, because one can have only 255 bytes.
    const std::string value = hostile_text(std::string(1, '\0'));
    const std::string name = hostile_text(std::string("\0/", 2)).substr(0, 250);
    const std::string rest = hostile_text(std::string("\0/", 2)).substr(250);
    const std::string link = "eth\xc2\x9b\x9b\xe2\x80\xae\xe2\x81\xa6";
    const std::string link7 = link + "7"; // no name can be longer
    const std::string addresses = kt::paths::addresses(1);

    // The daemon accepts blanks before a prefix length.
    const std::string blank_gateway = "fe80::1/\v64";

    const std::vector<std::vector<std::string>> looking{
        {"show"},
        {"show", "--all"},
        {"show", "--json", "--all"},
        {"show", "eth0"},
        {"show", value},
        {"check"},
        {"check", "--all"},
        {"check", "--json"},
        {"check", link7},
        {"status"},
        {"status", "--json"},
        {"wait", "eth0", "--timeout=0.1"},
        {"wait", value, "--timeout=0.1"},
        {"wait", "--online", "--timeout=0.1"},
        {"interface", "list", "--all", "--json"},
        {"import", "--from-kernel"},
        {"nudge"},
        {"-i", value, "show"},
        {"-i", value, "address", "add", "eth0", "2001:db8::9/64"}};
    const std::vector<std::vector<std::string>> changing{
        {"address", "add", "eth0", "2001:db8::5/64"},
        {"address", "add", "eth0", "2001:db8::9/64", "--node", name},
        {"address", "add", "eth0", value},
        {"address", "add", link7, "2001:db8::9/64"},
        {"address", "replace", "eth0", "2001:db8::9/48", "--wait=0.1"},
        {"address", "replace", "eth0", value},
        {"address", "del", "eth0", "2001:db8::6"},
        {"address", "del", "eth0", "--node", rest + "3"},
        {"gateway", "set", "eth0", value},
        {"gateway", "set", "eth0", "fe80::1", "--wait=0.1"},
        {"gateway", "clear", link7},
        {"interface", "add", "eth0"},
        {"interface", "add", link7},
        {"interface", "del", "eth0"},
        {"interface", "del", "--node", rest},
        {"interface", "merge", link7},
        {"import", "--from-kernel", "--write"},
        {value},
        {"show", "--" + value}};

    void store_everything() {
        store.set_address(1, name, value, value);
        store.set_address(1, rest, value, "Static");
        store.set_address(1, "typed", "2001:db8::5/64", value);
        store.set_address(1, rest + "2", "2001:db8::6/\v64", "Automatic");
        store.set_address(1, rest + "4", "2001:db8::8/\v64", "Static");
        store.set_gateway(1, value);
        store.write(addresses + "/leaf " + rest, value);
        store.write(addresses + "/typed/" + rest, value);
        store.write(kt::paths::ipv6(1) + "/" + rest, value);
        store.write(kt::paths::interfaces + "/leaf " + rest, value);
        device.add_address("eth0", "2001:db8::5/64");
        device.add_address("eth0", "2001:db8::6/64");
        device.add_address("eth0", "2001:db8::7/64");
    }
};

TEST_F(OnATerminal, EveryCommandThatLooksEscapesWhatIsStored) {
    store_everything();
    add_eth(7, link);
    for (const bool numbered : {true, false}) {
        if (!numbered) {
            store.write(kt::paths::interfaces + "/" + rest + "/IPv6/x", value);
        }
        for (const std::vector<std::string> &command : looking) {
            expect_plain(command);
        }
        open({"interface", "list", "--all"});
        finish();
        expect_plain_but({"\t"});
    }
}

TEST_F(OnATerminal, EveryCommandThatChangesSomethingEscapesWhatItRepeats) {
    store_everything();
    add_eth(7, link);
    for (const std::vector<std::string> &command : changing) {
        expect_plain(command);
    }
    store.write(kt::paths::interfaces + "/" + rest + "/IPv6/x", value);
    expect_plain({"interface", "del", "--node", rest});
}

TEST_F(OnATerminal, EveryPreviewEscapesWhatItRepeats) {
    store_everything();
    store.set_gateway(1, blank_gateway);
    add_eth(7, link);
    for (std::vector<std::string> command : changing) {
        if (command.size() > 2 && command.front() != "show") {
            command.emplace_back("--dry-run");
            expect_plain(command);
        }
    }
    const std::string second = kt::paths::interfaces + "/01/IPv6";
    store.write(second + "/Default Gateway/Value", blank_gateway);
    store.write(second + "/Addresses/" + rest + "/Address/Value", "2001:db8::9/\v64");
    store.write(second + "/Addresses/" + rest + "/Type/Value", "Static");
    expect_plain({"interface", "merge", "eth0", "--dry-run"});
    store.remove_gateway(1);
    expect_plain({"interface", "merge", "eth0", "--dry-run"});
    EXPECT_NE(seen.find("add default route via fe80::1\r\n"), std::string::npos) << seen;
    store.write(kt::paths::interfaces + "/01/" + rest, value);
    expect_plain({"interface", "merge", "eth0"});
}

// A list for each of the tests above; watch has a test of its own.
TEST_F(OnATerminal, EverySubcommandOfTheHelpIsInOneOfTheLists) {
    std::set<std::string> run{"watch", "interface list"};
    for (const auto *list : {&looking, &changing}) {
        for (const std::vector<std::string> &command : *list) {
            run.insert(command.front());
            run.insert(command.front() + " " + (command.size() > 1 ? command[1] : ""));
        }
    }
    const std::string title = "Subcommands:\n";
    const std::set<std::string> commands = tavtest::commands_in(help({}), title);
    EXPECT_EQ(commands.count("show") + commands.count("nudge"), 2U);
    for (const std::string &command : commands) {
        EXPECT_EQ(run.count(command), 1U) << command;
        for (const std::string &part : tavtest::commands_in(help({command}), title)) {
            EXPECT_EQ(run.count(command + " " + part), 1U) << command << " " << part;
        }
    }
}

TEST_F(OnATerminal, WatchEscapesWhatIsStoredAndWhatChanges) {
    store_everything();
    open({"watch"});
    ASSERT_TRUE(shows("eth0, store interface 1"));
    store.set_address(1, rest + "new", value, value);
    ASSERT_TRUE(shows(" + eth0 store: address node "));
    EXPECT_EQ(interrupt(), 0);
    expect_plain_but({"\x1b[?1049h", "\x1b[?25l", "\x1b[H", "\x1b[K", "\x1b[J", "\x1b[?25h",
                      "\x1b[?1049l", "\r\r\n", "\x1b[50H"});
    open({"watch", "--json"});
    ASSERT_TRUE(shows("\"node\":\""));
    EXPECT_EQ(interrupt(), 0);
    expect_plain_but({});
}

TEST_F(OnATerminal, NudgeEscapesTheNameOfALink) {
    store.set_gateway(1, "fe80::1");
    add_eth(7, link);
    device.set_up(link7, false);
    open({"nudge", "--follow"});
    ASSERT_TRUE(shows("started"));
    device.set_up(link7);
    ASSERT_TRUE(shows("7 came up"));
    EXPECT_EQ(interrupt(), 0);
    expect_plain_but({});
}

} // namespace
