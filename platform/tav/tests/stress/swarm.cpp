#include "stress/swarm.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "client/admin.h"

namespace stress {

namespace {

using Strings = std::vector<std::string>;
using tav::Item;
using tav::ItemKind;
using tav::Op;
using tavtest::path_frame;
using tavtest::request_frame;
using tavtest::write_frame;

constexpr uid_t foreign_user = 54321;
constexpr gid_t foreign_group = 1; // every such system has it

// The calling thread is another user meanwhile: the C library's functions would change all threads.
class Disguise {
public:
    explicit Disguise(bool wanted) : active(wanted) {
        if (active && (::syscall(SYS_setresgid, -1, foreign_group, -1) != 0 ||
                       ::syscall(SYS_setresuid, -1, foreign_user, -1) != 0)) {
            throw std::runtime_error("cannot become another user");
        }
    }
    ~Disguise() {
        if (active) {
            ::syscall(SYS_setresuid, -1, 0, -1);
            ::syscall(SYS_setresgid, -1, 0, -1);
        }
    }
    Disguise(const Disguise &) = delete;
    Disguise &operator=(const Disguise &) = delete;

private:
    bool active;
};

std::vector<Item> leaves(const std::string &stem, int number, const std::string &text = "1") {
    std::vector<Item> items;
    for (int i = 0; i < number; ++i) {
        items.push_back(
            {ItemKind::set, stem + std::to_string(i), {element_type_integer, text, tav::no_time}});
    }
    return items;
}

void write(const std::vector<Item> &items) {
    const Client client;
    std::vector<api_status_t> statuses;
    if (tav::transact(client.tav.handle, items, statuses) != 0 ||
        statuses.front() != api_status_ok) {
        throw std::runtime_error("the store could not be filled");
    }
}

std::string registration() {
    return request_frame(Op::event_register, [](tav::Writer &out) {
        put(out, tav::Registration{"/", api_event_change, true});
    });
}

struct Part {
    int connections;
    Strings first;
    std::string again;
    Manner manner = Manner::takes;
};

Attack attack(const char *name, const std::vector<Part> &parts) {
    return {name, [parts](const Service &service, bool foreign) {
                std::vector<std::unique_ptr<Swarm>> swarms;
                for (const Part &part : parts) {
                    swarms.push_back(std::make_unique<Swarm>(service, foreign, part.connections,
                                                             part.first, part.again, part.manner));
                }
                return swarms;
            }};
}

} // namespace

Swarm::Swarm(const Service &service, bool foreign, int connections, const Strings &first,
             const std::string &request, Manner manner)
    : again(request) {
    if (manner == Manner::leaves) {
        sending = std::thread([this, socket = service.socket(), foreign, connections, first] {
            come_and_leave(socket, foreign, connections, first);
        });
        return;
    }
    {
        const Disguise disguise(foreign);
        for (int i = 0; i < connections; ++i) {
            clients.push_back(std::make_unique<tavtest::RawClient>(service.socket()));
        }
    }
    for (const auto &client : clients) {
        for (const std::string &frame : first) {
            client->calls.send(frame);
        }
    }
    if (manner == Manner::takes) {
        receiving = std::thread([this] { receive(); });
    }
    if (!again.empty()) {
        sending = std::thread([this] { send(); });
    }
}

Swarm::~Swarm() {
    stop = true;
    for (const auto &client : clients) {
        ::shutdown(client->calls.fd(), SHUT_RDWR);
    }
    for (std::thread *thread : {&sending, &receiving}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
}

void Swarm::send() {
    std::vector<std::size_t> sent(clients.size());
    while (!stop) {
        std::vector<pollfd> entries;
        for (const auto &client : clients) {
            entries.push_back({client->calls.fd(), POLLOUT, 0});
        }
        ::poll(entries.data(), entries.size(), 100);
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const std::string_view rest = std::string_view(again).substr(sent[i]);
            const ssize_t done = ::send(clients[i]->calls.fd(), rest.data(), rest.size(),
                                        MSG_DONTWAIT | MSG_NOSIGNAL);
            sent[i] =
                (sent[i] + static_cast<std::size_t>(std::max<ssize_t>(done, 0))) % again.size();
        }
    }
}

void Swarm::receive() {
    std::string space(std::size_t{1} << 20, '\0');
    while (!stop) {
        std::vector<pollfd> entries;
        for (const auto &client : clients) {
            entries.push_back({client->calls.fd(), POLLIN, 0});
        }
        ::poll(entries.data(), entries.size(), 100);
        for (const auto &client : clients) {
            static_cast<void>(::recv(client->calls.fd(), space.data(), space.size(), MSG_DONTWAIT));
        }
    }
}

void Swarm::come_and_leave(const std::string &socket, bool foreign, int connections,
                           const Strings &requests) const {
    const Disguise disguise(foreign);
    while (!stop) {
        try {
            std::vector<std::unique_ptr<tavtest::RawClient>> present;
            for (int i = 0; i < connections; ++i) {
                present.push_back(std::make_unique<tavtest::RawClient>(socket));
                for (const std::string &frame : requests) {
                    present.back()->calls.send(frame);
                }
            }
            for (const auto &client : present) {
                for (std::size_t i = 0; i < requests.size(); ++i) {
                    client->calls.receive();
                }
            }
        } catch (const std::runtime_error &) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the service was killed
        }
    }
}

