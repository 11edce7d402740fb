// A write to the settings store that survives a power cut, beside a commit of SQLite in the writing
// program itself and beside Redis, which syncs its log for each group of commands: the time of one,
// and how many clients write together.
#include <hiredis/hiredis.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>

#include <tav/toolkit.h>

#include "support/numbers.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::seconds_between;
using bench::time_point;

constexpr int addresses = 1000;

// A text that differs from the one before, so that each write changes something.
std::string text_of(int address, int turn) {
    char text[64];
    std::snprintf(static_cast<char *>(text), sizeof text, "2001:db8:%x::%x/64", turn & 0xffff,
                  address);
    return static_cast<const char *>(text);
}

// Writes the text of an address; throws std::runtime_error when that fails.
using write_t = std::function<void(int address, const std::string &text)>;

// A connection of its own to the service.
write_t tav_writer(const std::string &socket) {
    setenv("TAV_SOCKET", socket.c_str(), 1);
    const std::shared_ptr<mlr_client_t> client(mlr_init(), mlr_close);
    unsetenv("TAV_SOCKET");
    return [client](int address, const std::string &text) {
        toolkit::CTav tav(client.get());
        api_status_t status = api_status_none;
        const toolkit::CElement value(text, toolkit::CElement::_invalid_time);
        const tk_string path = kt::paths::address_value(1, std::to_string(address));
        if (tav.set_leaf(path, value, status, static_cast<mlr_tribool_t>(2), "") != 0 ||
            status != api_status_ok) {
            throw std::runtime_error("tav: status " + std::to_string(status));
        }
    };
}

// A connection of its own to the database.
write_t sqlite_writer(const std::string &file) {
    const auto require = [](sqlite3 *database, int result) {
        if (result != SQLITE_OK && result != SQLITE_DONE) {
            throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(database));
        }
    };
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open(file.c_str(), &opened);
    const std::shared_ptr<sqlite3> database(opened, sqlite3_close);
    require(opened, result);
    sqlite3_busy_timeout(opened, 30000); // for other writers
    require(opened, sqlite3_exec(opened,
                                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=full;"
                                 "CREATE TABLE IF NOT EXISTS leaf (path TEXT PRIMARY KEY,"
                                 " value TEXT) WITHOUT ROWID",
                                 nullptr, nullptr, nullptr));
    sqlite3_stmt *made = nullptr;
    require(opened, sqlite3_prepare_v2(opened, "INSERT OR REPLACE INTO leaf VALUES (?, ?)", -1,
                                       &made, nullptr));
    const std::shared_ptr<sqlite3_stmt> put(made, sqlite3_finalize);
    return [database, put, require](int address, const std::string &text) {
        const std::string path = kt::paths::address_value(1, std::to_string(address));
        sqlite3_bind_text(put.get(), 1, path.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(put.get(), 2, text.c_str(), -1, SQLITE_TRANSIENT);
        require(database.get(), sqlite3_step(put.get()));
        require(database.get(), sqlite3_reset(put.get()));
    };
}

// A connection of its own to Redis.
write_t redis_writer(const std::string &socket) {
    const std::shared_ptr<redisContext> context(redisConnectUnix(socket.c_str()), redisFree);
    if (context == nullptr || context->err != 0) {
        throw std::runtime_error("redis: no connection");
    }
    return [context](int address, const std::string &text) {
        const std::shared_ptr<void> answer(redisCommand(context.get(), "HSET address:%d Address %b",
                                                        address, text.data(), text.size()),
                                           freeReplyObject);
        if (answer == nullptr ||
            static_cast<redisReply *>(answer.get())->type == REDIS_REPLY_ERROR) {
            throw std::runtime_error("redis: a write failed");
        }
    };
}

std::unique_ptr<kt::Process> start_redis(kt::Sandbox &sandbox, const std::string &socket) {
    auto process = std::make_unique<kt::Process>(
        sandbox, std::vector<std::string>{"/usr/bin/redis-server", "--port", "0", "--unixsocket",
                                          socket, "--dir", sandbox.directory(), "--appendonly",
                                          "yes", "--appendfsync", "always", "--save", ""});
    const bool answers = kt::eventually([&] {
        try {
            redis_writer(socket)(1, "");
            return true;
        } catch (const std::runtime_error &) {
            return false; // not yet
        }
    });
    if (!answers) {
        throw std::runtime_error("redis does not answer: " + process->errors().tail(3));
    }
    return process;
}

// A store that is measured, with all its results.
struct subject_t {
    std::string name;
    std::function<write_t()> connect;
    bench::series_t p50{}, p99{};
    std::vector<bench::series_t> writes_a_second{}; // for each number of clients
    int turn = 0;
};

const std::vector<int> client_numbers{1, 4, 16, 64};

