// The settings store compared with alternatives over a Unix socket, or without one: reads, writes,
// transactions, listing everything, the time from a write to a wake-up, and many clients at once.
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>

#include "support/numbers.h"
#include "support/store_targets.h"
#include "support/world.h"

namespace {

using bench::clock_type;
using bench::seconds_between;
using bench::StoreClient;
using bench::time_point;

constexpr int addresses = 1000;

// A text that differs from the one before, so that each write changes something.
std::string text_of(int address, int turn) {
    char text[64];
    std::snprintf(static_cast<char *>(text), sizeof text, "2001:db8:%x::%x/64", turn & 0xffff,
                  address);
    return static_cast<const char *>(text);
}

double time_of(const std::function<void()> &what) {
    const time_point begin = clock_type::now();
    what();
    return seconds_between(begin, clock_type::now());
}

// p50 and p99 of one operation, one value of each per round.
struct operation_t {
    bench::series_t p50, p99;
    void add(const std::vector<double> &times) {
        p50.add(bench::quantile(times, 0.5));
        p99.add(bench::quantile(times, 0.99));
    }
};

// A store that is measured, with all its results.
struct subject_t {
    std::string name;
    std::unique_ptr<bench::StoreTarget> target;
    operation_t read, write, both, all, wake;
    std::vector<bench::series_t> reads_a_second, writes_a_second; // for each number of clients
    int turn = 0;
};

const std::vector<int> client_numbers{1, 4, 16, 64};

void fill(subject_t &subject) {
    const auto client = subject.target->connect();
    for (int i = 1; i <= addresses; ++i) {
        client->write_both(i, text_of(i, 0), "Static");
    }
    if (client->read_all() != addresses * 2) {
        throw std::runtime_error(subject.name + " did not keep everything");
    }
}

void measure_one_client(subject_t &subject, int samples) {
    const auto client = subject.target->connect();
    std::vector<double> read, write, both, all;
    for (int i = 0; i < samples; ++i) {
        const int address = i % addresses + 1;
        const std::string text = text_of(address, ++subject.turn);
        read.push_back(time_of([&] { client->read(address); }));
        write.push_back(time_of([&] { client->write(address, text); }));
        both.push_back(time_of([&] {
            client->write_both(address, text + "1", subject.turn % 2 != 0 ? "Automatic" : "Static");
        }));
        if (i % 20 == 0) {
            all.push_back(time_of([&] { client->read_all(); }));
        }
    }
    subject.read.add(read);
    subject.write.add(write);
    subject.both.add(both);
    subject.all.add(all);
}

// From the call of the write until another client's descriptor reports it. The writer's commit is
// included.
void measure_wake_up(subject_t &subject, int samples) {
    const auto writer = subject.target->connect();
    const auto listener = subject.target->connect();
    pollfd told{listener->subscribe(), POLLIN, 0};
    if (told.fd < 0) {
        return;
    }
    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        usleep(60000); // a wake-up is immediate only after 50 ms without requests
        listener->take_events();
        usleep(60000);
        const time_point begin = clock_type::now();
        writer->write(1, text_of(1, ++subject.turn));
        if (poll(&told, 1, 10000) != 1) {
            throw std::runtime_error(subject.name + " does not report a change");
        }
        times.push_back(seconds_between(begin, clock_type::now()));
    }
    subject.wake.add(times);
}

