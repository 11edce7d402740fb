// One end of the protocol by hand: plays a service or a client that misbehaves.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "client/unique_fd.h"
#include "protocol/messages.h"

namespace tavtest {

class RawPeer {
public:
    explicit RawPeer(tav::UniqueFd connected) : socket(std::move(connected)) {}
    // Connects to a service.
    explicit RawPeer(const std::string &path);

    int fd() const { return socket.get(); }
    // False when the other side is gone.
    bool send(const std::string &bytes) const;
    // The next frame's body; empty when the connection ended instead.
    std::string receive();
    // The reason with which the service ended the connection, which must be its last frame;
    // otherwise a text that describes what arrived instead.
    std::string farewell();
    // Greets the service, as the first connection of a client.
    tav::Ticket greet();
    // Waits until the other side closes the connection.
    bool closed();
    void close() { socket.reset(); }

private:
    bool receive_exactly(std::string &to, std::size_t number);

    tav::UniqueFd socket;
};

std::string request_frame(tav::Op op, const std::function<void(tav::Writer &)> &content = {});
// Requests that many tests send.
std::string hello_frame();
std::string attach_frame(const tav::Ticket &ticket);
std::string path_frame(tav::Op op, const std::string &path);
std::string read_frame(const std::vector<std::string> &paths);
std::string write_frame(const std::vector<tav::Item> &items);
std::string reply_frame(std::uint32_t serial, bool drain,
                        const std::function<void(tav::Writer &)> &content = {});

// A client's two connections, opened by hand.
struct RawClient {
    explicit RawClient(const std::string &path);
    RawPeer calls;
    RawPeer wake;
    tav::Ticket ticket;
};

// A socket that listens at `path`, whose directory is created.
tav::UniqueFd listen_at(const std::string &path);

// Plays the service for one client: accepts its two connections, then runs `script` on a thread.
class FakeService {
public:
    using Script = std::function<void(RawPeer &calls, RawPeer &wake)>;
    FakeService(const std::string &path, Script played);
    ~FakeService();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

private:
    void play();

    tav::UniqueFd listener;
    Script script;
    std::thread thread;
};

// The serial number of a request.
std::uint32_t serial_of(const std::string &request_body);

} // namespace tavtest
