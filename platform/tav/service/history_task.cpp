#include "service/history_task.h"

#include "protocol/limits.h"
#include "service/service.h"

namespace tav {

namespace {

// Takes the name by which the client calls itself.
class StateProgram : public Task {
public:
    StateProgram(Service &served, Session &client, const RequestHeader &header, std::string stated)
        : Task(header.serial), service(served), session(client), name(std::move(stated)) {}

    State step() override {
        const api_status_t status = judged();
        if (status == api_status_ok) {
            session.program = std::move(name);
        }
        service.usage().count(status);
        put(out, status);
        return State::done;
    }

private:
    api_status_t judged() const {
        if (name.size() > limits::program_bytes) {
            return api_status_name_too_long;
        }
        return name.empty() || name.find('\0') != std::string::npos ? api_status_bad_value
                                                                    : api_status_ok;
    }

    Service &service;
    Session &session;
    std::string name;
};

// Lists the transactions that changed something at or below a path, until the moment of the
// request. An entry that is dropped meanwhile is missing, which the numbers at the end reveal.
class ReadHistory : public Task {
public:
    ReadHistory(Service &served, const RequestHeader &header, HistoryRequest wanted)
        : Task(header.serial), service(served), request(std::move(wanted)) {}

    State step() override {
        const HistoryLog &history = service.store().history();
        if (!began) {
            began = true;
            last = history.last();
            const api_status_t status =
                history.on() ? check_path(request.path) : api_status_refused;
            service.usage().count(status);
            put(out, status);
            if (status != api_status_ok) {
                return State::done;
            }
        }
        std::size_t examined = 0; // bytes
        while (made() < limits::reply_part_bytes && examined < limits::reply_part_bytes) {
            const RecordPtr record = history.next(request.since);
            if (!record || record->number > last) {
                out.u8(0);
                out.u64(history.oldest());
                out.u64(last);
                return State::done;
            }
            request.since = record->number;
            examined += record->entry.size() + least_cost;
            if (concerns(*record, request.path)) {
                out.u8(1);
                out.bytes(record->entry);
            }
        }
        return State::working;
    }

private:
    static constexpr std::size_t least_cost = 256;

    Service &service;
    HistoryRequest request;
    bool began = false;
    std::uint64_t last = 0;
};

} // namespace

std::unique_ptr<Task> make_history_task(Service &service, Session &session,
                                        const RequestHeader &header, std::string_view content) {
    if (header.op == Op::history) {
        return task_with<ReadHistory, HistoryRequest>(content, service, header);
    }
    return task_with<StateProgram, std::string>(content, service, session, header);
}

} // namespace tav
