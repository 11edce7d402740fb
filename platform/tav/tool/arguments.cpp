#include "tool/arguments.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include "protocol/limits.h"
#include "protocol/protocol.h"
#include "terminal/escape.h"
#include "terminal/help.h"
#include "tool/screen.h"
#include "tool/script.h"

namespace tav::tool {

namespace {

constexpr const char *overview =
    "Exit status: 0 done, 1 absent or refused, 2 wrong usage, 3 no service;\n"
    "             of diff: 0 no differences, 1 differences, 2 an error.\n"
    "Every change is one transaction: it is done completely or not at all.\n"
    "\n"
    "Examples:\n"
    "  tav tree                                   everything that is stored\n"
    "  tav set /office/lamp on                    write a value, and create missing parent nodes\n"
    "  tav get -r '/Main Hall'                    all values below a node\n"
    "  tav dump >saved; tav diff saved            what has changed since\n"
    "  tav load --replace saved                   restore what was saved\n"
    "\n"
    "For more see 'tav COMMAND --help' and tav(1).";

constexpr const char *set_footer =
    "No options are read after the first path, so a value may begin with '-'.\n"
    "Example: tav set -t integer /a/b -5 /a/c 7";

constexpr const char *apply_footer = "One step per line; all steps are one transaction:\n"
                                     "  set [-t TYPE] PATH VALUE [PATH VALUE]...\n"
                                     "  mknode PATH...    rm [-r] PATH...    touch PATH...\n"
                                     "Put words that contain blanks in \"\". The escapes \\n \\t "
                                     "\\\\ \\\" and \\xHH are as in the output of get and tree.\n"
                                     "Lines that begin with # are comments.";

constexpr const char *get_footer = "Control characters, backslashes and bytes that are not UTF-8 "
                                   "are printed as \\n \\t \\\\ \\xHH.";

// CLI11 does not know the words of 'set', so add them to the usage line.
class SetFormatter : public terminal::HelpFormatter {
public:
    std::string make_usage(const CLI::App *app, std::string name) const override {
        std::string usage = terminal::HelpFormatter::make_usage(app, std::move(name));
        usage.pop_back();
        return usage + " PATH VALUE [PATH VALUE]...\n";
    }
};

terminal::Color color_named(const std::string &name) {
    if (name == "always") {
        return terminal::Color::always;
    }
    return name == "never" ? terminal::Color::never : terminal::Color::automatic;
}

class Parser {
public:
    Parser() {
        app.require_subcommand(1);
        app.set_version_flag("-V,--version", "tav " TAV_VERSION, "Print the version");
        app.option_defaults()->always_capture_default(false);
        app.formatter(std::make_shared<terminal::HelpFormatter>());
        app.get_formatter()->label("REQUIRED", "");
        app.get_formatter()->label("SUBCOMMAND", "COMMAND");
        app.get_formatter()->label("Subcommands", "Commands");
        app.set_help_flag("-h,--help", "Print this help");
        add_common(app);
        add_reading();
        add_writing();
        add_files();
        add_rest();
        app.footer(overview);
    }

    Request parse(int argc, char **argv) {
        try {
            app.parse(argc, argv);
            choose_color(color_named(color));
            check_choices();
            take_pairs();
            take_paths();
            take_numbers();
        } catch (const CLI::ParseError &error) {
            request.result = report(error);
            request.command = nullptr;
            return std::move(request);
        }
        if (!socket.empty()) {
            ::setenv(socket_variable, socket.c_str(), 1);
        }
        return std::move(request);
    }

private:
    // CLI11's own message for an option without a value is hard to understand.
    static std::string words_for(const CLI::ParseError &error) {
        const std::string words = error.what();
        return error.get_name() == "ArgumentMismatch"
                   ? shown(words.substr(0, words.find(':'))) + " needs a value"
                   : shown(words);
    }

    // CLI11 also throws for help, which is not an error.
    int report(const CLI::ParseError &error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            app.exit(error);
            return exit_done;
        }
        const std::vector<CLI::App *> chosen = app.get_subcommands();
        if (!chosen.empty()) {
            complain(words_for(error) + "; try: tav " + chosen.front()->get_name() + " --help");
            return exit_usage;
        }
        const std::vector<std::string> unknown = app.remaining();
        if (!unknown.empty() && unknown.front() == "help") {
            std::cout << app.help();
            return exit_done;
        }
        std::string known;
        for (const CLI::App *command : app.get_subcommands(nullptr)) {
            known += (known.empty() ? "" : ", ") + command->get_name();
        }
        complain((unknown.empty() ? "a command is missing"
                                  : "'" + shown(unknown.front()) + "' is not a command") +
                 std::string("; the commands are ") + known + "; try: tav --help");
        return exit_usage;
    }

    CLI::App *add(const char *name, const char *what, Command command) {
        CLI::App *sub = app.add_subcommand(name, what);
        sub->callback([this, command] { request.command = command; });
        sub->group("Commands");
        add_common(*sub);
        return sub;
    }

