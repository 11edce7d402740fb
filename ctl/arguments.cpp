#include "ctl/arguments.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>

#include "ctl/text.h"
#include "ctl/words.h"
#include "terminal/help.h"

#ifndef TANDREL_VERSION
#error "the build gives the version"
#endif

namespace ctl {

namespace {

// CLI11's own range includes nan.
CLI::Validator seconds_from(double least, double most) {
    return CLI::Validator(
        [=](const std::string &text) {
            char *end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool fits = *end == '\0' && !text.empty() && value >= least && value <= most;
            std::ostringstream wanted;
            wanted << std::setprecision(7) << "'" << text << "' is not a time: it must be " << least
                   << " to " << most << " seconds";
            return fits ? std::string() : wanted.str();
        },
        "");
}

constexpr const char *ending =
    "Exit status: 0 done, or the views agree; 1 the views differ, or the change was refused;\n"
    "2 wrong usage; 3 the store or the kernel does not answer; 4 stored, but not in the kernel\n"
    "within the time of --wait.\n\n"
    "Examples:\n"
    "  tandrelctl show eth0\n"
    "  tandrelctl check\n"
    "  tandrelctl address add eth0 2001:db8::5/64 --wait\n"
    "  tandrelctl gateway set eth0 fe80::1\n"
    "A command may be abbreviated: 'tandrelctl addr a' is 'tandrelctl address add'.\n"
    "For more see 'tandrelctl COMMAND --help' and tandrelctl(1).";

class parser_t {
public:
    parser_t() {
        read_environment();
        app.require_subcommand(1);
        app.formatter(std::make_shared<tav::terminal::HelpFormatter>());
        app.failure_message([](const CLI::App *, const CLI::Error &error) {
            return shown(error.what()) + "\nRun with --help for more information.\n";
        });
        app.footer(ending);
        app.set_version_flag("-V,--version", "tandrelctl " TANDREL_VERSION);
        app.add_option("-i,--interface-prefix", request.options.prefix,
                       "Prefix of the names of managed links, as for tandrel -i (default: eth)")
            ->type_name("PREFIX")
            ->check([](const std::string &text) {
                if (text.empty()) {
                    return std::string("must not be empty");
                }
                return text.find_first_of("/ \t\n") == std::string::npos
                           ? std::string()
                           : "'" + text + "' cannot begin the name of a link";
            });
        app.add_option("--color", colour, "auto (on a terminal), always or never")
            ->type_name("WHEN")
            ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
        add_looking();
        add_state();
        add_address();
        add_gateway();
        add_interface();
        add_rest();
    }

    request_t parse(int argc, char **argv) {
        std::vector<std::string> words(argv + 1, argv + argc);
        complete_commands(app, words);
        std::reverse(words.begin(), words.end()); // as CLI11 wants them
        try {
            app.parse(words);
        } catch (const CLI::RequiredError &error) {
            request.result = complain(error);
            request.command = nullptr;
            return std::move(request);
        } catch (const CLI::ParseError &error) {
            // CLI11 also throws for help and version, which are not errors.
            request.result = app.exit(error) == 0 ? exit_done : exit_usage;
            request.command = nullptr;
            return std::move(request);
        }
        if (waits()) {
            request.options.patience = std::stod(patience);
        }
        const std::string option = " -i " + shown_word(request.options.prefix);
        prefix_options = {request.options.prefix == usual_prefix ? "" : option,
                          request.options.prefix == "eth" ? "" : option};
        if (colour != "auto") {
            request.options.colour =
                colour == "always" ? tav::terminal::Color::always : tav::terminal::Color::never;
        }
        return std::move(request);
    }

private:
    // The services' default file gives the daemon's options; its prefix is the default here.
    void read_environment() {
        const char *given = std::getenv("TANDREL_OPTIONS");
        std::istringstream words(given != nullptr ? given : "");
        for (std::string word; words >> word;) {
            if (word == "-i") {
                words >> request.options.prefix;
            } else if (word.compare(0, 2, "-i") == 0) {
                request.options.prefix = word.substr(2);
            }
        }
        usual_prefix = request.options.prefix;
    }

