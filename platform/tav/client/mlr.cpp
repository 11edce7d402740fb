// The C calls of tav/mlr.h.
#include <tav/mlr.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/connection.h"
#include "client/report.h"

namespace {

constexpr std::chrono::milliseconds default_limit{5000};

// How long one call may take: TAV_TIMEOUT_MS, a whole number from 1 to a day.
std::chrono::milliseconds time_limit() {
    const char *text = std::getenv("TAV_TIMEOUT_MS");
    if (text == nullptr) {
        return default_limit;
    }
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < 1 || value > 86400000) {
        tav::report(tav::report_call, "TAV_TIMEOUT_MS='%s' is not a time, using %lld ms", text,
                    static_cast<long long>(default_limit.count()));
        return default_limit;
    }
    return std::chrono::milliseconds(value);
}

// TAV_READ_AHEAD: 0 if every call must be answered by the service.
bool may_read_ahead() {
    const char *text = std::getenv("TAV_READ_AHEAD");
    if (text == nullptr || std::strcmp(text, "1") == 0) {
        return true;
    }
    if (std::strcmp(text, "0") == 0) {
        return false;
    }
    tav::report(tav::report_call, "TAV_READ_AHEAD='%s' is neither 0 nor 1, using 1", text);
    return true;
}

std::string socket_path() {
    const char *path = std::getenv(tav::socket_variable);
    return path != nullptr && *path != '\0' ? path : tav::default_socket;
}

} // namespace

extern "C" {

TAV_EXPORT mlr_client_t *mlr_init(void) {
    try {
        auto client = std::make_unique<mlr_client>();
        client->connection = tav::Connection::open(socket_path(), time_limit(), may_read_ahead());
        return client->connection ? client.release() : nullptr;
    } catch (...) {
        tav::report_attempt("cannot connect: out of memory");
        return nullptr;
    }
}

TAV_EXPORT int mlr_get_fd(const mlr_client_t *client) {
    return client != nullptr ? client->connection->descriptor() : -1;
}

TAV_EXPORT void mlr_close(mlr_client_t *client) {
    delete client;
}
}
