// The layout of --help for the tools of this project.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace tav::terminal {

// CLI11's own layout differs between versions; newer ones even join the lines of the examples at
// the end. This layout is the same with each of them.
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() { label("POSITIONALS", "Positionals"); }

    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override {
        const std::string end = app->get_footer();
        return app->get_description() + "\n" + make_usage(app, std::move(name)) +
               make_positionals(app) + make_groups(app, mode) + make_subcommands(app, mode) +
               (end.empty() ? "" : "\n" + end + "\n");
    }

    // Some versions put empty lines around it, and print "Usage:" only if there is no name.
    std::string make_usage(const CLI::App *app, std::string name) const override {
        std::string usage = Formatter::make_usage(app, std::move(name));
        usage.erase(0, usage.find_first_not_of('\n'));
        usage.erase(usage.find_last_not_of('\n') + 1);
        return (usage.rfind("Usage:", 0) == 0 ? "" : "Usage: ") + usage + "\n";
    }

    std::string make_group(std::string title, bool is_positional,
                           std::vector<const CLI::Option *> options) const override {
        return Formatter::make_group(title == "OPTIONS" ? "Options" : std::move(title),
                                     is_positional, std::move(options));
    }

    std::string make_option(const CLI::Option *option, bool is_positional) const override {
        return row(make_option_name(option, is_positional) + make_option_opts(option),
                   make_option_desc(option));
    }

    std::string make_subcommand(const CLI::App *command) const override {
        return row(command->get_display_name(true), command->get_description());
    }

private:
    std::string row(const std::string &name, const std::string &what) const {
        std::string left = "  " + name;
        const std::size_t width = get_column_width();
        if (left.size() >= width) {
            left += "\n" + std::string(width, ' ');
        } else {
            left.resize(width, ' ');
        }
        return left + what + "\n";
    }
};

} // namespace tav::terminal
