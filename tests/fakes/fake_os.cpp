#include "fakes/fake_os.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "fakes/log_capture.h"

namespace fake_os {
namespace {

// Where execution continues after an armed exit or abort.
struct escape_t {
    bool armed = false;
    sigjmp_buf target{};
    ending_t ending;
};
escape_t &escape() {
    static escape_t instance;
    return instance;
}

void reset() {
    state() = state_t{};
    watched_pointer = nullptr;
    escape().armed = false;
}
const fakes::reset_hook hook(&reset);

// Returns to ending_of instead of ending the process.
[[noreturn]] void leave(const char *how, int status, const std::string &arguments) {
    auto &to = escape();
    journal::add(std::string(how) + "(" + arguments + ")");
    to.armed = false;
    to.ending = {how, status};
    // NOLINTNEXTLINE(cert-err52-cpp): the callers are not allowed to return.
    siglongjmp(to.target, 1);
}

} // namespace

state_t &state() {
    static state_t instance;
    return instance;
}

stub_t &stub_t::returns(long result, int error) {
    results.push_back({result, error});
    return *this;
}

long stub_t::take() {
    const result_t result = results.front();
    if (results.size() > 1) {
        results.pop_front();
    }
    if (result.error != 0) {
        errno = result.error;
    }
    return result.value;
}

select_script_t &select_script_t::ready(std::vector<int> descriptors,
                                        std::function<void()> before) {
    is_armed = true;
    steps.push_back({0, std::move(descriptors), std::move(before)});
    return *this;
}

select_script_t &select_script_t::timeout(std::function<void()> before) {
    return ready({}, std::move(before));
}

select_script_t &select_script_t::fail(int error, std::function<void()> before) {
    is_armed = true;
    steps.push_back({error, {}, std::move(before)});
    return *this;
}

int select_script_t::take(select_call_t call, std::vector<int> &ready_descriptors) {
    journal::add("select(" + std::to_string(call.seconds) + ")");
    made.push_back(std::move(call));
    if (answer) {
        const int error = answer(made.back(), ready_descriptors);
        if (error != 0) {
            errno = error;
            return -1;
        }
        return static_cast<int>(ready_descriptors.size());
    }
    if (steps.empty()) {
        // Code that continued after this would do so for ever.
        if (++exhausted > 100) {
            std::fputs("select was called again and again without a script\n", stdout);
            std::fflush(stdout);
            __builtin_trap();
        }
        throw script_exhausted{};
    }
    const step_t step = std::move(steps.front());
    steps.pop_front();
    if (step.before) {
        step.before();
    }
    if (step.error != 0) {
        errno = step.error;
        return -1;
    }
    ready_descriptors = step.ready;
    return static_cast<int>(step.ready.size());
}

void select_script_t::answered_by(answer_t function) {
    is_armed = true;
    answer = std::move(function);
}

void select_script_t::clear() {
    *this = select_script_t{};
}

ending_t ending_of(const std::function<int()> &call) {
    auto &to = escape();
    to.armed = true;
    // NOLINTNEXTLINE(cert-err52-cpp): see leave().
    if (sigsetjmp(to.target, 1) == 0) {
        const int result = call();
        to.armed = false;
        to.ending = {"returned", result};
    }
    return to.ending;
}

} // namespace fake_os

// The linker binds references to __wrap_*, and __real_* to the system's functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names.
extern "C" {

void __real_free(void *pointer);
void __wrap_free(void *pointer);
void __wrap_free(void *pointer) {
    if (pointer != nullptr && pointer == fake_os::watched_pointer) {
        fake_os::watched_pointer = nullptr;
        journal::add("free(watched)");
    }
    __real_free(pointer);
}

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
[[noreturn]] void __wrap_exit(int status) {
    if (!fake_os::escape().armed) {
        __real_exit(status);
    }
    fake_os::leave("exit", status, std::to_string(status));
}

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
[[noreturn]] void __wrap__exit(int status) {
    if (!fake_os::escape().armed) {
        __real__exit(status);
    }
    fake_os::leave("_exit", status, std::to_string(status));
}

[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
[[noreturn]] void __wrap_abort() {
    if (!fake_os::escape().armed) {
        __real_abort();
    }
    fake_os::leave("abort", 0, "");
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
