#include "support/store_fixture.h"

#include <poll.h>

#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "client/admin.h"

extern "C" __attribute__((visibility("default"))) void mlr_err(unsigned int level,
                                                               const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    tavtest::reports().emplace_back(level, text);
}

namespace tavtest {

std::vector<std::pair<unsigned int, std::string>> &reports() {
    static std::vector<std::pair<unsigned int, std::string>> all;
    return all;
}

testing::AssertionResult has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos ? testing::AssertionSuccess()
                                                : testing::AssertionFailure()
                                                      << "no '" << part << "' in:\n"
                                                      << text;
}

namespace {

bool poll_in(int fd, int timeout_ms) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeout_ms) == 1 && (entry.revents & (POLLIN | POLLHUP)) != 0;
}

} // namespace

bool readable(int fd) {
    return poll_in(fd, 0);
}
bool becomes_readable(int fd) {
    return poll_in(fd, patience_ms);
}

void Client::close() {
    mlr_close(tav.handle);
    tav.handle = nullptr;
}

api_status_t Client::set(const std::string &path, const std::string &text, element_type_t type) {
    api_status_t status = api_status_none;
    const toolkit::CElement value(type, text, toolkit::CElement::_invalid_time);
    EXPECT_EQ(tav.set_leaf(path, value, status, mlr_tribool_unset, ""), 0);
    return status;
}

std::vector<api_status_t> Client::set_all(const std::vector<std::string> &paths,
                                          const std::vector<std::string> &texts) {
    std::vector<toolkit::CElement> values;
    for (const std::string &text : texts) {
        values.emplace_back(text, toolkit::CElement::_invalid_time);
    }
    const std::vector<mlr_tribool_t> flags(paths.size(), mlr_tribool_unset);
    std::vector<api_status_t> statuses;
    EXPECT_EQ(tav.set_leaves(paths, values, flags, statuses, ""), 0);
    return statuses;
}

api_status_t Client::set_numbered(const std::string &stem, std::size_t number,
                                  const std::string &text) {
    std::vector<std::string> paths;
    while (paths.size() < number) {
        paths.push_back(stem + std::to_string(paths.size()));
    }
    return set_all(paths, std::vector<std::string>(number, text)).back();
}

std::string Client::get(const std::string &path) {
    api_status_t status = api_status_none;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    EXPECT_EQ(tav.get_leaf(path, status, value, property), 0);
    return status == api_status_ok ? value.to_string() : "status " + std::to_string(status);
}

int Client::try_get(const std::string &path) {
    api_status_t status = api_status_ok;
    toolkit::CElement value;
    element_property_t property = element_property_none;
    const int result = tav.get_leaf(path, status, value, property);
    EXPECT_EQ(result == 0, status != api_status_none);
    return result;
}

api_status_t Client::remove(const std::string &path) {
    api_status_t status = api_status_none;
    EXPECT_EQ(tav.remove_node(path, status, ""), 0);
    return status;
}

std::vector<std::string> Client::list(const std::string &path) {
    api_status_t status = api_status_none;
    std::vector<toolkit::child_t> children;
    EXPECT_EQ(tav.list_node(path, status, children), 0);
    if (status != api_status_ok) {
        return {"status " + std::to_string(status)};
    }
    std::vector<std::string> names;
    for (const auto &[name, kind] : children) {
        names.push_back(name);
    }
    return names;
}

api_status_t Client::watch(const std::string &path, bool own_changes) {
    api_status_t status = api_status_none;
    EXPECT_EQ(tav.event_register(path, api_event_change, own_changes, status), 0);
    return status;
}

api_status_t Client::ping() {
    api_status_t status = api_status_none;
    EXPECT_EQ(tav.watchdog_ping(status), 0);
    return status;
}

std::vector<std::string> Client::fetch() {
    std::vector<toolkit::CEvent> events;
    const int number = tav.events_get(events);
    EXPECT_GE(number, 1);
    EXPECT_EQ(static_cast<std::size_t>(number), events.size());
    std::vector<std::string> result;
    for (const toolkit::CEvent &event : events) {
        if (event.command != mlr_event_notice) {
            result.push_back(std::to_string(event.command) + " " + event.path);
        }
    }
    return result;
}

void Client::settle() {
    while (!fetch().empty()) {
    }
}

std::vector<std::string> Client::wait_events(std::size_t number) {
    std::vector<std::string> result;
    while (result.size() < number) {
        if (!becomes_readable(fd())) {
            ADD_FAILURE() << "the descriptor stays silent after " << result.size() << " events";
            break;
        }
        const std::vector<std::string> more = fetch();
        result.insert(result.end(), more.begin(), more.end());
    }
    return result;
}

tav::LimitStatus Client::limit(const std::string &name) {
    tav::ServiceStatus status;
    EXPECT_EQ(tav::service_status(tav.handle, status), 0);
    for (const tav::LimitStatus &limit : status.limits) {
        if (limit.name == name) {
            return limit;
        }
    }
    ADD_FAILURE() << "no limit '" << name << "'";
    return {};
}

StoreTest::StoreTest() : socket(dir.file("run/s")) {
    ::setenv("TAV_SOCKET", socket.c_str(), 1);
    // A busy machine must not make calls fail; tests of the time limit set their own.
    ::setenv("TAV_TIMEOUT_MS", "60000", 1);
    reports().clear();
}

StoreTest::~StoreTest() {
    ::unsetenv("TAV_SOCKET");
}

std::vector<std::string>
StoreTest::tavd_arguments(const std::vector<std::string> &arguments) const {
    std::vector<std::string> words = prefix;
    words.emplace_back(TAVD_PROGRAM);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

void StoreTest::start(const std::vector<std::string> &arguments) {
    tavd = std::make_unique<Process>(dir, "tavd" + std::to_string(++starts),
                                     tavd_arguments(arguments));
    ASSERT_TRUE(tavd->wait_for_error_text("serving on " + socket)) << tavd->errors();
}

int StoreTest::stop() {
    tavd->signal(SIGTERM);
    return tavd->wait();
}

std::string StoreTest::refused(const std::vector<std::string> &arguments, int status) {
    Process process(dir, "refused", tavd_arguments(arguments));
    if (process.wait_for_error_text("serving on ")) {
        ADD_FAILURE() << "it serves";
        process.signal(SIGKILL);
    }
    EXPECT_EQ(process.wait(), status) << process.errors();
    return process.errors();
}

void StoreTest::leave_writes_in_the_log() {
    {
        Client client;
        for (const char *text : {"first in the log", "second", "third"}) {
            EXPECT_EQ(client.set("/n/1", text), api_status_ok);
        }
    }
    tavd->signal(SIGKILL);
    tavd->wait();
    ::unlink(socket.c_str());
}

Ran StoreTest::tav(std::vector<std::string> arguments, const std::string &input) {
    arguments.insert(arguments.begin(), TAV_PROGRAM);
    return run(dir, arguments, input);
}

} // namespace tavtest
