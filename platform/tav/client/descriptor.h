// The descriptor that a program waits on: the library's end of the wake-up connection, and, once
// the connection is lost, a stand-in under the same number.
#ifndef TAV_CLIENT_DESCRIPTOR_H
#define TAV_CLIENT_DESCRIPTOR_H

#include "client/unique_fd.h"

namespace tav {

// Whether a program leaves alone what the descriptor shows it. Between two pings it has waited: was
// the descriptor readable at both, then the wait said so.
class Attention {
public:
    // A ping is made. True when it is the second one in a row that finds the descriptor readable.
    bool is_missing(bool readable) {
        const bool again = readable && pinged;
        pinged = readable && !again;
        return again;
    }
    // A fetch was made, or tried; or what is shown is another thing now.
    void reset() { pinged = false; }
    bool state() const { return pinged; }

private:
    bool pinged = false; // the last ping found it readable
};

class Descriptor {
public:
    // Everything that losing the connection will need is acquired here, so that loss cannot fail.
    // Check valid() afterwards.
    Descriptor();

    bool valid() const { return standin.valid(); }
    // Takes over the connected socket; once only.
    void adopt(UniqueFd connected) { socket = std::move(connected); }
    int get() const { return socket.get(); }

    // Takes exactly one wake-up byte, which the service says is there. More would swallow the
    // wake-up of an event that arrived since. False when it is not there.
    bool drain_one() const;

    // The connection is lost: the socket is closed, and its number becomes a readable descriptor
    // that has nothing to do with the service any more. Later calls do nothing.
    void lose();
    // A ping is made. True when the program leaves the wake-up byte alone, so that it is to be
    // acknowledged. Of a lost connection the descriptor falls silent then, and this is false.
    bool is_left_alone();
    // A fetch was made, or tried.
    void fetched() { attention.reset(); }

private:
    UniqueFd socket;
    UniqueFd standin;
    bool lost = false;
    Attention attention;
};

} // namespace tav

#endif
