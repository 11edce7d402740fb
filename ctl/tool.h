// What the commands of tandrelctl share: the options, the connection to the store, the exit codes.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ctl/compare.h"
#include "terminal/screen.h"

namespace ctl {

// Exit codes. They are part of the tool's interface.
constexpr int exit_done = 0;        // done; the views agree
constexpr int exit_differs = 1;     // the views differ; the change was refused; no such item
constexpr int exit_usage = 2;       // the command line is wrong
constexpr int exit_unreachable = 3; // the settings store, or the kernel, does not answer
constexpr int exit_not_there = 4;   // stored, but not in the kernel within the time of --wait

constexpr double default_patience = 10; // seconds

// All options of the command line.
struct options_t {
    std::string prefix = "eth";
    bool json = false;
    tav::terminal::Color colour = tav::terminal::Color::automatic;
    bool all = false;                    // show, check: include links that the daemon ignores
    bool no_notes = false;               // check
    bool quiet = false;                  // check
    bool force = false;                  // every change that may be refused
    bool dry_run = false;                // every change
    bool write = false;                  // import
    bool list = false;                   // keep
    bool forget = false;                 // keep
    bool online = false;                 // wait
    std::string link;                    // empty: every link
    std::string address;                 // with its prefix length, or a gateway
    std::string node;                    // --node
    std::optional<double> term;          // --confirm: seconds
    std::optional<std::uint64_t> number; // confirm
    std::optional<double> patience;      // --wait, --timeout: seconds
};

// A request that the tool refuses; the text says why, and what to do instead.
class refusal : public std::runtime_error {
public:
    explicit refusal(const std::string &text, int exit_code = exit_differs)
        : std::runtime_error(text), code(exit_code) {}
    int code;
};

// Reads the kernel's view; the unit tests replace it.
extern kernel_view_t (*kernel_reader)();

// With another provider's store: why something is not to be had.
constexpr const char *only_with_tavd =
    "this needs tavd, and tandrelctl was built for another provider's store";

// Why there is no connection to the store, as far as is known.
const char *unreachable_text();

// A connection to the store that can be opened again after it is lost.
class client_t {
public:
    client_t() = default;
    ~client_t() { disconnect(); }
    client_t(const client_t &) = delete;
    client_t &operator=(const client_t &) = delete;

    // False when the store cannot be reached.
    bool connect();
    // The same, or throws store_lost.
    void require();
    // Connects and asks for events on every leaf below the interfaces' node; from then on the store
    // reports changes, and may refuse a write if another client has changed the store first.
    bool subscribe();
    // Fetches the pending events. Throws store_lost.
    void take_events();
    void disconnect();
    // The same, and makes each later attempt fail at once.
    void give_up();
    bool connected() const { return tav.handle != nullptr; }

    toolkit::CTav tav;
    std::uint64_t unconfirmed = 0; // the number of the change with a term that was made; 0: none

private:
    bool subscribed = false;
    bool given_up = false;
};

// While false the reports of the store's library are dropped (mlr_err).
extern bool library_reports;
// The store's library has reported that this user may not connect.
extern bool store_forbidden;

// Reads both views. Throws store_lost.
comparison_t look(client_t &client, const options_t &options);

// The commands. Each prints its own output and returns an exit code; failures are thrown.
int show(const options_t &options);
int check(const options_t &options);
int watch(const options_t &options);
int address_add(const options_t &options);
int address_replace(const options_t &options);
int address_delete(const options_t &options);
int gateway_set(const options_t &options);
int gateway_clear(const options_t &options);
int interface_list(const options_t &options);
int interface_add(const options_t &options);
int interface_delete(const options_t &options);
int interface_merge(const options_t &options);
int import_kernel(const options_t &options);
int nudge(const options_t &options);
int keep(const options_t &options);
int status(const options_t &options);
int confirm(const options_t &options);
int wait_online(const options_t &options);

} // namespace ctl
