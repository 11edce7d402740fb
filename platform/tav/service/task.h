// A request that is carried out a part at a time. Its answer is sent while it is made, so that a
// long one is never in memory as a whole.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "protocol/messages.h"
#include "service/wake.h"

namespace tav {

class Service;
class Session;

class Task {
public:
    enum class State {
        working,
        blocked, // it waits for another client's transaction or for a commit (Service::releases())
        done,
        malformed // the request is; what it was to change is unchanged
    };

    explicit Task(std::uint32_t request_serial) : serial(request_serial) { begin_frame(); }
    virtual ~Task() = default;
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;

    // Does a part that takes about a millisecond at most.
    virtual State step() = 0;

    // Bytes of the answer that were made and not taken.
    std::size_t made() const { return out.size(); }
    // Tree::replaced() of the version of the tree that the answer describes, if it keeps one.
    std::optional<std::uint64_t> keeps() const { return version; }
    // The next frame of the answer, with what was made of it; `more`: it is not the last one.
    std::string take_frame(bool more);
    // A fetch is not: it has its own rule for wake-ups.
    virtual bool is_work() const { return true; }

protected:
    void begin_frame(bool drain = false) { put(out, ReplyHeader{serial, drain, false}); }

    Writer out;
    std::optional<std::uint64_t> version; // see keeps()

private:
    std::uint32_t serial;
};

// A task with the one object that is the content of its request; null if the content is not that.
template <typename Kind, typename Content, typename... Arguments>
std::unique_ptr<Task> task_with(std::string_view encoded, Arguments &...arguments) {
    Reader in(encoded);
    Content content;
    get(in, content);
    return in.finished() ? std::make_unique<Kind>(arguments..., std::move(content)) : nullptr;
}

// Null if there is no such kind of request, or if it is malformed. The content of the request,
// `in`, must remain until the task is destroyed, and the task must be destroyed before the session.
std::unique_ptr<Task> make_task(Service &service, Session &session, const RequestHeader &header,
                                std::string_view content);

} // namespace tav
