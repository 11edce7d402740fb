// The service's listening socket and its file.
#pragma once

#include <sys/types.h>

#include <cstdint>
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
    // Claims `path`, creating missing directories (see make_directory_of). `group`: the group of
    // the socket, and of the directory if it is created. Throws ListenError if another service is
    // serving there, if `path` is not a socket, or if other users can write to the directory.
    explicit Listener(const std::string &path, std::optional<gid_t> group = {});
    // Listens, with the permissions `mode`. The socket of a dead service is replaced. The new
    // socket gets its name only when it accepts connections. Throws ListenError.
    void listen(mode_t mode);
    // Removes the socket, if it was created and is still there, and gives up the claim.
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    // Non-blocking.
    int fd() const { return socket.get(); }

private:
    // A file, whatever its name is now. All zero: none.
    struct FileId {
        dev_t device = 0;
        std::uint64_t inode = 0;
        bool operator==(const FileId &other) const {
            return device == other.device && inode == other.inode;
        }
    };

    static FileId file_at(const std::string &name);
    FileId lock_file() const;
    static void remove(const std::string &name, const FileId &own);
    void take_lock();
    void refuse_served() const;
    void listen_at(const std::string &name, mode_t mode);

    std::string path;
    std::optional<gid_t> socket_group;
    std::string lock_path;
    UniqueFd lock;
    UniqueFd socket;
    FileId socket_file;
};

} // namespace tav
