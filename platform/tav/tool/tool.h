// The commands of the tool, their exit codes, and the connection that they share.
#pragma once

#include <tav/toolkit.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tav::tool {

// Exit codes. They are part of the tool's interface.
constexpr int exit_done = 0;
constexpr int exit_refused = 1; // something absent or refused; watch: fewer changes than asked for
constexpr int exit_usage = 2;   // the command line is wrong
constexpr int exit_unreachable = 3; // no service, or it went away
// diff, like diff(1):
constexpr int exit_different = 1;
constexpr int exit_trouble = 2; // any error

// All options of the command line.
struct Options {
    std::vector<std::string> paths;
    // set: path, value, path, value, ...
    std::vector<std::string> words;
    element_type_t type = element_type_string;
    std::string file; // "-": standard input or output
    bool json = false;
    bool long_listing = false;
    bool no_time = false;
    bool recursive = false;
    bool raw = false;
    bool replace = false;
    bool parts = false;
    std::uint64_t count = 0;              // 0: unlimited
    std::optional<std::uint64_t> number;  // of an entry of the history
    std::optional<std::string> condition; // set: the value that the leaf must have
    std::optional<double> timeout;        // seconds
    std::uint32_t term = 0; // to confirm the change, in milliseconds; 0: it needs none
};

// A connection for as long as the object lives.
class Client {
public:
    Client() : tav(mlr_init()) {}
    ~Client() { mlr_close(tav.handle); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool connected() const { return tav.handle != nullptr; }
    mlr_client_t *handle() const { return tav.handle; }

    toolkit::CTav tav;
    std::uint32_t term = 0; // of its transactions; see Options
};

// The commands. Each prints its own messages and returns an exit code.
int get(Client &client, const Options &options);
int list(Client &client, const Options &options);
int tree(Client &client, const Options &options);
int set(Client &client, const Options &options);
int make_node(Client &client, const Options &options);
int touch(Client &client, const Options &options);
int remove(Client &client, const Options &options);
int apply(Client &client, const Options &options);
int watch(Client &client, const Options &options);
int dump(Client &client, const Options &options);
int load(Client &client, const Options &options);
int diff(Client &client, const Options &options);
int history(Client &client, const Options &options);
int undo(Client &client, const Options &options);
int confirm(Client &client, const Options &options);
int status(Client &client, const Options &options);

} // namespace tav::tool