    // For a wrong command CLI11 only says that a command is required.
    int complain(const CLI::RequiredError &error) {
        const std::vector<std::string> words = app.remaining(true);
        if (app.get_subcommands().empty()) {
            std::cerr << "tandrelctl: "
                      << (words.empty() ? "a command is missing"
                                        : unknown_command(app, words.front()))
                      << "\n'tandrelctl --help' lists the commands\n";
            return exit_usage;
        }
        for (const CLI::App *group : app.get_subcommands()) {
            if (group->get_require_subcommand_min() == 1 && group->get_subcommands().empty()) {
                if (!words.empty()) {
                    std::cerr << "tandrelctl: " << unknown_command(*group, words.front()) << '\n';
                }
                std::cerr << "tandrelctl: '" << group->get_name() << "' needs one of";
                const char *separator = ": ";
                for (const CLI::App *choice : group->get_subcommands({})) {
                    std::cerr << separator << choice->get_name();
                    separator = ", ";
                }
                std::cerr << " (see 'tandrelctl " << group->get_name() << " --help')\n";
                return exit_usage;
            }
        }
        app.exit(error);
        return exit_usage;
    }

    CLI::App *add(CLI::App &to, const char *name, const char *what, command_t command) {
        CLI::App *sub = to.add_subcommand(name, what);
        sub->group("Subcommands");
        sub->fallthrough();
        sub->callback([this, command] { request.command = command; });
        return sub;
    }

    CLI::App *add_group(const char *name, const char *what) {
        CLI::App *group = app.add_subcommand(name, what);
        group->group("Subcommands");
        group->require_subcommand(1);
        group->fallthrough();
        return group;
    }

    void add_link(CLI::App *sub) {
        sub->add_option("LINK", request.options.link, "The link, such as eth0")
            ->type_name("")
            ->required();
    }

    void add_optional_link(CLI::App *sub, const char *what) {
        sub->add_option("LINK", request.options.link, what)->type_name("");
    }

    void add_link_or_all(CLI::App *sub) {
        add_optional_link(sub, "The link, such as eth0 (default: all links)");
    }

    void add_json(CLI::App *sub, const char *what = "Print JSON") {
        sub->add_flag("--json", request.options.json, what);
    }

    void add_dry_run(CLI::App *sub) {
        sub->add_option("--confirm", request.options.term,
                        "Revert the change after SECONDS, unless 'tandrelctl confirm' is run first")
            ->type_name("SECONDS")
            ->check(seconds_from(0.001, 86400));
        sub->add_flag("--dry-run", request.options.dry_run,
                      "Change nothing; print what would change in the store and in the kernel");
    }

    void add_unchecked(CLI::App *sub,
                       const char *what = "Store it even if the kernel will refuse it") {
        sub->add_flag("--force", request.options.force, what);
    }

    void add_wait(CLI::App *sub) {
        add_dry_run(sub);
        CLI::Option *flag =
            sub->add_flag("--wait{10}", patience,
                          "Wait until the kernel has made the change, or say after 10 seconds why "
                          "it has not; --wait=S sets another time");
        flag->check(seconds_from(0, 1e6));
        wait_flags.push_back(flag);
    }

    bool waits() const {
        for (const CLI::Option *flag : wait_flags) {
            if (flag->count() > 0) {
                return true;
            }
        }
        return false;
    }

