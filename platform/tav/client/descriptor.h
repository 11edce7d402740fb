// The descriptor that a program waits on: the library's end of the wake-up connection, or, once the
// connection is lost, a substitute with the same number.
#pragma once

#include "client/unique_fd.h"

namespace tav {

// Whether a program ignores the descriptor. It waits between two pings: if the descriptor was
// readable at both, the wait has reported it.
class Attention {
public:
    // Called at a ping. True when it is the second one in a row that finds the descriptor readable.
    bool is_missing(bool readable) {
        const bool again = readable && pinged;
        pinged = readable && !again;
        return again;
    }
    // Called when a fetch was made or tried, or when the descriptor was replaced.
    void reset() { pinged = false; }
    bool state() const { return pinged; }

private:
    bool pinged = false; // the last ping found it readable
};

class Descriptor {
public:
    // Acquires everything that losing the connection needs, so that handling the loss cannot fail.
    // Check valid() afterwards.
    Descriptor();

    bool valid() const { return standin.valid(); }
    // Takes over the connected socket; once only.
    void adopt(UniqueFd connected) { socket = std::move(connected); }
    int get() const { return socket.get(); }

    // Reads exactly one wake-up byte, which the service has announced. Reading more would lose the
    // wake-up for a later event. False when there is none.
    bool drain_one() const;

    // The connection is lost: the socket is closed, and its number becomes a readable descriptor
    // that has nothing to do with the service any more. Later calls do nothing.
    void lose();
    // Called at a ping. True when the program ignores the wake-up byte, which must then be
    // acknowledged. If the connection is lost, the descriptor stops being readable instead, and the
    // result is false.
    bool is_left_alone();
    // Called when a fetch was made or tried.
    void fetched() { attention.reset(); }

private:
    UniqueFd socket;
    UniqueFd standin;
    bool lost = false;
    Attention attention;
};

} // namespace tav