    void add_common(CLI::App &to) {
        const std::string group =
            &to == &app ? to.option_defaults()->get_group() : "Options of every command";
        to.add_option("--socket", socket,
                      "The service's socket (default: TAV_SOCKET, or " +
                          std::string(default_socket) + ")")
            ->type_name("FILE")
            ->group(group);
        to.add_option("--color", color, "Colours: always, never, or auto (on a terminal)")
            ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
            ->type_name("WHEN")
            ->group(group);
    }

    void add_escaped(CLI::App *sub) {
        sub->add_flag("-e,--escaped", escaped_words,
                      "Interpret backslash escapes in paths and values, as in the output");
    }

    void add_paths(CLI::App *sub) {
        add_escaped(sub);
        sub->add_option("PATH", request.options.paths, "Paths")->required()->type_name("");
    }

    void add_path(CLI::App *sub) {
        add_escaped(sub);
        sub->add_option("PATH", path, "The path (default: /)")->type_name("");
    }

    void add_term(CLI::App *sub) {
        sub->add_option("--confirm", term,
                        "Revert the change after SECONDS, unless 'tav confirm' is run first")
            ->type_name("SECONDS");
    }

    void add_json(CLI::App *sub, const char *what = "Print JSON") {
        sub->add_flag("--json", request.options.json, what);
    }

    void add_reading() {
        CLI::App *sub = add("get", "Print the values of leaves, one per line", get);
        sub->add_flag("-r,--recursive", request.options.recursive,
                      "Print path and value of every leaf at and below the paths");
        sub->add_flag("--raw", request.options.raw,
                      "Print the bytes of one value and nothing else (escaped on a terminal)");
        sub->footer(get_footer);
        add_json(sub);
        add_paths(sub);

        sub = add("ls", "Print the names of a node's children, one per line", list);
        sub->add_flag("-l,--long", request.options.long_listing, "Also print their types");
        add_json(sub);
        add_path(sub);

        sub = add("tree", "Print a subtree with types and values", tree);
        add_json(sub);
        add_path(sub);
    }

    void add_writing() {
        setter = add("set", "Write leaves: PATH VALUE [PATH VALUE]...", set);
        setter->add_option("-t,--type", type_text, "string (default), boolean, integer or real")
            ->check(CLI::IsMember({"string", "boolean", "integer", "real"}).description(""))
            ->type_name("TYPE");
        setter
            ->add_option(
                "--if", condition,
                "Write only if the leaf has the value OLD and the type TYPE; only with one path")
            ->type_name("OLD");
        add_term(setter);
        add_escaped(setter);
        setter->prefix_command();
        setter->formatter(std::make_shared<SetFormatter>());
        setter->footer(set_footer);

        add_paths(add("mknode", "Create nodes and their missing parent nodes", make_node));
        add_paths(add("touch", "Send change events for leaves without changing them", touch));
        CLI::App *sub = add("rm", "Remove leaves and empty nodes", remove);
        sub->add_flag("-r,--recursive", request.options.recursive,
                      "Remove nodes with everything below them");
        add_term(sub);
        add_paths(sub);
        sub = add("apply", "Carry out the steps of a file as one transaction", apply);
        add_term(sub);
        add_file(sub, "File with the steps (default: -, standard input)");
        sub->footer(apply_footer);
    }

    CLI::Option *add_file(CLI::App *sub, const char *what) {
        request.options.file = "-";
        return sub->add_option("FILE", request.options.file, what)->type_name("");
    }

    void add_files() {
        CLI::App *sub = add("dump", "Print a subtree as JSON that 'load' reads", dump);
        sub->add_flag("--no-time", request.options.no_time, "Omit the time stamps");
        add_path(sub);

        sub = add("load", "Write the elements of a dump", load);
        sub->add_flag(
            "--replace", request.options.replace,
            "Remove elements at and below the dump's path that the dump does not contain");
        sub->add_flag("--merge", merge, "Keep other elements (the default)");
        sub->add_flag("--parts", request.options.parts,
                      "Use several transactions, for a dump that is too large for one");
        add_term(sub);
        add_file(sub, "File with the dump (default: -, standard input)");

        sub = add("diff", "Print what differs between a dump and the store", diff);
        add_file(sub, "File with the dump (-: standard input)")->required();
        sub->footer("Lines with - are in the dump only, lines with + in the store only.\n"
                    "Exit status: 0 no differences, 1 differences, 2 an error.");
    }

    void add_history() {
        CLI::App *sub = add("history", "Print who changed what, oldest first", history);
        sub->add_option("--since", number, "Only entries with a number above N")->type_name("N");
        add_json(sub);
        add_path(sub);
        sub = add("undo", "Undo the last change that no service made, or entry N of the history",
                  undo);
        sub->add_option("N", number, "The number of the entry")->type_name("");
        add_term(sub);
        sub->footer("Refused if an element of the entry has changed since.");
        sub = add("confirm", "Keep a change that was made with --confirm", confirm);
        sub->add_option("N", number, "The number that was printed (default: your only change)")
            ->type_name("");
    }