void measure_one_client(subject_t &subject, int samples) {
    const write_t write = subject.connect();
    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        const int address = i % addresses + 1;
        const std::string text = text_of(address, ++subject.turn);
        const time_point begin = clock_type::now();
        write(address, text);
        times.push_back(seconds_between(begin, clock_type::now()));
    }
    subject.p50.add(bench::quantile(times, 0.5));
    subject.p99.add(bench::quantile(times, 0.99));
}

struct shared_t {
    int ready, failed;
    bool go;
    long done;
};

// In a process of its own.
void write_for(subject_t &subject, double seconds, int id, shared_t &shared) {
    try {
        const write_t write = subject.connect();
        __atomic_add_fetch(&shared.ready, 1, __ATOMIC_SEQ_CST);
        while (!__atomic_load_n(&shared.go, __ATOMIC_SEQ_CST)) {
            usleep(1000);
        }
        const time_point begin = clock_type::now();
        int done = 0;
        while (seconds_between(begin, clock_type::now()) < seconds) {
            const int address = (id * 15 + done) % addresses + 1;
            write(address, text_of(address, subject.turn * 7919 + done));
            ++done;
        }
        __atomic_add_fetch(&shared.done, done, __ATOMIC_SEQ_CST);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s: %s\n", subject.name.c_str(), failure.what());
        __atomic_add_fetch(&shared.failed, 1, __ATOMIC_SEQ_CST);
        __atomic_add_fetch(&shared.ready, 1, __ATOMIC_SEQ_CST);
    }
}

// This many processes, each with its own connection, for `seconds`; returns the writes per second
// of all together.
double throughput(subject_t &subject, int clients, double seconds) {
    void *memory =
        mmap(nullptr, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("mmap failed");
    }
    auto *shared = new (memory) shared_t{};
    ++subject.turn;
    for (int id = 0; id < clients; ++id) {
        if (fork() == 0) {
            write_for(subject, seconds, id, *shared);
            _exit(0);
        }
    }
    while (__atomic_load_n(&shared->ready, __ATOMIC_SEQ_CST) < clients) {
        usleep(1000);
    }
    __atomic_store_n(&shared->go, true, __ATOMIC_SEQ_CST);
    for (int i = 0; i < clients; ++i) {
        wait(nullptr);
    }
    const shared_t result = *shared;
    munmap(memory, sizeof(shared_t));
    if (result.failed > 0) {
        throw std::runtime_error(std::to_string(result.failed) + " clients of " + subject.name +
                                 " failed");
    }
    return static_cast<double>(result.done) / seconds;
}

void print(const std::vector<subject_t> &subjects) {
    std::vector<std::string> head{"9. A write that survives a power cut", "p50", "p99"};
    for (const int number : client_numbers) {
        head.push_back(std::to_string(number) + (number == 1 ? " client" : " clients"));
    }
    bench::table_head(head);
    for (const subject_t &subject : subjects) {
        std::vector<std::string> row{subject.name, bench::time_text(subject.p50),
                                     bench::time_text(subject.p99)};
        for (const bench::series_t &series : subject.writes_a_second) {
            row.push_back(bench::number_text(series.middle(), 0) + " a second");
        }
        bench::table_row(row);
    }
    bench::table_row({"p50, to SQLite's",
                      bench::verdict(subjects[0].p50.middle() / subjects[1].p50.middle(), 1.3), "",
                      "", "", "", ""});
    const double own = subjects[0].writes_a_second.back().middle();
    const double redis = subjects[2].writes_a_second.back().middle();
    bench::table_row({"64 clients, to Redis", "", "", "", "", "",
                      bench::number_text(own / redis, 2) + " (at least 0.80)" +
                          (own / redis < 0.8 ? " **missed**" : "")});
}

} // namespace

int main(int argc, char **argv) {
    const bench::options_t options = bench::parse_options(
        argc, argv, "A write of the settings store beside SQLite's and Redis's (row 9)",
        {5, 400, "full", ""});
    try {
        kt::Sandbox sandbox;
        const bench::Tavd tavd(sandbox, options.durability);
        const std::string file = sandbox.directory() + "/bare.db";
        const std::string redis_socket = sandbox.directory() + "/redis.sock";
        const auto redis = start_redis(sandbox, redis_socket);
        std::vector<subject_t> subjects{
            {"tavd " + options.durability, [&] { return tav_writer(tavd.socket()); }},
            {"SQLite in the program", [&] { return sqlite_writer(file); }},
            {"Redis, always", [&] { return redis_writer(redis_socket); }}};
        for (int round = 0; round < options.rounds; ++round) {
            for (subject_t &subject : subjects) {
                measure_one_client(subject, options.samples);
                subject.writes_a_second.resize(client_numbers.size());
                for (std::size_t i = 0; i < client_numbers.size(); ++i) {
                    subject.writes_a_second[i].add(
                        throughput(subject, client_numbers[i], options.samples / 400.0));
                }
            }
        }
        print(subjects);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