// This many processes, each with its own connection, for `seconds`; returns the operations per
// second of all together.
double throughput(subject_t &subject, int clients, double seconds, bool writing) {
    struct shared_t {
        int ready, failed;
        bool go;
        long done;
    };
    void *memory =
        mmap(nullptr, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("mmap failed");
    }
    auto *shared = new (memory) shared_t{};
    const int turn = ++subject.turn;
    for (int id = 0; id < clients; ++id) {
        if (fork() != 0) {
            continue;
        }
        try {
            const auto client = subject.target->connect();
            __atomic_add_fetch(&shared->ready, 1, __ATOMIC_SEQ_CST);
            while (!__atomic_load_n(&shared->go, __ATOMIC_SEQ_CST)) {
                usleep(1000);
            }
            const time_point begin = clock_type::now();
            long done = 0;
            while (seconds_between(begin, clock_type::now()) < seconds) {
                const int address = static_cast<int>((id * 15 + done) % addresses + 1);
                if (writing) {
                    client->write(address, text_of(address, turn * 7919 + static_cast<int>(done)));
                } else {
                    client->read(address);
                }
                ++done;
            }
            __atomic_add_fetch(&shared->done, done, __ATOMIC_SEQ_CST);
        } catch (const std::exception &failure) {
            std::fprintf(stderr, "%s: %s\n", subject.name.c_str(), failure.what());
            __atomic_add_fetch(&shared->failed, 1, __ATOMIC_SEQ_CST);
            __atomic_add_fetch(&shared->ready, 1, __ATOMIC_SEQ_CST);
        }
        _exit(0);
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

void measure_many_clients(subject_t &subject, double seconds) {
    subject.reads_a_second.resize(client_numbers.size());
    subject.writes_a_second.resize(client_numbers.size());
    for (std::size_t i = 0; i < client_numbers.size(); ++i) {
        subject.reads_a_second[i].add(throughput(subject, client_numbers[i], seconds, false));
        subject.writes_a_second[i].add(throughput(subject, client_numbers[i], seconds, true));
    }
}

std::string both_texts(const operation_t &operation) {
    return operation.p50.rounds.empty()
               ? "-"
               : bench::time_text(operation.p50) + "; " + bench::time_text(operation.p99);
}

void print_latencies(const std::vector<subject_t> &subjects) {
    bench::table_head({"One client: p50; p99", "read", "write", "two leaves", "1,000 addresses",
                       "write to wake-up"});
    for (const subject_t &subject : subjects) {
        bench::table_row({subject.name, both_texts(subject.read), both_texts(subject.write),
                          both_texts(subject.both), both_texts(subject.all),
                          both_texts(subject.wake)});
    }
    std::printf("\n");
}

void print_throughput(const std::vector<subject_t> &subjects, const char *what,
                      std::vector<bench::series_t> subject_t::*found) {
    std::vector<std::string> head{std::string(what) + " a second"};
    for (const int number : client_numbers) {
        head.push_back(std::to_string(number) + (number == 1 ? " client" : " clients"));
    }
    bench::table_head(head);
    for (const subject_t &subject : subjects) {
        std::vector<std::string> row{subject.name};
        for (const bench::series_t &series : subject.*found) {
            row.push_back(bench::number_text(series.middle(), 0));
        }
        bench::table_row(row);
    }
    std::printf("\n");
}

double ratio(const operation_t &ours, const operation_t &theirs) {
    return ours.p50.middle() / theirs.p50.middle();
}

void print(const std::vector<subject_t> &subjects) {
    print_latencies(subjects);
    print_throughput(subjects, "Reads", &subject_t::reads_a_second);
    print_throughput(subjects, "Writes", &subject_t::writes_a_second);
    const subject_t &normal = subjects[1], &full = subjects[2], &everysec = subjects[3],
                    &bare = subjects[6];
    bench::table_head({"p50, one client", "ratio"});
    bench::table_row({"read, to Redis", bench::verdict(ratio(full.read, everysec.read), 1)});
    bench::table_row({"`normal` write, to Redis everysec",
                      bench::verdict(ratio(normal.write, everysec.write), 1)});
    bench::table_row({"`full` write, to a bare SQLite commit",
                      bench::verdict(ratio(full.write, bare.write), 1.3)});
}

} // namespace

int main(int argc, char **argv) {
    bench::options_t defaults;
    defaults.samples = 400;
    const bench::options_t options = bench::parse_options(
        argc, argv, "The settings store beside Redis and SQLite (--durability is not looked at)",
        defaults);
    try {
        kt::Sandbox sandbox;
        std::vector<subject_t> subjects(7);
        const char *names[] = {"tavd --memory", "tavd normal",   "tavd full",  "Redis everysec",
                               "Redis always",  "SQLite normal", "SQLite full"};
        for (std::size_t i = 0; i < subjects.size(); ++i) {
            subjects[i].name = names[i];
        }
        subjects[0].target = bench::tav_target(sandbox, "memory");
        subjects[1].target = bench::tav_target(sandbox, "normal");
        subjects[2].target = bench::tav_target(sandbox, "full");
        subjects[3].target = bench::redis_target(sandbox, "everysec");
        subjects[4].target = bench::redis_target(sandbox, "always");
        subjects[5].target = bench::sqlite_target(sandbox, "normal");
        subjects[6].target = bench::sqlite_target(sandbox, "full");
        for (subject_t &subject : subjects) {
            fill(subject);
        }
        for (int round = 0; round < options.rounds; ++round) {
            for (subject_t &subject : subjects) {
                measure_one_client(subject, options.samples);
                measure_wake_up(subject, options.samples / 20 + 1);
                measure_many_clients(subject, options.samples / 400.0);
            }
        }
        print(subjects);
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
