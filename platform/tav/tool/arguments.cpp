#include "tool/arguments.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>

#include "protocol/protocol.h"
#include "tool/text.h"

namespace tav::tool {

namespace {

constexpr const char *exit_codes =
    "Exit status: 0 done, 1 something absent or refused, 2 wrong usage, 3 no service.\n"
    "A transaction is done whole or not at all. 'tav COMMAND --help' tells more.";

class Parser {
public:
    Parser() {
        app.require_subcommand(1);
        app.footer(exit_codes);
        add_socket(app);
        add_reading();
        add_writing();
        add_rest();
    }

    Request parse(int argc, char **argv) {
        try {
            app.parse(argc, argv);
            take_pairs();
        } catch (const CLI::ParseError &error) {
            // Help comes this way, too, and is no error.
            request.result = app.exit(error) == 0 ? exit_done : exit_usage;
            request.command = nullptr;
            return std::move(request);
        }
        if (!socket.empty()) {
            ::setenv(socket_variable, socket.c_str(), 1);
        }
        return std::move(request);
    }

private:
    CLI::App *add(const char *name, const char *what, Command command) {
        CLI::App *sub = app.add_subcommand(name, what);
        sub->fallthrough();
        sub->callback([this, command] { request.command = command; });
        return sub;
    }

    void add_socket(CLI::App &to) {
        to.add_option("--socket", socket,
                      "The service's socket (else TAV_SOCKET, else " + std::string(default_socket) +
                          ")");
    }

    void add_paths(CLI::App *sub) {
        sub->add_option("PATH", request.options.paths, "Where")->required();
    }

    void add_path(CLI::App *sub, bool required) {
        sub->add_option("PATH", path, required ? "Where" : "Where; / when not given")
            ->required(required);
    }

    void add_json(CLI::App *sub, const char *what = "Print JSON") {
        sub->add_flag("--json", request.options.json, what);
    }

    void add_reading() {
        CLI::App *sub = add("get", "Print the values of leaves, one a line", get);
        add_json(sub);
        add_paths(sub);

        sub = add("ls", "Print the names of a node's children, one a line", list);
        sub->add_flag("-l", request.options.long_listing, "Print their types, too");
        add_json(sub);
        add_path(sub, false);

        sub = add("tree", "Print a subtree with its values", tree);
        add_json(sub);
        add_path(sub, false);

        sub = add("dump", "Print a subtree as JSON that 'load' reads", dump);
        sub->add_flag("--no-time", request.options.no_time, "Leave the time stamps out");
        add_path(sub, false);
    }

    void add_writing() {
        setter = add("set", "Write leaves: PATH VALUE [PATH VALUE]...", set);
        setter
            ->add_option("-t,--type", type_text,
                         "Type of the values: string (default), boolean, integer, real")
            ->check(CLI::IsMember({"string", "boolean", "integer", "real"}));
        // Everything from the first path on is taken as it stands, so that a value may begin
        // with "-".
        setter->prefix_command();
        setter->fallthrough(false);
        add_socket(*setter);
        setter->footer("Example: tav set -t integer /a/b -5 /a/c 7");

        add_paths(add("mknode", "Create nodes", make_node));
        add_paths(add("touch", "Make change events for leaves without changing them", touch));
        add_paths(add("rm", "Remove leaves, and nodes with all below them", remove));
        CLI::App *sub = add("load", "Write all that a dump holds; other elements stay", load);
        sub->add_option("FILE", request.options.file, "The dump; - for standard input")
            ->default_val("-");
    }

    void add_rest() {
        CLI::App *sub = add("watch", "Print the changes of leaves at or below a path", watch);
        sub->add_option("--count", request.options.count, "End after so many changes");
        sub->add_option("--timeout", timeout,
                        "End after so many seconds; with status 1 when --count was not reached")
            ->check(CLI::Range(0.0, 1e9));
        add_json(sub, "Print one JSON object a line");
        add_path(sub, false);

        sub = add("status", "Print clients, queues and watchdogs", status);
        add_json(sub);
    }

    // What CLI11 does not sort out by itself.
    void take_pairs() {
        Options &options = request.options;
        if (options.paths.empty()) {
            options.paths.push_back(path);
        }
        if (timeout >= 0) {
            options.timeout = timeout;
        }
        if (!setter->parsed()) {
            return;
        }
        options.type = leaf_type(type_text).value_or(element_type_string);
        options.words = setter->remaining();
        if (options.words.empty() || options.words.size() % 2 != 0) {
            throw CLI::ValidationError("set", "needs pairs of a path and a value");
        }
        for (std::size_t i = 0; i < options.words.size(); i += 2) {
            if (options.words[i].empty() || options.words[i].front() != '/') {
                throw CLI::ValidationError("set", "'" + options.words[i] + "' is no path");
            }
        }
    }

    CLI::App app{"Reads and writes the settings store.", "tav"};
    CLI::App *setter = nullptr;
    Request request;
    std::string socket;
    std::string path = "/";
    std::string type_text = "string";
    double timeout = -1;
};

} // namespace

Request parse(int argc, char **argv) {
    return Parser().parse(argc, argv);
}

} // namespace tav::tool
