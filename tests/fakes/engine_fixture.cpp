#include "fakes/engine_fixture.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

const char *const interfaces_node = "/Software/System Settings/Network/Interface";

namespace {

bool begins_with(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

std::string shortened(std::string text) {
    const std::string node = interfaces_node;
    for (std::size_t found = text.find(node); found != std::string::npos;
         found = text.find(node, found)) {
        text.replace(found, node.size(), "~");
    }
    return text;
}

const std::array<const char *, 4> type_texts = {"unset", "Link-Local", "Automatic", "Static"};

// The words of "<address>/<length> <type text> <node>"; the node's name may contain blanks.
std::array<std::string, 3> words_of(const std::string &entry) {
    const std::size_t first = entry.find(' ');
    const std::size_t second = entry.find(' ', first + 1);
    return {entry.substr(0, first), entry.substr(first + 1, second - first - 1),
            entry.substr(second + 1)};
}

in6_addr attribute_address(const fake_libnl::bytes_t &body, std::size_t header, int wanted) {
    in6_addr address{};
    for (std::size_t i = header; i + sizeof(rtattr) <= body.size();) {
        rtattr attribute{};
        std::memcpy(&attribute, body.data() + i, sizeof attribute);
        if (attribute.rta_len < sizeof attribute || i + attribute.rta_len > body.size()) {
            ADD_FAILURE() << "malformed attribute in a sent message";
            break;
        }
        if (attribute.rta_type == wanted) {
            const std::size_t size = attribute.rta_len - sizeof attribute;
            std::memcpy(&address, body.data() + i + sizeof attribute,
                        size < sizeof address ? size : sizeof address);
        }
        i += RTA_ALIGN(attribute.rta_len);
    }
    return address;
}

std::string address_change(const fake_libnl::message_t &message) {
    ifaddrmsg header{};
    EXPECT_GE(message.body.size(), sizeof header);
    std::memcpy(&header, message.body.data(), sizeof header);
    return std::string(message.type == RTM_NEWADDR ? "add " : "delete ") +
           text_of(attribute_address(message.body, sizeof header, IFA_ADDRESS)) + "/" +
           std::to_string(header.ifa_prefixlen) + " dev " + std::to_string(header.ifa_index);
}

std::string route_change(const fake_libnl::message_t &message) {
    rtmsg header{};
    EXPECT_GE(message.body.size(), sizeof header);
    std::memcpy(&header, message.body.data(), sizeof header);
    const in6_addr oif = attribute_address(message.body, sizeof header, RTA_OIF);
    std::int32_t ifindex = 0;
    std::memcpy(&ifindex, &oif, sizeof ifindex);
    return std::string(message.type == RTM_NEWROUTE ? "add " : "delete ") + "::/" +
           std::to_string(header.rtm_dst_len) + " via " +
           text_of(attribute_address(message.body, sizeof header, RTA_GATEWAY)) + " dev " +
           std::to_string(ifindex);
}

std::string kernel_change(const fake_libnl::message_t &message) {
    const bool is_address = message.type == RTM_NEWADDR || message.type == RTM_DELADDR;
    return "kernel: " + (is_address ? address_change(message) : route_change(message));
}

std::string kernel_request(const std::string &entry) {
    if (begins_with(entry, "nl_send_simple(18,")) {
        return "kernel: dump links";
    }
    if (begins_with(entry, "nl_send_simple(22,")) {
        return "kernel: dump addrs";
    }
    return begins_with(entry, "nl_send_simple(26,") ? "kernel: dump routes" : entry;
}

strings record_of(bool with_log) {
    strings all;
    std::size_t sent = 0;
    for (const auto &one : journal::entries()) {
        if (begins_with(one, "log ")) {
            if (with_log) {
                all.push_back(shortened(one.substr(4)));
            }
        } else if (begins_with(one, "nl_send_auto_complete(")) {
            const auto &changes = fake_libnl::state().changes;
            all.push_back(sent < changes.size() ? kernel_change(changes[sent]) : one);
            ++sent;
        } else if (begins_with(one, "nl_send_simple(")) {
            all.push_back(kernel_request(one));
        } else if (!begins_with(one, "nl")) {
            all.push_back(shortened(one));
        }
    }
    return all;
}

} // namespace

tk_string at(const tk_string &rest) {
    return tk_string(interfaces_node) + "/" + rest;
}

strings record() {
    return record_of(true);
}

strings effects() {
    return record_of(false);
}

strings changes() {
    strings all;
    for (const auto &effect : effects()) {
        if (!begins_with(effect, "list_node(") && !begins_with(effect, "get_lea")) {
            all.push_back(effect);
        }
    }
    return all;
}

strings lines() {
    strings texts;
    for (const auto &line : captured::log()) {
        const std::size_t colon = line.text.find(": ");
        texts.push_back(colon == std::string::npos ? line.text : line.text.substr(colon + 2));
    }
    return texts;
}

void EngineTest::SetUp() {
    DaemonTest::SetUp();
    tav = toolkit::CTav(mlr_init());
    restart();
}

void EngineTest::TearDown() {
    the_engine.reset();
    channel.reset();
    mlr_close(tav.handle);
    EXPECT_EQ(fake_libnl::state().messages_allocated, fake_libnl::state().messages_freed);
    DaemonTest::TearDown();
}

void EngineTest::restart(const tk_string &prefix) {
    the_engine.reset();
    channel = std::make_unique<CNetlink>();
    the_engine = std::make_unique<Engine>(&tav, channel.get(), prefix);
    forget();
}

void EngineTest::restart_with_eth0(std::int32_t number) {
    restart();
    track(3, "eth0", number);
    engine().state = 4;
}

void EngineTest::forget() {
    journal::clear();
    captured::clear();
    fake_tav::forget_calls();
    fake_libnl::state().changes.clear();
    fake_libnl::state().requests.clear();
}

void EngineTest::synchronise() {
    forget();
    engine().sync_all();
}

void EngineTest::track(std::int32_t ifindex, const tk_string &name) {
    ifcfg_t &fresh = the_engine->interfaces[ifindex];
    fresh.iface.ifindex = ifindex;
    fresh.iface.name = name;
}

void EngineTest::track(std::int32_t ifindex, const tk_string &name, std::int32_t number) {
    track(ifindex, name);
    entry(ifindex).iface.number = number;
}

ifcfg_t &EngineTest::entry(std::int32_t ifindex) {
    return the_engine->interfaces.at(ifindex);
}

void EngineTest::know(std::int32_t ifindex, const std::string &text, int prefix_len,
                      std::int32_t type, const tk_string &node) {
    CFullAddress address;
    address.addr = fake_libnl::addr(text);
    address.prefix_len = static_cast<std::uint8_t>(prefix_len);
    address.ifindex = ifindex;
    address.scope = type == 1 ? 253 : 0;
    address.type = type;
    address.node = node;
    entry(ifindex).addresses.push_back(address);
}

void EngineTest::know(std::int32_t ifindex, const strings &addresses) {
    for (const auto &one : addresses) {
        const auto [address, type, node] = words_of(one);
        const std::size_t slash = address.find('/');
        const auto at = std::find(type_texts.begin(), type_texts.end(), type) - type_texts.begin();
        know(ifindex, address.substr(0, slash), std::stoi(address.substr(slash + 1)),
             static_cast<std::int32_t>(at), node);
    }
}

void EngineTest::know_gateway(std::int32_t ifindex, const std::string &gateway) {
    CFullRoute route;
    route.gateway = fake_libnl::addr(gateway);
    route.ifindex = ifindex;
    route.protocol = 4;
    entry(ifindex).gateway = route;
}

strings EngineTest::table(std::int32_t ifindex) {
    strings all;
    for (const auto &one : entry(ifindex).addresses) {
        all.push_back(text_of(one.addr) + "/" + std::to_string(one.prefix_len) + " " +
                      type_texts.at(static_cast<std::size_t>(one.type)) + " " + one.node);
    }
    return all;
}

std::string EngineTest::gateway(std::int32_t ifindex) {
    const auto &known = entry(ifindex).gateway;
    return known ? text_of(known->gateway) : "";
}

void EngineTest::store(int number, const tk_string &node, const tk_string &address,
                       const tk_string &type) {
    const tk_string path = at(std::to_string(number) + "/IPv6/Addresses/" + node);
    fake_tav::put(path + "/Address/Value", address);
    fake_tav::put(path + "/Type/Value", type);
}

void EngineTest::store(int number, const strings &addresses) {
    for (const auto &one : addresses) {
        const auto [address, type, node] = words_of(one);
        store(number, node, address, type);
    }
}

void EngineTest::store_empty(int number) {
    const tk_string interface = at(std::to_string(number));
    fake_tav::put_node(interface);
    fake_tav::erase(interface);
    fake_tav::put_node(interface);
}

strings EngineTest::stored(int number) {
    strings all;
    const tk_string addresses = at(std::to_string(number) + "/IPv6/Addresses");
    for (const auto &node : fake_tav::children(addresses)) {
        const tk_string path = addresses + "/" + node;
        if (fake_tav::exists(path + "/Address/Value")) {
            all.push_back(fake_tav::text(path + "/Address/Value") + " " +
                          fake_tav::text(path + "/Type/Value") + " " + node);
        }
    }
    return all;
}

void EngineTest::store_gateway(int number, const tk_string &gateway) {
    fake_tav::put(at(std::to_string(number) + "/IPv6/Default Gateway/Value"), gateway);
}

void EngineTest::receive(const fake_libnl::bytes_t &datagram) {
    fake_libnl::queue_datagram(datagram);
    the_engine->handle_netlink();
}

CKernAddress kern_addr(std::int32_t ifindex, const std::string &text, int prefix_len, int scope) {
    CKernAddress address;
    address.ifindex = ifindex;
    address.addr = fake_libnl::addr(text);
    address.prefix_len = static_cast<std::uint8_t>(prefix_len);
    address.scope = static_cast<std::uint8_t>(scope);
    return address;
}

CKernRoute kern_route(std::int32_t ifindex, const std::string &gateway, int protocol,
                      const std::string &dst, int dst_len) {
    CKernRoute route;
    route.ifindex = ifindex;
    route.gateway = fake_libnl::addr(gateway);
    route.protocol = static_cast<std::uint8_t>(protocol);
    route.dst = fake_libnl::addr(dst);
    route.dst_len = static_cast<std::uint8_t>(dst_len);
    return route;
}

CKernInterface kern_link(std::int32_t ifindex, const tk_string &name, const tk_string &hwaddr) {
    CKernInterface link;
    link.ifindex = ifindex;
    link.name = name;
    link.hwaddr = hwaddr;
    return link;
}

std::string address_write(const std::string &node, const std::string &address,
                          const std::string &type) {
    const std::string path = "~/1/IPv6/Addresses/" + node;
    return "set_leaves(" + path + "/Address/Value = " + address + ", " + path +
           "/Type/Value = " + type + ")";
}

std::string text_of(const in6_addr &address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const auto family = std::uint16_t{AF_INET6};
    EXPECT_NE(inet_ntop(family, &address, text.data(), text.size()), nullptr);
    return text.data();
}