    void add_looking() {
        CLI::App *sub = add(app, "show", "Show both views side by side", show);
        add_link_or_all(sub);
        sub->add_flag("-a,--all", request.options.all, "Include links that are not synchronised");
        add_json(sub);

        sub = add(app, "check", "Say whether kernel and store agree, and if not, why", check);
        add_link_or_all(sub);
        sub->add_flag("-a,--all", request.options.all,
                      "Include notes on links that tandrel ignores by design");
        sub->add_flag("--no-notes", request.options.no_notes,
                      "Omit the notes on entries that tandrel ignores by design");
        sub->add_flag("-q,--quiet", request.options.quiet,
                      "Print nothing; only set the exit status");
        add_json(sub);
        sub->footer("Exit status 0: kernel and store agree; 1: they differ.");

        sub = add(app, "watch",
                  "Show both views and update them at every change, until interrupted", watch);
        add_link_or_all(sub);
        add_json(sub, "Print the state as one line of JSON at every change");
        sub->footer(
            "On a terminal the table is redrawn, with the latest changes below it; q quits, "
            "arrow and\npage keys scroll. Otherwise every change is printed as a line.");
    }

    void add_state() {
        CLI::App *sub = add(app, "status", "Show the state of store, daemon and links", status);
        add_json(sub);
        sub->footer("Exit status 0: store and daemon work; 1: the daemon does not; 3: the store "
                    "does not answer.");

        sub = add(app, "wait", "Wait until a link's stored settings can be used", wait_online);
        add_optional_link(sub, "The link, such as eth0");
        sub->add_flag(
            "--online", request.options.online,
            "Instead of LINK: wait for all connected links that have stored settings, and "
            "for at least one");
        sub->add_option("--timeout", request.options.patience,
                        "After this time, print what is missing and exit with status 4 "
                        "(default: 120)")
            ->type_name("SECONDS")
            ->check(seconds_from(0, 1e6));
    }

    void add_address() {
        CLI::App *group = add_group("address", "Add, replace or delete an address in the store");
        CLI::App *sub = add(*group, "add", "Store a new Static address", address_add);
        add_link(sub);
        sub->add_option("ADDRESS/LENGTH", request.options.address, "Such as 2001:db8::5/64")
            ->type_name("")
            ->required();
        sub->add_option("--node", request.options.node,
                        "Name of its node (default: the smallest free number)")
            ->type_name("NAME");
        add_unchecked(sub);
        add_wait(sub);
        sub->footer("Example: tandrelctl address add eth0 2001:db8::5/64 --node office --wait");

        sub = add(*group, "replace",
                  "Give a stored address another prefix length, and make it Static; add it if it "
                  "is not stored",
                  address_replace);
        add_link(sub);
        sub->add_option("ADDRESS/LENGTH", request.options.address, "Such as 2001:db8::5/48")
            ->type_name("")
            ->required();
        add_unchecked(sub);
        add_wait(sub);
        sub->footer("Example: tandrelctl address replace eth0 2001:db8::5/48");

        sub = add(*group, "del", "Remove an address from the store", address_delete);
        add_link(sub);
        sub->add_option("ADDRESS[/LENGTH]", request.options.address, "Such as 2001:db8::5")
            ->type_name("");
        sub->add_option("--node", request.options.node,
                        "Remove the node with this name, with any content, instead of an address")
            ->type_name("NAME");
        sub->add_flag(
            "--force", request.options.force,
            "Also remove an address that the kernel assigned itself; it comes back if the "
            "kernel keeps it");
        add_wait(sub);
        sub->footer("Examples: tandrelctl address del eth0 2001:db8::5\n"
                    "          tandrelctl address del eth0 --node office");
    }

    void add_gateway() {
        CLI::App *group =
            add_group("gateway", "Set or clear a link's default gateway in the store");
        CLI::App *sub = add(*group, "set", "Store the default gateway", gateway_set);
        add_link(sub);
        sub->add_option("ADDRESS", request.options.address, "The router's address, such as fe80::1")
            ->type_name("")
            ->required();
        add_unchecked(sub);
        add_wait(sub);
        sub = add(*group, "clear", "Remove the default gateway from the store", gateway_clear);
        add_link(sub);
        add_wait(sub);
    }

