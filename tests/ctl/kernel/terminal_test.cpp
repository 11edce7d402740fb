// What tandrelctl sends to a terminal of what others stored, or named their links.
#include "ctl_test.h"

#include <algorithm>
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
    // The command prints something, unless it may be silent, and nothing but plain text.
    void expect_plain(const std::vector<std::string> &arguments) {
        open(arguments);
        finish();
        expect_plain_but({});
    }
    // For eth0, and for a link with a hostile name.
    void expect_plain_for_both(std::vector<std::string> arguments) {
        expect_plain(arguments);
        std::replace(arguments.begin(), arguments.end(), std::string("eth0"), link7);
        arguments.insert(arguments.begin(), {"-i", link});
        expect_plain(arguments);
    }
    // The same for the latest command, without the parts that it adds itself.
    void expect_plain_but(const std::vector<std::string> &own) {
        std::string printed = seen;
        EXPECT_TRUE(may_be_silent || !printed.empty()) << words;
        for (const std::string &part : own) {
            for (std::size_t at = 0; (at = printed.find(part, at)) != std::string::npos;) {
                printed.erase(at, part.size());
            }
        }
        EXPECT_EQ(unescaped_part(printed), "") << words;
    }

    std::string words;
    bool may_be_silent = false; // a change that is made
    // Two names, because one can have only 255 bytes.
    const std::string value = hostile_text(std::string(1, '\0'));
    const std::string name = hostile_text(std::string("\0/", 2)).substr(0, 250);
    const std::string rest = hostile_text(std::string("\0/", 2)).substr(250);
    const std::string link = "eth\xc2\x9b\x9b\xe2\x80\xae\xe2\x81\xa6";
    const std::string link7 = link + "7"; // no name can be longer
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
        {"address", "add", "eth0", "2001:db8::9/64", "--node", "new " + rest},
        {"address", "add", "eth0", "2001:db8::a/64", "--node", name + name},
        {"address", "add", "eth0", "2001:db8::8/64"},
        {"address", "add", "eth0", "ff02::1/\v64"},
        {"address", "add", "eth0", value},
        {"address", "add", link7, "2001:db8::9/64"},
        {"address", "replace", "eth0", "2001:db8::9/48", "--wait=0.1"},
        {"address", "replace", "eth0", value},
        {"address", "del", "eth0", "2001:db8::6"},
        {"address", "del", "eth0", "2001:db8::8/48"},
        {"address", "del", "eth0", "2001:db8::77/\v64"},
        {"address", "del", "eth0", value},
        {"address", "del", "eth0", "--node", rest, "--wait=0.1"},
        {"address", "del", "eth0", "--node", rest + "3"},
        {"gateway", "set", "eth0", value},
        {"gateway", "set", "eth0", "2001:db8:ffff::1"},
        {"gateway", "set", "eth0", "fe80::1", "--wait=0.1"},
        {"gateway", "clear", "eth0", "--wait=0.1"},
        {"gateway", "clear", link7},
        {"interface", "add", "eth0"},
        {"interface", "add", link7},
        {"interface", "del", "eth0"},
        {"interface", "del", "--node", rest},
        {"interface", "merge", "eth0"},
        {"interface", "merge", link7},
        {"-i", value, "interface", "add", value + "3"},
        {"import", "--from-kernel", "--write"},
        {"keep", "--forget", value},
        {"confirm", value},
        {value},
        {"show", "--" + value}};

    void store_everything() {
        add_eth(7, link);
        store_for(1, "eth0");
        store_for(8, link7);
        store.write(kt::paths::interfaces + "/leaf " + rest, value);
        store.write({{"/Software/tandrel/Keeper/Links/" + rest + "/Gateway/Value", "fe80::1"},
                     {"/Software/tandrel/Keeper/Links/" + rest + "/Gateway/Reason/Value", value}});
    }
    void store_for(int interface, const std::string &name_of_link) {
        const std::string addresses = kt::paths::addresses(interface);
        store.set_address(interface, name, value, value);
        store.set_address(interface, rest, value, "Static");
        store.set_address(interface, "typed", "2001:db8::5/64", value);
        store.set_address(interface, rest + "2", "2001:db8::6/\v64", "Automatic");
        store.set_address(interface, rest + "4", "2001:db8::8/\v64", "Static");
        store.set_gateway(interface, value);
        store.write(addresses + "/leaf " + rest, value);
        store.write(addresses + "/typed/" + rest, value);
        store.write(kt::paths::ipv6(interface) + "/" + rest, value);
        for (const std::string last : {"5", "6", "7"}) {
            device.add_address(name_of_link, "2001:db8::" + last + "/64");
        }
    }
};

