#include "client/admin.h"

#include "client/calls.h"
#include "protocol/limits.h"

namespace tav {

int transact(mlr_client_t *client, const std::vector<Item> &items,
             std::vector<api_status_t> &statuses) {
    statuses.assign(items.size(), api_status_none);
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    Writer request = connection->request(Op::transact);
    put_all(request, items);
    if (request.too_large() || items.size() > limits::paths_per_request) {
        report(report_call, "a transaction of %zu items is beyond the limits", items.size());
        statuses.assign(items.size(), api_status_too_large);
        return connection->usable() ? call_done : call_failed;
    }
    std::vector<api_status_t> answer;
    const int result = perform(*connection, Op::transact, request,
                               [&](Reader &reader) { get_exactly(reader, answer, items.size()); });
    if (result == call_done) {
        statuses = std::move(answer);
    }
    return result;
}

int dump(mlr_client_t *client, const std::string &path, api_status_t &status,
         std::vector<DumpElement> &elements) {
    status = api_status_none;
    elements.clear();
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    if (path.size() > limits::path_bytes) {
        status = api_status_path_too_long;
        return connection->usable() ? call_done : call_failed;
    }
    api_status_t answer = api_status_none;
    const int result =
        perform_with(*connection, Op::dump, std::string_view(path), [&](Reader &reader) {
            get(reader, answer);
            while (reader.u8() == 1 && elements.size() <= limits::elements) {
                get(reader, elements.emplace_back());
            }
        });
    if (result != call_done) {
        elements.clear();
        return result;
    }
    status = answer;
    return call_done;
}

int service_status(mlr_client_t *client, ServiceStatus &status) {
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    Writer request = connection->request(Op::status);
    return perform(*connection, Op::status, request,
                   [&status](Reader &reader) { get(reader, status); });
}

} // namespace tav