    void add_interface() {
        CLI::App *group =
            add_group("interface", "List, add, delete or merge interface nodes of the store");
        CLI::App *sub = add(*group, "list", "List links and interface nodes", interface_list);
        sub->add_flag("-a,--all", request.options.all, "Include links that are not synchronised");
        add_json(sub);
        sub = add(*group, "add", "Create the node of a link, so that tandrel manages the link",
                  interface_add);
        add_link(sub);
        add_unchecked(sub, "Create it even if the kernel has no such link, or tandrel would not "
                           "manage the link");
        add_dry_run(sub);
        sub = add(*group, "del", "Remove a link's node with all that is stored for the link",
                  interface_delete);
        add_optional_link(sub, "The link, such as eth0");
        sub->add_option("--node", request.options.node,
                        "Instead of LINK: remove the node with this name, which may belong to no "
                        "link")
            ->type_name("NAME");
        sub->add_flag("--force", request.options.force,
                      "Remove the node even if it contains settings");
        add_dry_run(sub);
        sub = add(*group, "merge",
                  "Move a link's settings from nodes such as 01 to the node that tandrel writes to",
                  interface_merge);
        add_link(sub);
        sub->add_flag("--force", request.options.force,
                      "Merge even if those nodes contain elements that tandrel does not know; "
                      "these are lost");
        add_dry_run(sub);
    }

    void add_rest() {
        CLI::App *sub =
            add(app, "import", "Show which of the kernel's settings can be stored", import_kernel);
        add_link_or_all(sub);
        // The only source, but required: with --write the command changes the store.
        sub->add_flag("--from-kernel", from_kernel,
                      "Read the kernel's permanent addresses and default gateway (required)")
            ->required();
        sub->add_flag("--write", request.options.write, "Store them as Static");
        sub->add_option("--confirm", request.options.term,
                        "With --write: revert it after SECONDS, unless 'tandrelctl confirm' is run "
                        "first")
            ->type_name("SECONDS")
            ->check(seconds_from(0.001, 86400));
        sub->add_flag("--dry-run", request.options.dry_run, "Change nothing, even with --write");

        sub = add(app, "confirm", "Keep a change that was made with --confirm", confirm);
        sub->add_option("N", request.options.number,
                        "The number that was printed (default: your only change)")
            ->type_name("")
            ->check([](const std::string &text) {
                std::uint64_t number = 0;
                const char *const end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, number);
                return error == std::errc() && stop == end && number > 0
                           ? std::string()
                           : "'" + text + "' is not the number of a change";
            });

        add(app, "nudge", "Make tandrel synchronise now", nudge);

        sub = add(app, "keep",
                  "Restore settings that links lost while they were down or without IPv6; runs "
                  "permanently",
                  keep);
        CLI::Option *list =
            sub->add_flag("--list", request.options.list,
                          "Print what is remembered and what it waits for, and exit");
        CLI::Option *forget =
            sub->add_flag("--forget", request.options.forget,
                          "Forget all that is remembered about LINK, or only ADDRESS, and exit")
                ->excludes(list);
        sub->add_option("LINK", request.options.link, "The link, such as eth0")
            ->type_name("")
            ->needs(forget);
        sub->add_option("ADDRESS", request.options.address,
                        "A Static address, or the gateway's address")
            ->type_name("")
            ->needs(forget);
        sub->footer("The packages run it as the service tandrel-keep.");
    }

    CLI::App app{
        "Shows a device's IPv6 settings in the kernel and in the store, and changes the store.",
        "tandrelctl"};
    request_t request;
    std::string usual_prefix; // without -i
    std::vector<CLI::Option *> wait_flags;
    std::string patience; // a text, because CLI11 would cut the fraction off a flag's number
    std::string colour = "auto";
    bool from_kernel = false;
};

} // namespace

request_t parse(int argc, char **argv) {
    return parser_t().parse(argc, argv);
}

} // namespace ctl
