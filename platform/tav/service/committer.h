// Commits that take long, on a thread of their own: syncing to a disk must not delay readers.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "client/unique_fd.h"
#include "service/storage.h"

namespace tav {

class Committer {
public:
    Committer() = default;
    // Waits for a commit that was started.
    ~Committer();
    Committer(const Committer &) = delete;
    Committer &operator=(const Committer &) = delete;

    // Starts to commit; both must remain unchanged until it has ended. Only one at a time. Throws
    // std::exception when there is no thread; nothing was started then.
    void start(Storage &storage, const Edit::Changes &changes);
    bool busy() const { return running; }
    // Readable when the commit has ended; -1 before the first one.
    int fd() const { return ended.get(); }
    // Waits until it has ended. Whether the changes were stored.
    bool finish();

private:
    void work();

    UniqueFd ended; // an eventfd
    bool running = false;

    std::mutex mutex;
    std::condition_variable changed;
    Storage *storage = nullptr; // both null: there is nothing to commit
    const Edit::Changes *changes = nullptr;
    bool stored = false;
    bool stop = false;
    std::thread thread; // last: it uses the others
};

} // namespace tav
