#include "client/descriptor.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "protocol/protocol.h"

namespace tav {

Descriptor::Descriptor() : standin(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {}

bool Descriptor::drain_one() const {
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::recv(socket.get(), &byte, 1, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got == 1 && byte == wake_byte;
}

void Descriptor::lose() {
    if (lost || !socket.valid()) {
        return;
    }
    lost = true;
    attention.reset();
    // dup3 closes the socket and keeps its number; it can fail here only transiently.
    while (::dup3(standin.get(), socket.get(), O_CLOEXEC) < 0 &&
           (errno == EINTR || errno == EBUSY)) {
    }
    standin.reset();
}

bool Descriptor::is_left_alone() {
    if (!lost) {
        char byte = 0;
        return attention.is_missing(::recv(socket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1);
    }
    if (attention.is_missing(true)) {
        std::uint64_t value = 0;
        // Fails when it is already not readable, which is equally good.
        const ssize_t got = ::read(socket.get(), &value, sizeof value);
        static_cast<void>(got);
    }
    return false;
}

} // namespace tav
