#include "ctl/tool.h"

#include "store/paths.h"
#include "store/tav_values.h"

#ifdef TANDREL_STORE_STATUS
#include "client/admin.h"

// Weak, because the unit tests do not link the store's library.
namespace tav {
__attribute__((weak)) int state_program(mlr_client_t *client, const std::string &name,
                                        api_status_t &status);
}
#endif

namespace ctl {

namespace {

// For the store's history. A store that does not want to know it is no failure.
void state_name(mlr_client_t *client) {
#ifdef TANDREL_STORE_STATUS
    api_status_t status = api_status_none;
    if (&tav::state_program != nullptr && client != nullptr) {
        tav::state_program(client, "tandrelctl", status);
    }
#else
    static_cast<void>(client);
#endif
}

} // namespace

kernel_view_t (*kernel_reader)() = read_kernel;
bool library_reports = true;
bool store_forbidden = false;

bool client_t::connect() {
    if (tav.handle == nullptr && !given_up) {
        tav.handle = mlr_init();
        state_name(tav.handle);
    }
    return connected();
}

const char *unreachable_text() {
    return store_forbidden ? "this user may not use the settings store (root, its own user and "
                             "members of its group may)"
                           : "the settings store cannot be reached; is its service running?";
}

void client_t::require() {
    if (!connect()) {
        throw store_lost(unreachable_text());
    }
}

void client_t::disconnect() {
    if (tav.handle != nullptr) {
        mlr_close(tav.handle);
        tav.handle = nullptr;
    }
    subscribed = false;
}

void client_t::give_up() {
    disconnect();
    given_up = true;
}

bool client_t::subscribe() {
    if (!subscribed && connect()) {
        api_status_t status = tav_value::status_unset;
        subscribed =
            tav.event_register(paths::interfaces, tav_value::event_change, true, status) == 0;
        if (!subscribed) {
            disconnect();
        }
    }
    return subscribed;
}

void client_t::take_events() {
    std::vector<toolkit::CEvent> events;
    if (tav.events_get(events) < 0) {
        throw store_lost(store_silent);
    }
}

comparison_t look(client_t &client, const options_t &options) {
    const store_view_t store = read_store(client.tav, options.prefix);
    return compare(kernel_reader(), store, options.prefix);
}

} // namespace ctl
