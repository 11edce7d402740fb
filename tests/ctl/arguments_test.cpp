// The command line: parsing, and the messages for wrong ones.
#include "ctl/arguments.h"

#include <gtest/gtest.h>

namespace {

ctl::request_t parse(std::vector<std::string> words) {
    words.insert(words.begin(), "tandrelctl");
    std::vector<char *> pointers;
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    return ctl::parse(static_cast<int>(pointers.size()), pointers.data());
}

// What is written to standard error on a wrong line.
std::string complaint(const std::vector<std::string> &words) {
    testing::internal::CaptureStderr();
    const ctl::request_t request = parse(words);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(request.command, nullptr);
    EXPECT_EQ(request.result, 2);
    return text;
}

TEST(CtlArguments, EachCommandIsTheOneNamed) {
    EXPECT_EQ(parse({"show"}).command, ctl::show);
    EXPECT_EQ(parse({"check"}).command, ctl::check);
    EXPECT_EQ(parse({"watch"}).command, ctl::watch);
    EXPECT_EQ(parse({"address", "add", "eth0", "a"}).command, ctl::address_add);
    EXPECT_EQ(parse({"address", "replace", "eth0", "a"}).command, ctl::address_replace);
    EXPECT_EQ(parse({"address", "del", "eth0"}).command, ctl::address_delete);
    EXPECT_EQ(parse({"gateway", "set", "eth0", "a"}).command, ctl::gateway_set);
    EXPECT_EQ(parse({"gateway", "clear", "eth0"}).command, ctl::gateway_clear);
    EXPECT_EQ(parse({"interface", "list"}).command, ctl::interface_list);
    EXPECT_EQ(parse({"interface", "add", "eth0"}).command, ctl::interface_add);
    EXPECT_EQ(parse({"interface", "del"}).command, ctl::interface_delete);
    EXPECT_EQ(parse({"import", "--from-kernel"}).command, ctl::import_kernel);
    EXPECT_EQ(parse({"nudge"}).command, ctl::nudge);
    EXPECT_EQ(parse({"keep"}).command, ctl::keep);
    EXPECT_TRUE(parse({"keep", "--list"}).options.list);
    EXPECT_TRUE(parse({"keep", "--forget", "eth0"}).options.forget);
    EXPECT_EQ(parse({"keep", "--forget", "eth0", "fe80::1"}).options.address, "fe80::1");
    EXPECT_EQ(parse({"keep", "eth0"}).result, 2);
    EXPECT_EQ(parse({"keep", "--list", "--forget", "eth0"}).result, 2);
    EXPECT_EQ(parse({"-i", "enp3s/x", "show"}).result, 2);
    EXPECT_EQ(parse({"-i", "enp 3s", "show"}).result, 2);
    EXPECT_EQ(parse({"status"}).command, ctl::status);
    EXPECT_EQ(parse({"wait", "eth0"}).command, ctl::wait_online);
}

TEST(CtlArguments, ConfirmTakesTheNumberOfAChange) {
    EXPECT_EQ(parse({"confirm", "18446744073709551615"}).options.number, 18446744073709551615U);
    EXPECT_FALSE(parse({"confirm"}).options.number);
    for (const char *text : {"x", "0", "1x", "", "18446744073709551616"}) {
        EXPECT_EQ(complaint({"confirm", text}),
                  "N: '" + std::string(text) +
                      "' is not the number of a change\nRun with --help for more information.\n");
    }
}

TEST(CtlArguments, OnlyTheHelpOfACommandThatMayDoWithoutALinkOffersAllLinks) {
    const auto offers_all = [](std::vector<std::string> words) {
        words.emplace_back("--help");
        testing::internal::CaptureStdout();
        parse(words);
        return testing::internal::GetCapturedStdout().find("all links)") != std::string::npos;
    };
    EXPECT_TRUE(offers_all({"show"}));
    EXPECT_TRUE(offers_all({"check"}));
    EXPECT_TRUE(offers_all({"watch"}));
    EXPECT_TRUE(offers_all({"import"}));
    EXPECT_FALSE(offers_all({"interface", "del"}));
    EXPECT_FALSE(offers_all({"wait"}));
    EXPECT_FALSE(offers_all({"address", "add"}));
}

TEST(CtlArguments, TheServicesOptionsGiveThePrefix) {
    setenv("TANDREL_OPTIONS", "-D 2 -i enp3s -u 1", 1);
    EXPECT_EQ(parse({"show"}).options.prefix, "enp3s");
    EXPECT_EQ(parse({"-i", "wlan", "show"}).options.prefix, "wlan");
    unsetenv("TANDREL_OPTIONS");
    EXPECT_EQ(parse({"show"}).options.prefix, "eth");
}

TEST(CtlArguments, SuggestedCommandsNameThePrefixWhereItIsNeeded) {
    const auto options = [](const std::vector<std::string> &words) {
        parse(words);
        return ctl::prefix_options.tandrelctl + "," + ctl::prefix_options.tandrel;
    };
    EXPECT_EQ(options({"show"}), ",");
    EXPECT_EQ(options({"-i", "lan", "show"}), " -i lan, -i lan");
    setenv("TANDREL_OPTIONS", "-i lan", 1);
    EXPECT_EQ(options({"show"}), ", -i lan");
    EXPECT_EQ(options({"-i", "eth", "show"}), " -i eth,");
    unsetenv("TANDREL_OPTIONS");
    EXPECT_EQ(options({"show"}), ",");
}

TEST(CtlArguments, ACommandMayBeAbbreviated) {
    EXPECT_EQ(parse({"sh", "ch"}).command, ctl::show);
    EXPECT_EQ(parse({"sh", "ch"}).options.link, "ch");
    EXPECT_EQ(parse({"-i", "s", "--color", "never", "addr", "a", "eth0", "r"}).command,
              ctl::address_add);
    EXPECT_EQ(parse({"g", "c", "eth0"}).command, ctl::gateway_clear);
}

TEST(CtlArguments, OptionsMayPrecedeOrFollowTheCommand) {
    const ctl::request_t request =
        parse({"-i", "wlan", "address", "add", "--node", "office", "wlan0", "2001:db8::5/64",
               "--wait=2.5", "--color", "never"});
    EXPECT_EQ(request.options.prefix, "wlan");
    EXPECT_EQ(request.options.link, "wlan0");
    EXPECT_EQ(request.options.address, "2001:db8::5/64");
    EXPECT_EQ(request.options.node, "office");
    EXPECT_EQ(request.options.colour, tav::terminal::Color::never);
    ASSERT_TRUE(request.options.patience);
    EXPECT_EQ(*request.options.patience, 2.5);
}

TEST(CtlArguments, AWaitWithoutATimeLastsTenSecondsAndDoesNotReadTheNextWord) {
    const ctl::request_t request = parse({"gateway", "set", "--wait", "eth0", "fe80::1"});
    EXPECT_EQ(request.options.link, "eth0");
    ASSERT_TRUE(request.options.patience);
    EXPECT_EQ(*request.options.patience, 10);
    EXPECT_FALSE(parse({"gateway", "set", "eth0", "fe80::1"}).options.patience);
}

TEST(CtlArguments, AWrongLineIsReportedWithItsFault) {
    EXPECT_EQ(complaint({}),
              "tandrelctl: a command is missing\n'tandrelctl --help' lists the commands\n");
    const std::string list = "'tandrelctl --help' lists the commands\n";
    EXPECT_EQ(complaint({"frobnicate\x1b", "add"}),
              "tandrelctl: unknown command 'frobnicate\\x1b'\n" + list);
    EXPECT_EQ(complaint({"shwo"}),
              "tandrelctl: unknown command 'shwo'; did you mean 'show'?\n" + list);
    EXPECT_EQ(complaint({"-i", "eth", "i"}),
              "tandrelctl: 'i' is short for several commands: 'interface' and 'import'\n" + list);
    EXPECT_EQ(complaint({"address", "ad", "eth0"}).find("unknown"), std::string::npos);
    EXPECT_EQ(complaint({"address", "dell"}),
              "tandrelctl: unknown command 'dell'; did you mean 'del'?\ntandrelctl: 'address' "
              "needs one of: add, replace, del (see 'tandrelctl address --help')\n");
    EXPECT_EQ(complaint({"address"}), "tandrelctl: 'address' needs one of: add, replace, del "
                                      "(see 'tandrelctl address --help')\n");
    EXPECT_NE(complaint({"address", "add", "eth0"}).find("ADDRESS/LENGTH is required"),
              std::string::npos);
    EXPECT_NE(complaint({"import"}).find("--from-kernel is required"), std::string::npos);
    EXPECT_NE(complaint({"--color", "blue", "show"}).find("blue not in {auto,always,never}"),
              std::string::npos);
    EXPECT_NE(complaint({"-i", "", "show"}).find("must not be empty"), std::string::npos);
    for (const char *time : {"-1", "nan", "1e7", "x"}) {
        EXPECT_NE(
            complaint({"gateway", "clear", "eth0", std::string("--wait=") + time})
                .find("'" + std::string(time) + "' is not a time: it must be 0 to 1000000 seconds"),
            std::string::npos);
        EXPECT_NE(complaint({"gateway", "clear", "eth0", "--confirm", time})
                      .find("is not a time: it must be 0.001 to 86400 seconds"),
                  std::string::npos);
    }
}

TEST(CtlArguments, HelpKeepsItsLinesWithAnyVersionOfTheLibrary) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse({"--help"}).result, 0);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find("\nUsage: tandrelctl [OPTIONS] SUBCOMMAND\n\nOptions:\n  -h,--help  "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\n\nSubcommands:\n  show  "), std::string::npos) << text;
    EXPECT_NE(text.find("\nExamples:\n  tandrelctl show eth0\n  tandrelctl check\n"),
              std::string::npos)
        << text;
}

} // namespace
