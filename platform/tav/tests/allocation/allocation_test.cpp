// Memory may end at any allocation of any call: the service lives on, and its memory and its
// database hold the same. Each allocation of each kind of call fails in turn.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>

#include "service/database.h"
#include "service/service.h"
#include "support/process.h"

namespace {

// Allocations that still succeed before one fails; negative: none fails.
std::atomic<long> remaining{-1};
std::atomic<bool> failed{false};
bool all_later = false; // also fail, not just one

void fail_after(long successes, bool all) {
    failed = false;
    all_later = all;
    remaining = successes;
}
void fail_no_more() {
    remaining = -1;
}

bool must_fail() {
    const long left = remaining;
    if (left != 0) {
        remaining = left > 0 ? left - 1 : left;
        return false;
    }
    failed = true;
    remaining = all_later ? 0 : -1;
    return true;
}

sqlite3_mem_methods plain;

// Before SQLite is used for the first time.
const bool sqlite_fails_too = [] {
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &plain);
    sqlite3_mem_methods failing = plain;
    failing.xMalloc = [](int size) { return must_fail() ? nullptr : plain.xMalloc(size); };
    failing.xRealloc = [](void *memory, int size) {
        return must_fail() ? nullptr : plain.xRealloc(memory, size);
    };
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) == SQLITE_OK;
}();

} // namespace

