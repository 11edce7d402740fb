// The exchange that all typed calls share: its reply is read completely, or the connection is
// ended.
#pragma once

#include "client/connection.h"
#include "client/report.h"
#include "protocol/messages.h"

namespace tav {

constexpr int call_done = 0;
constexpr int call_failed = -1;

inline Connection *connection_of(mlr_client_t *client) {
    return client != nullptr ? client->connection.get() : nullptr;
}

// Sends `request` and hands the reply's content to `read`, a function of a Reader&. The result is
// call_failed when there is no answer or `read` did not consume it exactly.
template <typename Read>
int perform(Connection &connection, Op op, Writer &request, Read read) {
    std::string_view reply;
    if (!connection.exchange(op, request, reply)) {
        return call_failed;
    }
    Reader reader(reply);
    try {
        read(reader);
    } catch (...) {
        // The service regards this reply as received (for example fetched events), so it cannot be
        // skipped.
        connection.malformed();
        throw;
    }
    if (!reader.finished()) {
        connection.malformed();
        return call_failed;
    }
    return call_done;
}

// The same for a request with one object as its content.
template <typename Content, typename Read>
int perform_with(Connection &connection, Op op, const Content &content, Read read) {
    Writer request = connection.request(op);
    put(request, content);
    return perform(connection, op, request, read);
}

} // namespace tav
