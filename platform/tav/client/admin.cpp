#include "client/admin.h"

#include "client/calls.h"
#include "protocol/limits.h"

namespace tav {

namespace {

// Without a term if it is 0.
int transact(mlr_client_t *client, const std::vector<Item> &items, std::uint32_t term,
             std::vector<api_status_t> &statuses, std::uint64_t &number) {
    statuses.assign(items.size(), api_status_none);
    Connection *connection = connection_of(client);
    if (connection == nullptr) {
        return call_failed;
    }
    const Op op = term == 0 ? Op::transact : Op::transact_pending;
    Writer request = connection->request(op);
    if (term != 0) {
        request.u32(term);
    }
    put_all(request, items);
    if (request.too_large() || items.size() > limits::paths_per_request) {
        report(report_call, "a transaction of %zu items is beyond the limits", items.size());
        statuses.assign(items.size(), api_status_too_large);
        return connection->usable() ? call_done : call_failed;
    }
    std::vector<api_status_t> answer;
    std::uint64_t change = 0;
    const int result = perform(*connection, op, request, [&](Reader &reader) {
        get_exactly(reader, answer, items.size());
        change = term == 0 ? 0 : reader.u64();
    });
    if (result == call_done) {
        statuses = std::move(answer);
        number = change;
    }
    return result;
}

} // namespace

int transact(mlr_client_t *client, const std::vector<Item> &items,
             std::vector<api_status_t> &statuses) {
    std::uint64_t none = 0;
    return transact(client, items, 0, statuses, none);
}

int transact_pending(mlr_client_t *client, const std::vector<Item> &items, std::uint32_t term,
                     std::vector<api_status_t> &statuses, std::uint64_t &number) {
    number = 0;
    if (term < 1 || term > limits::confirm_term) {
        statuses.assign(items.size(), api_status_bad_value);
        const Connection *const connection = connection_of(client);
        return connection != nullptr && connection->usable() ? call_done : call_failed;
    }
    return transact(client, items, term, statuses, number);
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
