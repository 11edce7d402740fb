#include "service/wake.h"

#include <algorithm>

#include "protocol/protocol.h"

namespace tav {

void Wake::want(Time now) {
    if (!outstanding && !wanted_since) {
        wanted_since = now;
    }
}

void Wake::event(Time now) {
    want(now);
}

void Wake::request(Time now, bool unfetched) {
    last_request = now;
    if (unfetched) {
        want(now);
    }
}

void Wake::ping(Time now) {
    if (wanted_since && last_request) {
        // The client is still handling the results of its last synchronisation: a slow client takes
        // longer than the pause for that, and each of its cycles begins with a ping.
        last_request = now;
    }
}

bool Wake::acknowledge(Time now) {
    if (!outstanding) {
        return false;
    }
    outstanding = false;
    acknowledged = now;
    return true;
}

bool Wake::fetch(Time now) {
    const bool drain = outstanding;
    outstanding = false;
    wanted_since.reset();
    last_request = now;
    return drain;
}

std::optional<Time> Wake::due() const {
    if (!wanted_since) {
        return std::nullopt;
    }
    Time due = *wanted_since;
    if (last_request) {
        // A client that is busy with its last synchronisation is not woken, but only for a limited
        // time.
        due = std::max(due, std::min(*last_request + wake_pause, *wanted_since + wake_wait_limit));
    }
    if (acknowledged) {
        due = std::max(due, *acknowledged + wake_pause);
    }
    return due;
}

void Wake::sent() {
    outstanding = true;
    wanted_since.reset();
}

} // namespace tav
