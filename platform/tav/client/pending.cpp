// The calls of admin.h that concern changes that must be confirmed.
#include "client/admin.h"
#include "client/calls.h"

namespace tav {

int confirm(mlr_client_t *client, std::uint64_t number, api_status_t &status,
            std::uint64_t &confirmed) {
    status = api_status_none;
    confirmed = 0;
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    Writer request = connection->request(Op::confirm);
    request.u64(number);
    api_status_t answer = api_status_none;
    std::uint64_t which = 0;
    const int result = perform(*connection, Op::confirm, request, [&](Reader &reader) {
        get(reader, answer);
        which = reader.u64();
    });
    if (result == call_done) {
        status = answer;
        confirmed = answer == api_status_ok ? which : 0;
    }
    return result;
}

int pending(mlr_client_t *client, std::vector<PendingChange> &changes) {
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    Writer request = connection->request(Op::pending);
    std::vector<PendingChange> read;
    const int result = perform(*connection, Op::pending, request, [&read](Reader &reader) {
        while (reader.u8() == 1 && reader.ok()) {
            get(reader, read.emplace_back());
        }
    });
    if (result == call_done) {
        changes = std::move(read);
    }
    return result;
}

} // namespace tav
