#include "service/fetch_task.h"

#include <optional>
#include <vector>

#include "service/service.h"

namespace tav {

namespace {

class FetchEvents : public Task {
public:
    FetchEvents(Service &served, Session &client, const RequestHeader &header)
        : Task(header.serial), service(served), session(client) {}

    State step() override {
        if (!fetch) {
            if (service.store().events().merges()) {
                return State::blocked;
            }
            fetch.emplace(session, service.now());
            out.finish();
            begin_frame(fetch->drain());
        }
        const bool more = fetch->advance(part);
        if (more && part.empty()) {
            return State::working;
        }
        out.u32(static_cast<std::uint32_t>(part.size()));
        for (const Event *event : part) {
            put(out, *event);
        }
        if (more) {
            return State::working;
        }
        fetch.reset();
        service.trim_events();
        return State::done;
    }

    bool is_work() const override { return false; }

private:
    Service &service;
    Session &session;
    std::optional<Fetch> fetch;
    std::vector<const Event *> part;
};

} // namespace

std::unique_ptr<Task> make_fetch_task(Service &service, Session &session,
                                      const RequestHeader &header, std::string_view content) {
    return content.empty() ? std::make_unique<FetchEvents>(service, session, header) : nullptr;
}

} // namespace tav
