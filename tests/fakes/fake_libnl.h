// The netlink library as the daemon uses it: records every call in the journal, keeps sent
// messages, and answers with what the test has prepared. No socket is opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "sync/model.h"

namespace fake_libnl {

using bytes_t = std::vector<unsigned char>;

// A request as the daemon passed it: before the library completes it with port, sequence number and
// further flags. `body` is the part after the 16 bytes of the netlink header.
struct message_t {
    int type = 0;
    int flags = 0;
    bytes_t body;
};

// Results for the next calls of one function; without any, the call behaves like the library.
class results_t {
public:
    // The next call that has no result yet returns this one.
    results_t &then(int result);
    // Every call returns this result once those of then() are used up.
    void always(int result);
    bool next(int &result);
    void clear();

private:
    std::deque<int> queue;
    bool has_always = false;
    int always_result = 0;
};

struct state_t {
    // Injected results, one object for each function.
    results_t connect, add_memberships, set_nonblocking, get_fd, send_simple, append, put,
        send_auto_complete;
    // Set to make the next allocations fail (the count goes down with each).
    unsigned failing_socket_allocs = 0;
    unsigned failing_message_allocs = 0;

    // The default result of nl_socket_get_fd.
    int fd = 70;

    // If set, the release of each datagram is entered in the journal (see fake_os::watch_free).
    bool watch_datagrams = false;

    // Sent messages: dump requests by nl_send_simple, changes by nl_send_auto_complete. A send that
    // was made to fail is not included.
    std::vector<message_t> requests;
    std::vector<message_t> changes;

    unsigned sockets_allocated = 0, sockets_freed = 0;
    unsigned messages_allocated = 0, messages_freed = 0;
};

state_t &state();

// nl_recv returns this datagram, in a buffer from malloc of exactly its size.
void queue_datagram(const bytes_t &datagram);
// nl_recv returns this result (0 or below) without a buffer.
void queue_recv_result(int result);
// The number of datagrams and results not yet received. With none left nl_recv returns -4, like the
// library on an empty non-blocking socket.
std::size_t queued();
// Discards them, like closing the socket.
void drop_datagrams();

constexpr int multi = 2; // NLM_F_MULTI

// Builds a datagram, message after message. Lengths are correct unless set_... is used.
class datagram_t {
public:
    // A message with this family header; attributes are added after it.
    datagram_t &message(int type, const void *family_header, std::size_t size, int flags = 0);
    datagram_t &attribute(int type, const void *payload, std::size_t size);
    datagram_t &attribute(int type, const std::string &text); // with its NUL
    datagram_t &attribute(int type, std::int32_t number);
    datagram_t &attribute(int type, const in6_addr &address);

    // Complete messages as the kernel sends them. An empty text omits the attribute.
    datagram_t &link(int type, int ifindex, const std::string &name,
                     std::initializer_list<unsigned char> hwaddr = {0x02, 0, 0, 0, 0, 1},
                     int flags = 0);
    datagram_t &address(int type, int ifindex, const std::string &text, int prefix_len,
                        int scope = 0, int flags = 0);
    // `dst` empty: a default route (dst_len 0, no RTA_DST). ifindex -1: no RTA_OIF.
    datagram_t &route(int type, int ifindex, const std::string &gateway, int protocol = 4,
                      const std::string &dst = "", int dst_len = 0, int flags = 0);

    // The end of a dump, with its result (0, or a negative errno value).
    datagram_t &done(int result = 0, int flags = 2);
    // An answer to `request`: `error` 0 (an acknowledgement, with the request's header only) or a
    // negative errno value (with the whole request).
    datagram_t &error(int error, const message_t &request);

    // Overwrites nlmsg_len of the last message, or rta_len of its last attribute.
    datagram_t &set_message_length(std::uint32_t length);
    datagram_t &set_attribute_length(std::uint16_t length);
    // Cuts the datagram to its first `size` bytes.
    datagram_t &cut(std::size_t size);

    const bytes_t &bytes() const { return content; }
    operator const bytes_t &() const { return content; }

private:
    void grow_message();

    bytes_t content;
    std::size_t message_at = 0;
    std::size_t attribute_at = 0;
};

// "2001:db8::5" as bytes; fails the test when the text is no address.
in6_addr addr(const std::string &text);

} // namespace fake_libnl
