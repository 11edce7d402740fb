// The descriptor that a program waits on: the library's end of the wake-up connection, and, once
// the connection is lost, a stand-in under the same number.
#ifndef TAV_CLIENT_DESCRIPTOR_H
#define TAV_CLIENT_DESCRIPTOR_H

#include "client/unique_fd.h"

namespace tav {

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
    // A ping was made that failed. The second one in a row silences the descriptor: the program was
    // shown it readable between the two and did not fetch, so it must be free to wait for others.
    void failed_ping();
    // A fetch was made that failed: the program has been told.
    void failed_fetch() { pinged = false; }

private:
    UniqueFd socket;
    UniqueFd standin;
    bool lost = false;
    bool pinged = false;
};

} // namespace tav

#endif