const std::vector<Attack> &attacks() {
    static const std::vector<Attack> all{
        attack("100 clients dump 160,000 leaves", {{100, {}, path_frame(Op::dump, "/")}}),
        attack("100 clients list 60,000 names of 245 bytes",
               {{100, {}, path_frame(Op::list, "/wide")}}),
        attack("100 clients read 50,000 paths at a time",
               {{100, {}, tavtest::read_frame(Strings(50000, "/many/1/1"))}}),
        attack(
            "four flood with small reads and four with small writes",
            {{4, {}, tavtest::read_frame({"/good/value"})},
             {4, {}, write_frame(leaves("/flood/", 1)) + write_frame(leaves("/flood/", 1, "2"))}}),
        attack("100 that never fetch, one writes 49,000 leaves",
               {{100, {registration()}, "", Manner::deaf},
                {1,
                 {},
                 write_frame(leaves("/many/0/", 20000, "2")) +
                     write_frame(leaves("/more/", 29000)) + write_frame(leaves("/many/0/", 20000)) +
                     write_frame(leaves("/more/", 29000, "2"))}}),
        attack("one touches / 2,000 times a call",
               {{1, {}, write_frame(std::vector<Item>(2000, {ItemKind::touch, "/", {}}))}}),
        attack("one writes 45,000 leaves over unfetched events",
               {{1, {registration()}, write_frame(leaves("/stale/", 45000))},
                {1, {}, write_frame(leaves("/stale/", 45000, "2"))}}),
        attack("one makes and removes 45,000 leaves",
               {{1,
                 {},
                 write_frame(leaves("/come/", 45000)) +
                     write_frame({{ItemKind::remove, "/come", {}}})}}),
        attack("100 clients register again and again", {{100, {}, registration()}}),
        attack("100 clients send requests and take no answer",
               {{100, {}, path_frame(Op::dump, "/"), Manner::deaf}}),
        attack("101 make 45,000 events, leave and come again",
               {{100, {registration()}, "", Manner::leaves},
                {1,
                 {registration(), write_frame({{ItemKind::touch, "/stale", {}}})},
                 "",
                 Manner::leaves}}),
    };
    return all;
}

void fill() {
    for (int part = 0; part < 5; ++part) {
        write(leaves("/many/" + std::to_string(part) + "/", 20000));
    }
    for (int part = 0; part < 2; ++part) {
        write(leaves("/wide/" + std::string(240, 'n') + std::to_string(part), 30000));
    }
    write(leaves("/more/", 29000));
    write(leaves("/stale/", 45000));
}

void tidy() {
    write({{ItemKind::clear, "/come", {}}});
}

bool can_be_foreign() {
    return ::geteuid() == 0 && ::getgrgid(foreign_group) != nullptr;
}

std::vector<std::string> foreign_options() {
    return {"--write-group", ::getgrgid(foreign_group)->gr_name};
}

long memory(Service &service) {
    std::ifstream file("/proc/" + std::to_string(service.process().pid()) + "/status");
    for (std::string word; file >> word;) {
        if (word == "VmRSS:") {
            long kilobytes = 0;
            file >> kilobytes;
            return kilobytes;
        }
    }
    return 0;
}

} // namespace stress
