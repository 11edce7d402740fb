// What tandrelctl sends to a terminal of what others stored, or named their links.
#include "ctl_test.h"

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
        command.clear();
        for (const std::string &argument : arguments) {
            command += argument.substr(0, 20) + " ";
        }
        arguments.insert(arguments.begin(), "--color=never");
        start(service.socket(), arguments);
    }
    // The command prints something, and nothing but plain text.
    void expect_plain(const std::vector<std::string> &arguments) {
        open(arguments);
        finish();
        expect_plain_but({});
    }
    // The same of the latest command, once what it adds itself is taken away.
    void expect_plain_but(const std::vector<std::string> &own) {
        std::string printed = seen;
        EXPECT_NE(printed, "") << command;
        for (const std::string &part : own) {
            for (std::size_t at = 0; (at = printed.find(part, at)) != std::string::npos;) {
                printed.erase(at, part.size());
            }
        }
        EXPECT_EQ(unescaped_part(printed), "") << command;
    }

    std::string command;
    // Two names, for 255 bytes are not enough.
    const std::string value = hostile_text(std::string(1, '\0'));
    const std::string name = hostile_text(std::string("\0/", 2)).substr(0, 250);
    const std::string rest = hostile_text(std::string("\0/", 2)).substr(250);
    const std::string link = "eth\xc2\x9b\x9b\xe2\x80\xae\xe2\x81\xa6";
    const std::string link7 = link + "7"; // no name can be longer
    const std::string addresses = kt::paths::addresses(1);

    void store_everything() {
        store.set_address(1, name, value, value);
        store.set_address(1, rest, value, "Static");
        store.set_address(1, "typed", "2001:db8::5/64", value);
        store.set_address(1, rest + "2", "2001:db8::6/\v64", "Automatic");
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
        expect_plain({"show"});
        expect_plain({"show", "--all"});
        expect_plain({"show", "--json", "--all"});
        expect_plain({"show", "eth0"});
        expect_plain({"show", value});
        expect_plain({"check"});
        expect_plain({"check", "--all"});
        expect_plain({"check", "--json"});
        expect_plain({"check", link7});
        open({"interface", "list", "--all"});
        finish();
        expect_plain_but({"\t"});
        expect_plain({"interface", "list", "--all", "--json"});
        expect_plain({"import", "--from-kernel"});
        expect_plain({"-i", value, "show"});
        expect_plain({"-i", value, "address", "add", "eth0", "2001:db8::9/64"});
    }
}

TEST_F(OnATerminal, EveryCommandThatChangesSomethingEscapesWhatItRepeats) {
    store_everything();
    add_eth(7, link);
    expect_plain({"address", "add", "eth0", "2001:db8::5/64"});
    expect_plain({"address", "add", "eth0", "2001:db8::9/64", "--node", name});
    expect_plain({"address", "add", "eth0", value});
    expect_plain({"address", "add", link7, "2001:db8::9/64"});
    expect_plain({"address", "replace", "eth0", "2001:db8::9/48", "--wait=0.1"});
    expect_plain({"address", "replace", "eth0", value});
    expect_plain({"address", "del", "eth0", "2001:db8::6"});
    expect_plain({"address", "del", "eth0", "--node", rest + "3"});
    expect_plain({"gateway", "set", "eth0", value});
    expect_plain({"gateway", "set", "eth0", "fe80::1", "--wait=0.1"});
    expect_plain({"gateway", "clear", link7});
    expect_plain({"interface", "add", "eth0"});
    expect_plain({"interface", "add", link7});
    expect_plain({"interface", "del", "eth0"});
    expect_plain({"interface", "del", "--node", rest});
    expect_plain({"import", "--from-kernel", "--write"});
    expect_plain({value});
    expect_plain({"show", "--" + value});
    store.write(kt::paths::interfaces + "/" + rest + "/IPv6/x", value);
    expect_plain({"interface", "del", "--node", rest});
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
