// The calls of admin.h that concern the history.
#include "client/admin.h"
#include "client/calls.h"
#include "protocol/limits.h"

namespace tav {

int state_program(mlr_client_t *client, const std::string &name, api_status_t &status) {
    status = api_status_none;
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    if (name.size() > limits::program_bytes) {
        status = api_status_name_too_long;
        return connection->usable() ? call_done : call_failed;
    }
    api_status_t answer = api_status_none;
    const int result = perform_with(*connection, Op::state_program, std::string_view(name),
                                    [&answer](Reader &reader) { get(reader, answer); });
    if (result == call_done) {
        status = answer;
    }
    return result;
}

int history(mlr_client_t *client, const std::string &path, std::uint64_t since,
            api_status_t &status, History &history) {
    status = api_status_none;
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    if (path.size() > limits::path_bytes) {
        status = api_status_path_too_long;
        return connection->usable() ? call_done : call_failed;
    }
    api_status_t answer = api_status_none;
    History read;
    const int result =
        perform_with(*connection, Op::history, HistoryRequest{path, since}, [&](Reader &reader) {
            get(reader, answer);
            if (answer == api_status_ok) {
                while (reader.u8() == 1 && reader.ok()) {
                    get(reader, read.entries.emplace_back());
                }
                read.oldest = reader.u64();
                read.last = reader.u64();
            }
        });
    if (result != call_done) {
        return result;
    }
    status = answer;
    if (answer == api_status_ok) {
        history = std::move(read);
    }
    return call_done;
}

} // namespace tav
