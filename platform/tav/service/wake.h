// When a client is woken: the rules of its descriptor, without sockets and without a clock of their
// own. PROTOCOL.md says why they are right.
//
// A client is "signalled" from the moment the wake-up byte was sent until a fetch or a ping
// acknowledged it, and at no time is there more than one byte that was not acknowledged. Every
// member takes the current time, which never goes back.
#ifndef TAV_SERVICE_WAKE_H
#define TAV_SERVICE_WAKE_H

#include <chrono>
#include <optional>
#include <tuple>

namespace tav {

using Time = std::chrono::steady_clock::time_point;

class Wake {
public:
    // An event was added to the client's queue.
    void event(Time now);
    // The client made a request other than a ping or a fetch; `unfetched` tells whether events wait
    // for it. Those that only pings acknowledged are signalled again: a client that works on asks
    // for its events, and the descriptor must not stay silent about them.
    void request(Time now, bool unfetched);
    // The client pinged. True when that acknowledges the byte, which the client must then drain.
    // Only a byte that was there at the previous ping already is acknowledged: between the two the
    // client has waited on its descriptor, and was shown it readable. While a byte waits for the
    // client's pause after a request, a ping counts as one: the client is still at work.
    bool ping(Time now);
    // The client fetched everything. True when there is a byte to drain.
    bool fetch(Time now);

    // When the byte is due, if one is to be sent at all.
    std::optional<Time> due() const;
    // To be called right before the byte is sent, not before due().
    void sent();

    bool signalled() const { return outstanding; }

    // Everything that the object remembers, so that states can be compared and counted.
    using State =
        std::tuple<bool, bool, std::optional<Time>, std::optional<Time>, std::optional<Time>>;
    State state() const {
        return {outstanding, seen_by_ping, wanted_since, last_request, ping_acknowledged};
    }

private:
    void want(Time now);

    bool outstanding = false;         // a byte was sent and not acknowledged
    bool seen_by_ping = false;        // the outstanding byte was there at the last ping
    std::optional<Time> wanted_since; // a byte is to be sent; never while one is outstanding
    std::optional<Time> last_request; // or ping that counts as one
    std::optional<Time> ping_acknowledged;
};

} // namespace tav

#endif
