// The service's listening socket and its place in the file system.
#ifndef TAV_SERVICE_LISTENER_H
#define TAV_SERVICE_LISTENER_H

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "client/unique_fd.h"

namespace tav {

class ListenError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Listener {
public:
    // Claims `path`, creating missing directories (see make_directory_of). `group`: whose the
    // directory, if it is created, and the socket are to be. ListenError when another service is
    // serving there, or when something else than a socket is.
    explicit Listener(const std::string &path, std::optional<gid_t> group = {});
    // Listens, with the permissions `mode`. A socket left behind by a service that is dead is
    // replaced; it appears under its name only once it accepts connections. Throws ListenError.
    void listen(mode_t mode);
    // Removes the socket, if it was created, and gives up the claim.
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    // Non-blocking.
    int fd() const { return socket.get(); }

private:
    void take_lock();
    void refuse_served() const;
    void listen_at(const std::string &name, mode_t mode);

    std::string path;
    std::optional<gid_t> socket_group;
    std::string lock_path;
    UniqueFd lock;
    UniqueFd socket;
    bool listening = false;
};

} // namespace tav

#endif