    void add_rest() {
        add_history();
        CLI::App *sub = add("watch", "Print the changes of leaves at or below a path", watch);
        sub->add_option("--count", count, "Exit after N changes")->type_name("N");
        sub->add_option("--timeout", timeout,
                        "Exit after SECONDS, with status 1 if --count was not reached")
            ->type_name("SECONDS");
        add_json(sub, "Print one JSON object per line");
        add_path(sub);

        sub = add("status",
                  "Print the service's state, limits, clients, watchdogs and unconfirmed changes",
                  status);
        add_json(sub);
    }

    // A path or value of the command line.
    std::string word(const std::string &given) const {
        if (!escaped_words) {
            return given;
        }
        const std::optional<std::string> plain = terminal::unescaped(given);
        if (!plain) {
            throw CLI::ValidationError("'" + given +
                                       "' contains a backslash that does not begin an escape");
        }
        return *plain;
    }

    // Checked here, because CLI11's own checks would clutter the help.
    void check_choices() const {
        const Options &options = request.options;
        if (options.raw && (options.json || options.recursive || options.paths.size() > 1)) {
            throw CLI::ValidationError(
                "--raw takes one path, and cannot be combined with -r or --json");
        }
        if (merge && options.replace) {
            throw CLI::ValidationError("--merge and --replace cannot be combined");
        }
        if (options.parts && term) {
            throw CLI::ValidationError("--confirm cannot be combined with --parts");
        }
    }

    void take_paths() {
        Options &options = request.options;
        if (options.paths.empty()) {
            options.paths.push_back(path);
        }
        for (std::string &given : options.paths) {
            given = trimmed_path(word(given));
        }
    }

    // CLI11's own numbers include nan, and -1 as a large one.
    void take_numbers() {
        Options &options = request.options;
        if (count) {
            const char *end = count->data() + count->size();
            const auto [stop, error] = std::from_chars(count->data(), end, options.count);
            if (error != std::errc() || stop != end || options.count == 0) {
                throw CLI::ValidationError("'" + *count + "' is not a count: it must be 1 or more");
            }
        }
        if (number) {
            std::uint64_t value = 0;
            const char *end = number->data() + number->size();
            const auto [stop, error] = std::from_chars(number->data(), end, value);
            if (error != std::errc() || stop != end) {
                throw CLI::ValidationError("'" + *number +
                                           "' is not the number of an entry of the history");
            }
            options.number = value;
        }
        if (term) {
            char *end = nullptr;
            const double seconds = std::strtod(term->c_str(), &end);
            constexpr double most = limits::confirm_term / 1000.0;
            const bool possible = seconds >= 0.001 && seconds <= most; // not for nan
            if (term->empty() || *end != '\0' || !possible) {
                throw CLI::ValidationError("'" + *term +
                                           "' is not a time: it must be 0.001 to 86400 seconds");
            }
            options.term = static_cast<std::uint32_t>(std::lround(seconds * 1000));
        }
        if (timeout) {
            char *end = nullptr;
            options.timeout = std::strtod(timeout->c_str(), &end);
            const bool possible = *options.timeout >= 0 && *options.timeout <= 1e9; // not for nan
            if (timeout->empty() || *end != '\0' || !possible) {
                throw CLI::ValidationError("'" + *timeout +
                                           "' is not a time: it must be 0 to 1000000000 seconds");
            }
        }
    }

    // Takes the pairs of 'set' from the words that CLI11 did not parse.
    void take_pairs() {
        if (!setter->parsed()) {
            return;
        }
        Options &options = request.options;
        options.type = leaf_type(type_text).value_or(element_type_string);
        options.words = setter->remaining();
        if (options.words.empty() || options.words.size() % 2 != 0) {
            throw CLI::ValidationError("set needs pairs of a path and a value");
        }
        if (condition) {
            if (options.words.size() != 2) {
                throw CLI::ValidationError("--if allows only one path and value");
            }
            options.condition = word(*condition);
        }
        for (std::size_t i = 0; i < options.words.size(); i += 2) {
            options.words[i] = trimmed_path(word(options.words[i]));
            options.words[i + 1] = word(options.words[i + 1]);
            if (options.words[i].empty() || options.words[i].front() != '/') {
                throw CLI::ValidationError("'" + options.words[i] +
                                           "' is not a path: a path begins with /");
            }
        }
    }

    CLI::App app{"Reads and writes the settings store.", "tav"};
    CLI::App *setter = nullptr;
    Request request;
    std::string socket;
    std::string path = "/";
    std::string type_text = "string";
    std::string color = "auto";
    bool merge = false;
    bool escaped_words = false;
    std::optional<std::string> count;
    std::optional<std::string> number;
    std::optional<std::string> condition;
    std::optional<std::string> timeout;
    std::optional<std::string> term;
};

} // namespace

Request parse(int argc, char **argv) {
    return Parser().parse(argc, argv);
}

} // namespace tav::tool
