#include "service/committer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

#include "service/log.h"

namespace tav {

Committer::~Committer() {
    if (thread.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stop = true;
        }
        changed.notify_one();
        thread.join();
    }
}

void Committer::start(Storage &to, const Edit::Changes &what) {
    if (!thread.joinable()) {
        if (!ended.valid()) { // it may be watched already, if there was no thread the last time
            ended = UniqueFd(::eventfd(0, EFD_CLOEXEC));
        }
        if (!ended.valid()) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
        thread = std::thread([this] { work(); });
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        storage = &to;
        changes = &what;
    }
    running = true;
    changed.notify_one();
}

bool Committer::finish() {
    std::uint64_t count = 0;
    while (::read(ended.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
    running = false;
    const std::lock_guard<std::mutex> lock(mutex);
    return stored;
}

// The thread takes no signals: they are blocked before it is created.
void Committer::work() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return changes != nullptr || stop; });
        if (changes == nullptr) {
            return;
        }
        lock.unlock();
        bool done = false;
        try {
            done = storage->commit(*changes);
        } catch (const std::exception &error) {
            log_line("cannot store a change: %s", error.what());
        }
        lock.lock();
        stored = done;
        changes = nullptr;
        const std::uint64_t one = 1;
        // Fails only if it was not read 2^64 times.
        static_cast<void>(::write(ended.get(), &one, sizeof one));
    }
}

} // namespace tav