void *operator new(std::size_t size) {
    void *const memory = must_fail() ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
// For what is kept apart.
extern "C" int posix_memalign(void **memory, std::size_t alignment, std::size_t size) noexcept {
    *memory = must_fail() ? nullptr : ::memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace tav;
using Items = std::vector<Item>;
using Lines = std::vector<std::string>;

const std::string long_text(200, 'x'); // does not fit into the string object itself
const std::vector<std::string> first_nodes{"/first/node/" + long_text, "/second"};

Item set(const std::string &path, const std::string &text = long_text) {
    return Item{ItemKind::set, path, Value{element_type_string, text, no_time}};
}
Item step(ItemKind kind, const std::string &path) {
    return Item{kind, path, {}};
}

std::string request(Op op, const std::function<void(Writer &)> &content = {}) {
    Writer out;
    put(out, RequestHeader{op, 1});
    if (content) {
        content(out);
    }
    return out.finish().substr(length_bytes);
}
std::string transaction(const Items &items) {
    return request(Op::transact, [&items](Writer &out) { put_all(out, items); });
}
std::string pending_transaction(const Items &items) {
    return request(Op::transact_pending, [&items](Writer &out) {
        out.u32(60000);
        put_all(out, items);
    });
}
std::string with_path(Op op) {
    return request(op, [](Writer &out) { put(out, std::string_view("/")); });
}

struct Kind {
    const char *name;
    std::string body; // of a request; empty: not one

    bool is(const std::string &other) const { return other == name; }
};

void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.name;
}

std::vector<Kind> kinds() {
    const Items mixed{set("/a/b"),
                      step(ItemKind::remove, "/n"),
                      set("/n/new/deep"),
                      step(ItemKind::make_node, "/q/r"),
                      step(ItemKind::remove_single, "/empty"),
                      step(ItemKind::touch, "/")};
    Items refused = mixed;
    refused.push_back(set("/a"));
    return {
        {"Start", ""},
        {"FirstStart", ""},
        {"Connect", ""},
        {"SetExisting", transaction({set("/a/b", "y")})},
        {"SetNew", transaction({set("/a/" + long_text)})},
        {"SetNewWithParents", transaction({set("/x/y/z/" + long_text)})},
        {"SetSame", transaction({set("/a/b")})},
        {"MakeNode", transaction({step(ItemKind::make_node, "/x/y/" + long_text)})},
        {"RemoveNode", transaction({step(ItemKind::remove_node, "/n")})},
        {"RemoveLeaf", transaction({step(ItemKind::remove, "/a/b")})},
        {"RemoveSingle", transaction({step(ItemKind::remove_single, "/empty")})},
        {"Clear", transaction({step(ItemKind::clear, "/")})},
        {"Touch", transaction({step(ItemKind::touch, "/")})},
        {"ManySteps", transaction(mixed)},
        {"ManyStepsRefused", transaction(refused)},
        {"Conditions",
         transaction({step(ItemKind::require_absent, "/none"),
                      Item{ItemKind::require, "/a/c/d", {element_type_string, "short", no_time}},
                      set("/a/b", "y")})},
        {"ConditionThatDoesNotHold",
         transaction({step(ItemKind::require_absent, "/a"), set("/a/b", "y")})},
        {"Stale", transaction({set("/stale", "y")})},
        {"Read", request(Op::read,
                         [](Writer &out) {
                             put_all(out, Lines{"/a/b", "/none", "/n"});
                         })},
        {"List", with_path(Op::list)},
        {"Register", request(Op::event_register,
                             [](Writer &out) {
                                 put(out, Registration{"/" + long_text, api_event_change, true});
                             })},
        {"Fetch", request(Op::events_get)},
        {"Acknowledge", request(Op::wake_acknowledge)},
        {"Watchdog", request(Op::watchdog_register,
                             [](Writer &out) {
                                 put(out, WatchdogRequest{long_text.substr(0, 60), 60, true});
                             })},
        {"Ping", request(Op::watchdog_ping)},
        {"PingAfterAnswers", request(Op::ping_after_answers)},
        {"ReadAhead", with_path(Op::read_ahead)},
        {"Status", request(Op::status)},
        {"StateProgram",
         request(Op::state_program,
                 [](Writer &out) { put(out, std::string_view(long_text).substr(0, 60)); })},
        {"History", request(Op::history,
                            [](Writer &out) {
                                put(out, HistoryRequest{"/n", 0});
                            })},
        {"Dump", with_path(Op::dump)},
        {"TransactPending", pending_transaction(mixed)},
        {"TransactPendingRefused", pending_transaction({set("/q"), set("/waits")})},
        {"Confirm", request(Op::confirm, [](Writer &out) { out.u64(0); })},
        {"Pending", request(Op::pending)},
        {"Revert", ""},
    };
}

Lines lines_of(const Tree &tree) {
    const Extent &all = tree.extent();
    Lines lines{std::to_string(all.nodes) + " nodes " + std::to_string(all.leaves)};
    walk(tree, "/", [&lines](const std::string &path, const Element &element) {
        const Value &value = element.value();
        lines.push_back(path + " " + std::to_string(value.type) + " " + value.text + " " +
                        std::to_string(value.time));
        return true;
    });
    return lines;
}

// Also of the history, and of what waits for its confirmation.
Lines lines_of(const Store &store) {
    Lines lines = lines_of(store.tree());
    const HistoryLog &history = store.history();
    for (RecordPtr record = history.next(0); record; record = history.next(record->number)) {
        lines.push_back(record->entry);
    }
    for (const auto &[number, pending] : store.pending()) {
        lines.push_back(pending->row.text);
    }
    return lines;
}

// What the parent learns about a child that may die.
struct Report {
    long number = 0; // of the allocation that fails
    char text[2000] = "";
};

class AllocationTest : public ::testing::TestWithParam<std::tuple<Kind, bool>> {
protected:
    AllocationTest() {
        void *const shared = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        report = new (shared) Report;
        Store store(original, Durability::normal);
        store.keep_history(HistoryBounds{2});
        Items items{set("/a/b"), set("/a/c/d", "short"), set("/stale"),
                    step(ItemKind::make_node, "/empty")};
        for (int i = 0; i < 10; ++i) {
            items.push_back(set("/n/" + std::to_string(i)));
        }
        store.transact(items, [](const std::string &) { return false; });
    }
    ~AllocationTest() override { ::munmap(report, sizeof(Report)); }

    // Lets one allocation after another fail, beginning with report->number, until the call makes
    // no more. In a child process; does not return.
    [[noreturn]] void child() {
        ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        for (;; ++report->number) {
            ::alarm(5); // for a call that never ends
            std::string fault;
            try {
                fault = attempt();
            } catch (const std::exception &error) {
                fail_no_more();
                fault = std::string("later: ") + error.what();
            }
            if (!fault.empty()) {
                std::snprintf(report->text, sizeof report->text, "%s", fault.c_str());
                ::_exit(1);
            }
            if (!failed) {
                ::_exit(0);
            }
        }
    }

    std::string attempt() {
        copy(original, used);
        return kind.is("Start") || kind.is("FirstStart") ? start() : call();
    }

    // Runs an action that may throw while memory ends.
    template <typename Action>
    void starve(Action action) {
        fail_after(report->number - 1, std::get<1>(GetParam()));
        try {
            action();
        } catch (const std::exception &) {
            // The service would end this client, or say why it cannot start.
        }
        fail_no_more();
    }

    std::string start() {
        const bool first = kind.is("FirstStart");
        const Lines before = first ? Lines{} : stored();
        if (first) {
            std::filesystem::remove(used);
        }
        starve([this] {
            Store(used, Durability::normal, first_nodes).keep_history(HistoryBounds{2});
        });
        const bool fired = failed;
        Store again(used, Durability::normal, first_nodes);
        again.keep_history(HistoryBounds{2});
        const Lines after = lines_of(again);
        failed = fired;
        if (first) {
            return after.size() == 6 ? "" : "the first nodes are missing";
        }
        return after == before ? "" : "a failed start changed the database";
    }

    std::string call() {
        Store store(used, Durability::normal);
        store.keep_history(HistoryBounds{2});
        Time now{};
        Service service(store, used, [&now] { return now; });
        Session &writer = service.open(Credentials{1, 0, 0, {}}, true);
        Session &other = service.open(Credentials{2, 0, 0, {}}, true);
        std::string reply;
        service.handle(writer,
                       request(Op::event_register,
                               [](Writer &out) {
                                   put(out, Registration{"/", api_event_change, true});
                               }),
                       reply);
        service.handle(writer, request(Op::events_get), reply);
        service.handle(other, transaction({set("/stale", "changed")}), reply);
        bool told = false; // the other one, which has read everything ahead
        service.holders().set_notify([&told](SessionId, std::uint32_t) { told = true; });
        service.handle(other, with_path(Op::read_ahead), reply);
        service.handle(writer, pending_transaction({set("/waits"), set("/a/c/d", "waits")}), reply);
        const Lines before = lines_of(store.tree());
        const bool ends = kind.is("Revert");
        starve([&] {
            if (kind.is("Connect")) {
                service.open(Credentials{3, 0, 0, {}}, true);
            } else if (ends) {
                now += std::chrono::hours(1);
                service.revert();
                service.commit();
            } else {
                service.handle(writer, kind.body, reply);
            }
        });
        const bool fired = failed;
        if (lines_of(store) != stored()) {
            return "memory and database differ after the call";
        }
        if (!told && lines_of(store.tree()) != before) {
            return "a change without a notice";
        }
        reply.clear();
        if (!service.handle(other, transaction({set("/later", "y")}), reply) || reply.empty() ||
            reply.back() != static_cast<char>(api_status_ok)) {
            return "the next write fails";
        }
        if (lines_of(store) != stored()) {
            return "memory and database differ after the next write";
        }
        // The first try only finds that an earlier one has failed.
        for (int tries = 0; ends && tries < 2; ++tries) {
            now += std::chrono::hours(1);
            service.revert();
            service.commit();
        }
        if (ends && (!store.pending().empty() || store.tree().find("/waits") != nullptr)) {
            return "it is not reverted later";
        }
        failed = fired;
        return "";
    }

    // What a service would find that started now.
    Lines stored() const {
        const std::string file = dir.file("copy.db");
        copy(used, file);
        Store store(file, Durability::normal);
        store.keep_history(HistoryBounds{2});
        store.resume_terms({}, 0);
        return lines_of(store);
    }

    static void copy(const std::string &from, const std::string &to) {
        for (const char *suffix : {"", "-wal"}) {
            std::filesystem::remove(to + suffix);
            if (std::filesystem::exists(from + suffix)) {
                std::filesystem::copy(from + suffix, to + suffix);
            }
        }
    }

    const Kind &kind = std::get<0>(GetParam());
    const tavtest::TempDir dir;
    const std::string original = dir.file("original.db");
    const std::string used = dir.file("used.db");
    Report *report = nullptr;
};

} // namespace

