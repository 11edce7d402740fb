// The command nudge: makes the daemon synchronise now.
#include <limits>

#include "ctl/daemon_state.h"
#include "ctl/edit.h"

namespace ctl {

namespace {

// Any interface will do: the daemon synchronises all of them.
void nudge_once(const options_t &options) {
    client_t client;
    client.require();
    for (const stored_interface_t &interface : read_store(client.tav, options.prefix).interfaces) {
        const bool has_path = interface.number <= std::numeric_limits<std::int32_t>::max();
        if (interface.number != 0 && has_path) {
            nudge_daemon(client, options, interface.number);
            return;
        }
    }
    throw refusal("the store has no interface node, so there is nothing to synchronise; create one "
                  "with 'tandrelctl interface add'");
}

} // namespace

int nudge(const options_t &options) {
    nudge_once(options);
    client_t client;
    const auto finding = daemon_finding(find_daemon(client));
    if (finding && finding->severity() == severity_t::difference) {
        const std::string remedy = finding->remedy();
        throw refusal("nothing was synchronised: tandrel: " + finding->sentence() +
                      (remedy.empty() ? "" : "\n    -> " + remedy));
    }
    return exit_done;
}

} // namespace ctl
