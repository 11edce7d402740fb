// One datagram through each decoder of netlink messages. The references read it through one
// function that returns a byte, or zero after the end.
#include <array>
#include <cstring>
#include <memory>

#include "fuzz/fuzz.h"
#include "fuzz/log_sink.h"
#include "fuzz/netlink_reference.h"
#include "netlink/decode.h"
#include "netlink/dump.h"
#include "netlink/refusal.h"

namespace {

using fuzz::require;
using fuzz::require_same;

// A copy that starts at an odd address and ends where its block ends.
class odd_copy_t {
public:
    odd_copy_t(const std::uint8_t *data, std::size_t size)
        : block(new unsigned char[size + 1]), length(size) {
        if (size > 0) {
            std::memcpy(block.get() + 1, data, size);
        }
    }
    const unsigned char *bytes() const { return block.get() + 1; }
    int size() const { return static_cast<int>(length); }

private:
    std::unique_ptr<unsigned char[]> block;
    std::size_t length;
};

std::string bytes_of(const in6_addr &addr) {
    return std::string(reinterpret_cast<const char *>(&addr), sizeof addr);
}

std::string described(const CKernInterface &link) {
    return "link " + std::to_string(link.ifindex) + " " + link.hwaddr + " " + link.name + "\n";
}
std::string described(const CKernAddress &addr) {
    return "addr " + std::to_string(addr.ifindex) + " " + std::to_string(addr.scope) + " " +
           std::to_string(addr.prefix_len) + " " + bytes_of(addr.addr) + "\n";
}
std::string described(const CKernRoute &route) {
    return "route " + std::to_string(route.ifindex) + " " + std::to_string(route.protocol) + " " +
           std::to_string(route.dst_len) + " " + bytes_of(route.dst) + " " +
           bytes_of(route.gateway) + "\n";
}

template <typename Record>
std::string described(const std::vector<Record> &records) {
    std::string text;
    for (const Record &record : records) {
        text += described(record);
    }
    return text;
}

template <typename Record>
void compare(std::vector<Record> (*decode)(const unsigned char *, int),
             reference::decoded_t (*expect)(const std::string &), const odd_copy_t &copy,
             const std::string &datagram) {
    log_sink::record_up_to(4);
    const std::string got = described(decode(copy.bytes(), copy.size()));
    const std::string logged = log_sink::joined(log_sink::take());
    const reference::decoded_t expected = expect(datagram);
    require_same(got, expected.records, "the records differ");
    require_same(logged, expected.log, "the log lines differ");
}

std::string described(const boost::optional<refusal_t> &refusal) {
    if (!refusal) {
        return "none";
    }
    return std::to_string(refusal->error) + " " + std::to_string(refusal->request) + " " +
           described(refusal->addr) + described(refusal->route);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const odd_copy_t copy(data, size);
    const std::string datagram(data, data + size);
    compare(&decode_links, &reference::links, copy, datagram);
    compare(&decode_addrs, &reference::addrs, copy, datagram);
    compare(&decode_routes, &reference::routes, copy, datagram);
    const wire::datagram_t received(copy.bytes(), copy.size());
    const dump_marks_t marks = read_dump_marks(received);
    require(marks.ends_after_first == reference::ends_after_first(datagram),
            "the end of the dump differs");
    require(marks.incomplete == reference::incomplete(datagram),
            "the completeness of the dump differs");
    require_same(described(decode_refusal(received)), reference::refusal(datagram),
                 "the refusal differs");
    return 0;
}
