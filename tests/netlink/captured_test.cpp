// Datagrams of real kernels (captured/README.md): of either byte order, with the end of a dump
// alone or after the last record. All are decoded alike, at any address in memory.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "netlink/channel.h"
#include "netlink/decoded_text.h"
#include "netlink/dump.h"
#include "netlink/refusal.h"

namespace {

using fake_libnl::bytes_t;

struct captured_t {
    const char *kind;
    const char *hex;
};

const captured_t big_endian_6_1[] = {
#include "netlink/captured/big-endian-6.1.inc"
};
const captured_t little_endian_6_1[] = {
#include "netlink/captured/little-endian-6.1.inc"
};
const captured_t little_endian_6_18[] = {
#include "netlink/captured/little-endian-6.18.inc"
};

bool machine_is_little_endian() {
    const std::uint16_t one = 1;
    unsigned char first = 0;
    std::memcpy(&first, &one, 1);
    return first == 1;
}

bytes_t from_hex(const std::string &hex) {
    bytes_t bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

// Converts a datagram from a machine with the other byte order: every number in the headers, and
// the attributes that the decoders read as numbers.
class Swapper {
public:
    explicit Swapper(bytes_t &datagram) : bytes(datagram) {}

    void messages(std::size_t at, std::size_t end) {
        while (at + sizeof(nlmsghdr) <= end) {
            at += NLMSG_ALIGN(message(at));
        }
    }

private:
    // Each returns the number as this machine reads it.
    std::uint32_t four(std::size_t at) {
        std::swap(bytes.at(at), bytes.at(at + 3));
        std::swap(bytes.at(at + 1), bytes.at(at + 2));
        std::uint32_t number = 0;
        std::memcpy(&number, &bytes.at(at), sizeof number);
        return number;
    }
    std::uint16_t two(std::size_t at) {
        std::swap(bytes.at(at), bytes.at(at + 1));
        std::uint16_t number = 0;
        std::memcpy(&number, &bytes.at(at), sizeof number);
        return number;
    }

    std::uint32_t message(std::size_t at) {
        const std::uint32_t length = four(at + offsetof(nlmsghdr, nlmsg_len));
        const std::uint16_t type = two(at + offsetof(nlmsghdr, nlmsg_type));
        two(at + offsetof(nlmsghdr, nlmsg_flags));
        four(at + offsetof(nlmsghdr, nlmsg_seq));
        four(at + offsetof(nlmsghdr, nlmsg_pid));
        const std::size_t body = at + NLMSG_HDRLEN;
        const std::size_t end = at + length;
        switch (type) {
        case NLMSG_DONE:
            four(body);
            break;
        case NLMSG_ERROR:
            four(body);
            message(body + sizeof(std::int32_t));
            break;
        case RTM_NEWLINK:
            two(body + offsetof(ifinfomsg, ifi_type));
            four(body + offsetof(ifinfomsg, ifi_index));
            four(body + offsetof(ifinfomsg, ifi_flags));
            four(body + offsetof(ifinfomsg, ifi_change));
            attributes(body + sizeof(ifinfomsg), end, -1);
            break;
        case RTM_NEWADDR:
            four(body + offsetof(ifaddrmsg, ifa_index));
            attributes(body + sizeof(ifaddrmsg), end, -1);
            break;
        case RTM_NEWROUTE:
            four(body + offsetof(rtmsg, rtm_flags));
            attributes(body + sizeof(rtmsg), end, RTA_OIF);
            break;
        default:
            ADD_FAILURE() << "a message of type " << type;
        }
        return length;
    }

    void attributes(std::size_t at, std::size_t end, int number) {
        while (at + sizeof(rtattr) <= end) {
            const std::uint16_t length = two(at + offsetof(rtattr, rta_len));
            const std::uint16_t type = two(at + offsetof(rtattr, rta_type));
            if (type == number) {
                four(at + sizeof(rtattr));
            }
            at += RTA_ALIGN(length);
        }
    }

    bytes_t &bytes;
};

// The decoders' results for a datagram at an address with this remainder modulo 16.
class Placed {
public:
    Placed(const bytes_t &datagram, std::size_t remainder)
        : block(datagram.size() + 16 + remainder), length(static_cast<int>(datagram.size())) {
        const auto at = reinterpret_cast<std::uintptr_t>(block.data()) % 16;
        start = block.data() + (16 - at) % 16 + remainder;
        std::memcpy(start, datagram.data(), datagram.size());
    }
    strings links() const { return ::decoded(decode_links, start, length); }
    strings addresses() const { return ::decoded(decode_addrs, start, length); }
    strings routes() const { return ::decoded(decode_routes, start, length); }
    strings refusal() const {
        const auto refused = decode_refusal({start, length});
        if (!refused) {
            return {};
        }
        return {std::to_string(refused->error) + " of " + std::to_string(refused->request) + " " +
                std::to_string(refused->addr.ifindex) + " " + text_of(refused->addr.addr) + "/" +
                std::to_string(refused->addr.prefix_len)};
    }
    bool ends() const { return read_dump_marks({start, length}).ends_after_first; }
    bool incomplete() const { return read_dump_marks({start, length}).incomplete; }

private:
    bytes_t block;
    unsigned char *start;
    int length;
};

struct kernel_t {
    const char *name;
    bool little_endian;
    bool end_stands_alone; // of a dump of links or addresses
    std::vector<captured_t> datagrams;
};

template <std::size_t size>
std::vector<captured_t> all(const captured_t (&datagrams)[size]) {
    return {datagrams, datagrams + size};
}

const std::array<kernel_t, 3> kernels{{
    {"BigEndian6_1", false, true, all(big_endian_6_1)},
    {"LittleEndian6_1", true, true, all(little_endian_6_1)},
    {"LittleEndian6_18", true, false, all(little_endian_6_18)},
}};

void PrintTo(const kernel_t &kernel, std::ostream *out) {
    *out << kernel.name;
}

class Captured : public DaemonTest, public ::testing::WithParamInterface<kernel_t> {
protected:
    // The datagrams of one kind, in this machine's byte order.
    static std::vector<bytes_t> of_kind(const std::string &kind) {
        std::vector<bytes_t> found;
        for (const auto &captured : GetParam().datagrams) {
            if (captured.kind == kind) {
                found.push_back(from_hex(captured.hex));
                if (GetParam().little_endian != machine_is_little_endian()) {
                    Swapper(found.back()).messages(0, found.back().size());
                }
            }
        }
        EXPECT_FALSE(found.empty()) << kind;
        return found;
    }

    // A decoder's results for all datagrams of a kind: the same at every address.
    template <typename Decode>
    static strings decoded(const std::string &kind, const Decode &decode) {
        std::array<strings, 16> found;
        for (const auto &datagram : of_kind(kind)) {
            for (std::size_t remainder = 0; remainder < found.size(); ++remainder) {
                const auto part = decode(Placed(datagram, remainder));
                found.at(remainder).insert(found.at(remainder).end(), part.begin(), part.end());
            }
        }
        for (std::size_t remainder = 1; remainder < found.size(); ++remainder) {
            EXPECT_EQ(found.at(remainder), found[0]) << kind << " at " << remainder;
        }
        return found[0];
    }

    // The channel's codes of the datagrams of a dump; "+" where the end is after the last record.
    static std::string course(const std::string &kind) {
        CNetlink channel;
        std::ostringstream seen;
        wire::owned_datagram_t received;
        for (const auto &datagram : of_kind(kind)) {
            fake_libnl::queue_datagram(datagram);
            seen << channel.recv(received.bytes, received.length)
                 << (read_dump_marks(received).ends_after_first ? "+ " : " ");
        }
        return seen.str();
    }
};

TEST_P(Captured, LinksAreTheSame) {
    EXPECT_EQ(decoded("links", [](const Placed &placed) { return placed.links(); }),
              (strings{"2 eth0 02:1a:2b:3c:4d:5e"}));
}

TEST_P(Captured, AddressesAreTheSame) {
    EXPECT_EQ(decoded("addresses", [](const Placed &placed) { return placed.addresses(); }),
              (strings{"2 2001:db8:1::6/48 scope 0", "2 2001:db8::5/64 scope 0",
                       "2 fe80::1a:2bff:fe3c:4d5e/64 scope 253"}));
    EXPECT_EQ(decoded("notification", [](const Placed &placed) { return placed.addresses(); }),
              (strings{"2 2001:db8:2::7/64 scope 0"}));
}

TEST_P(Captured, RoutesAreTheSame) {
    EXPECT_EQ(decoded("routes", [](const Placed &placed) { return placed.routes(); }),
              (strings{"2 2001:db8::/64 via :: protocol 2", "2 2001:db8:1::/48 via :: protocol 2",
                       "2 2001:db8:7::/48 via fe80::2 protocol 4", "2 fe80::/64 via :: protocol 2",
                       "2 ::/0 via fe80::1 protocol 4", "2 2001:db8::5/128 via :: protocol 2",
                       "2 2001:db8:1::6/128 via :: protocol 2",
                       "2 fe80::1a:2bff:fe3c:4d5e/128 via :: protocol 2",
                       "2 ff00::/8 via :: protocol 2"}));
}

TEST_P(Captured, ARefusalIsTheSame) {
    EXPECT_EQ(decoded("refusal", [](const Placed &placed) { return placed.refusal(); }),
              (strings{"17 of 20 2 2001:db8::5/64"}));
}

TEST_P(Captured, TheEndOfADumpIsSeenInEitherPlace) {
    const bool alone = GetParam().end_stands_alone;
    EXPECT_EQ(course("links"), alone ? "16 1 " : "16+ ");
    EXPECT_EQ(course("addresses"), alone ? "20 1 " : "20+ ");
    EXPECT_EQ(course("routes"), "24 1 ");
    for (const std::string kind : {"links", "addresses", "routes"}) {
        decoded(kind, [](const Placed &placed) {
            EXPECT_FALSE(placed.incomplete());
            return strings{placed.ends() ? "ends" : "goes on"};
        });
    }
}

// Ensures that nothing above passes by accident: the files differ as their names say.
TEST_P(Captured, IsOfTheByteOrderThatItsNameSays) {
    for (const auto &captured : GetParam().datagrams) {
        const bytes_t bytes = from_hex(captured.hex);
        const std::size_t low = GetParam().little_endian ? 0 : 3;
        EXPECT_NE(bytes.at(low), 0) << captured.kind;
        EXPECT_EQ(bytes.at(3 - low), 0) << captured.kind;
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, Captured, ::testing::ValuesIn(kernels),
                         [](const auto &one) { return std::string(one.param.name); });

} // namespace