TEST_F(OnATerminal, EveryCommandThatLooksEscapesWhatIsStored) {
    store_everything();
    for (const bool numbered : {true, false}) {
        if (!numbered) {
            store.write(kt::paths::interfaces + "/" + rest + "/IPv6/x", value);
        }
        for (const std::vector<std::string> &command : looking) {
            expect_plain_for_both(command);
        }
        open({"interface", "list", "--all"});
        finish();
        expect_plain_but({"\t"});
    }
}

TEST_F(OnATerminal, EveryCommandThatChangesSomethingEscapesWhatItRepeats) {
    store_everything();
    may_be_silent = true;
    for (const std::vector<std::string> &command : changing) {
        expect_plain_for_both(command);
    }
    store.write(kt::paths::interfaces + "/" + rest + "/IPv6/x", value);
    expect_plain({"interface", "del", "--node", rest});
    expect_plain_for_both({"interface", "del", "eth0", "--force"});
    expect_plain_for_both({"interface", "del", "eth0"});
}

TEST_F(OnATerminal, EveryPreviewEscapesWhatItRepeats) {
    store_everything();
    store.set_gateway(1, blank_gateway);
    store.set_gateway(8, blank_gateway);
    for (std::vector<std::string> command : changing) {
        if (command.size() > 2 && command.front() != "show") {
            command.emplace_back("--dry-run");
            expect_plain_for_both(command);
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

TEST_F(OnATerminal, AStoredGatewayIsEscapedWhereverItIsNamed) {
    store_everything();
    for (const int interface : {1, 8}) {
        store.set_gateway(interface, blank_gateway);
        store.write(kt::paths::interfaces + "/\v" + std::to_string(interface) + "/" + rest, value);
    }
    device.add_route({"::/0", "fe80::2", "eth0"});
    device.add_route({"::/0", "fe80::2", link7, 4, 2048});
    expect_plain_for_both({"import", "--from-kernel"});
    expect_plain_for_both({"wait", "eth0", "--timeout=0.1"});
    expect_plain_for_both({"interface", "merge", "eth0"});
}

TEST_F(OnATerminal, AnUnreachableAndAnEmptyStoreAreReportedInPlainText) {
    start("/nowhere/" + rest, {"--color=never", "show"});
    finish();
    expect_plain_but({});
    open({"-i", value, "show"});
    finish();
    expect_plain_but({});
}

// A list for each of the first two tests; watch has a test of its own.
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
    int interface = 1;
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"watch", "eth0"}, {"-i", link, "watch", link7}}) {
        open(command);
        ASSERT_TRUE(shows("interface node "));
        store.set_address(interface, rest + "new", value, value);
        ASSERT_TRUE(shows(" store: address node "));
        store.set_gateway(interface, blank_gateway);
        ASSERT_TRUE(shows(" store: gateway "));
        EXPECT_EQ(interrupt(), 0);
        expect_plain_but({"\x1b[?1049h", "\x1b[?25l", "\x1b[H", "\x1b[K", "\x1b[J", "\x1b[?25h",
                          "\x1b[?1049l", "\r\r\n", "\x1b[50H"});
        interface = 8;
    }
    open({"watch", "--json"});
    ASSERT_TRUE(shows("\"node\":\""));
    EXPECT_EQ(interrupt(), 0);
    expect_plain_but({});
}

TEST_F(OnATerminal, KeepEscapesThePrefix) {
    open({"-i", "e\x1b[31m", "keep"});
    ASSERT_TRUE(shows("watching the links whose names begin with e\\x1b[31m"));
    EXPECT_EQ(interrupt(), 0);
    expect_plain_but({});
}

} // namespace
