// What discovery needs beside its steps: dumps that never end, and dumps that lack records.

#include "netlink/dump.h"
#include "shell/log.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

constexpr std::chrono::seconds discovery_limit(30);
constexpr int max_dump_repeats = 3;

} // namespace

void CSync::note_dump_request() {
    last_dump_request = std::chrono::steady_clock::now();
}

// Notifications never bear the marks of an incomplete dump, so every datagram may be asked.
void CSync::note_incomplete_dump(const unsigned char *buffer, int length) {
    if (state != state_normal && dump_is_incomplete(buffer, length)) {
        dump_incomplete = true;
    }
}

// An address that an interrupted dump left out would be taken for vanished and removed from the
// store. Under steady churn no dump is ever complete, hence the limit. Returns whether the present
// step's request was sent again.
bool CSync::repeat_incomplete_dump() {
    const bool repeat = dump_incomplete && dump_repeats < max_dump_repeats;
    dump_incomplete = false;
    if (!repeat) {
        dump_repeats = 0;
        return false;
    }
    switch (state) {
    case state_links:
        netlink->request_links();
        break;
    case state_addrs:
        netlink->request_addrs();
        break;
    case state_routes:
        netlink->request_routes();
        break;
    default:
        return false;
    }
    ++dump_repeats;
    log_info_at(3, "%s: dump was interrupted, requested it again",
                "bool CSync::repeat_incomplete_dump()");
    note_dump_request();
    return true;
}

// A request that the kernel answers by an error alone has no end that could be waited for. Looked
// at by run after each cycle, and so thrown in its name.
void CSync::check_discovery_time() const {
    if (state != state_normal &&
        std::chrono::steady_clock::now() - last_dump_request >= discovery_limit) {
        throw sync_err(error_text("%s: discovery did not end in time", "int CSync::run()"));
    }
}
