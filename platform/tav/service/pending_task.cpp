#include "service/pending_task.h"

#include <algorithm>
#include <chrono>

#include "service/service.h"

namespace tav {

namespace {

// Keeps a change, once that is committed.
class Confirm : public Task {
public:
    Confirm(Service &served, Session &client, const RequestHeader &header, std::uint64_t wanted)
        : Task(header.serial), service(served), session(client), number(wanted) {}

    State step() override {
        if (result) {
            return result->known ? answer(result->stored ? api_status_ok : api_status_failed)
                                 : State::blocked;
        }
        PendingPtr found;
        const api_status_t status = session.may_write() ? find(found) : api_status_denied;
        if (status != api_status_ok) {
            return answer(status);
        }
        number = found->change.number;
        result = service.store().keep(found);
        return State::blocked;
    }

private:
    api_status_t find(PendingPtr &found) const {
        for (const auto &[other, pending] : service.store().pending_next()) {
            const bool meant = number != 0 ? other == number : pending->change.uid == session.uid();
            if (!meant || pending->due <= service.now()) {
                continue;
            }
            if (found) {
                return api_status_refused;
            }
            found = pending;
        }
        return found ? api_status_ok : api_status_absent;
    }
    State answer(api_status_t status) {
        put(out, status);
        out.u64(number);
        return State::done;
    }

    Service &service;
    Session &session;
    std::uint64_t number; // 0: the only one of the client's user
    std::shared_ptr<const Store::Result> result;
};

// Lists what waits. A change that ends meanwhile is missing.
class ListPending : public Task {
public:
    ListPending(Service &served, const RequestHeader &header)
        : Task(header.serial), service(served) {}

    State step() override {
        const PendingChanges &all = service.store().pending();
        const auto next = all.upper_bound(last);
        if (next == all.end()) {
            out.u8(0);
            return State::done;
        }
        last = next->first;
        const Pending &one = *next->second;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::max(one.due - service.now(), Time::duration::zero()));
        out.u8(1);
        put(out, PendingChange{one.change, one.term, static_cast<std::uint32_t>(left.count())});
        return State::working;
    }

private:
    Service &service;
    std::uint64_t last = 0;
};

} // namespace

std::unique_ptr<Task> make_pending_task(Service &service, Session &session,
                                        const RequestHeader &header, std::string_view content) {
    Reader in(content);
    if (header.op == Op::pending) {
        return in.finished() ? std::make_unique<ListPending>(service, header) : nullptr;
    }
    const std::uint64_t number = in.u64();
    return in.finished() ? std::make_unique<Confirm>(service, session, header, number) : nullptr;
}

} // namespace tav