TEST_P(AllocationTest, TheServiceLivesOnAndMemoryIsAsTheDatabase) {
    ASSERT_TRUE(sqlite_fails_too);
    std::map<std::string, std::vector<long>> faults;
    int ended = 0; // enough is enough
    for (report->number = 1;; ++report->number) {
        *report->text = '\0';
        const pid_t pid = ::fork();
        if (pid == 0) {
            child();
        }
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            break;
        }
        const std::string what = WIFSIGNALED(status)
                                     ? "death by signal " + std::to_string(WTERMSIG(status))
                                     : report->text;
        faults[what].push_back(report->number);
        if (++ended == 10) {
            break;
        }
    }
    // These may do without memory.
    EXPECT_TRUE(report->number > 1 || kind.is("Ping") || kind.is("PingAfterAnswers") ||
                kind.is("Acknowledge"));
    for (const auto &[what, numbers] : faults) {
        ADD_FAILURE() << what << ", " << numbers.size() << " times of " << report->number - 1
                      << ", first at allocation " << numbers.front();
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, AllocationTest,
                         ::testing::Combine(::testing::ValuesIn(kinds()), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<AllocationTest::ParamType> &tested) {
                             return std::get<0>(tested.param).name +
                                    std::string(std::get<1>(tested.param) ? "AndAllLater" : "One");
                         });
