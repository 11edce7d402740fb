// A running service in a directory of its own, and clients of it.
#pragma once

#include <gtest/gtest.h>

#include <tav/toolkit.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/messages.h"
#include "support/process.h"

namespace tavtest {

// What the library reported through mlr_err since the start of the test.
std::vector<std::pair<unsigned int, std::string>> &reports();

// `part` is in `text`; otherwise the failure shows the text.
testing::AssertionResult has(const std::string &text, const std::string &part);

// The descriptor is readable now.
bool readable(int fd);
// Waits until the descriptor is readable; false if it never is.
bool becomes_readable(int fd);

// A connected client with the calls that tests need, failing the test when a call does not go
// through.
class Client {
public:
    Client() : tav(mlr_init()) {}
    ~Client() { close(); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void close();
    bool connected() const { return tav.handle != nullptr; }
    int fd() const { return mlr_get_fd(tav.handle); }

    api_status_t set(const std::string &path, const std::string &text,
                     element_type_t type = element_type_string);
    std::vector<api_status_t> set_all(const std::vector<std::string> &paths,
                                      const std::vector<std::string> &texts);
    // Writes this text to so many leaves in one transaction: STEM0, STEM1, ... The last status.
    api_status_t set_numbered(const std::string &stem, std::size_t number, const std::string &text);
    // The value, or "status N".
    std::string get(const std::string &path);
    // Less than 0 if the call fails.
    int try_get(const std::string &path);
    api_status_t remove(const std::string &path);
    // The names, or "status N" alone.
    std::vector<std::string> list(const std::string &path);
    api_status_t watch(const std::string &path, bool own_changes = false);
    api_status_t ping();
    // The events of a fetch, each as "command path", without notices.
    std::vector<std::string> fetch();
    // Fetches until there are only notices, so that the next event is a new one.
    void settle();
    // The limit of this name, as the service shows it.
    tav::LimitStatus limit(const std::string &name);
    // Waits for the descriptor, then fetches; until `number` events came.
    std::vector<std::string> wait_events(std::size_t number);

    toolkit::CTav tav;
};

class StoreTest : public ::testing::Test {
protected:
    StoreTest();
    ~StoreTest() override;

    // Starts the service; by default in memory. The socket is the fixture's.
    void start(const std::vector<std::string> &arguments = {"--memory"});
    // A service that ran is stopped with SIGTERM; its exit status.
    int stop();
    // Writes "first in the log" and two more values to /n/1, and kills the service: only its
    // database's log has them.
    void leave_writes_in_the_log();
    // Starts a service that must exit at once, with this status; its error messages.
    std::string refused(const std::vector<std::string> &arguments, int status = 1);
    std::vector<std::string> tavd_arguments(const std::vector<std::string> &arguments) const;
    Ran tav(std::vector<std::string> arguments, const std::string &input = "");

    TempDir dir;
    std::string socket;
    // A program that executes the service's command line, which follows it.
    std::vector<std::string> prefix;
    std::unique_ptr<Process> tavd;

private:
    int starts = 0;
};

// A StoreTest whose service runs.
class RunningStoreTest : public StoreTest {
protected:
    void SetUp() override { start(); }
};

} // namespace tavtest
