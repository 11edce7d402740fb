// A kernel view made by the test, and the fake store read by the tool's reader.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "ctl/tool.h"
#include "fakes/fake_tav.h"
#include "fakes/log_capture.h"

class LookTest : public DaemonTest {
protected:
    // eth0: up, tracked, with a store node, and without differences.
    LookTest() {
        link("eth0");
        fake_tav::put_node(at("1"));
    }

    static std::string at(const std::string &below) {
        return "/Software/System Settings/Network/Interface/" + below;
    }
    static in6_addr bytes(const std::string &text) {
        in6_addr address{};
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
        return address;
    }

    ctl::kernel_link_t &link(const std::string &name) {
        ctl::kernel_link_t link;
        link.index = static_cast<int>(kernel.links.size()) + 1;
        link.name = name;
        link.hwaddr = "02:00:00:00:00:05";
        link.ethernet = link.up = link.carrier = link.has_ipv6 = true;
        link.mtu = 1500;
        kernel.links.push_back(link);
        return kernel.links.back();
    }
    // On eth0; link-local by the address.
    ctl::kernel_address_t &address(const std::string &text, std::uint8_t length) {
        ctl::kernel_address_t one;
        one.address.ifindex = 1;
        one.address.addr = bytes(text);
        one.address.prefix_len = length;
        one.address.scope =
            IN6_IS_ADDR_LINKLOCAL(&one.address.addr) ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
        one.flags = IFA_F_PERMANENT;
        one.valid = one.preferred = ctl::forever;
        kernel.addresses.push_back(one);
        return kernel.addresses.back();
    }
    // A default route of eth0 in the main table.
    ctl::kernel_route_t &route(const std::string &gateway, std::uint8_t protocol = RTPROT_STATIC) {
        ctl::kernel_route_t one;
        one.route.ifindex = 1;
        one.route.protocol = protocol;
        one.route.gateway = bytes(gateway);
        one.table = RT_TABLE_MAIN;
        one.metric = ctl::usual_metric;
        one.type = RTN_UNICAST;
        kernel.routes.push_back(one);
        return kernel.routes.back();
    }
    static void store(const std::string &node, const std::string &text,
                      const std::string &type = "Static", const std::string &interface = "1") {
        fake_tav::put(at(interface + "/IPv6/Addresses/" + node + "/Address/Value"), text);
        fake_tav::put(at(interface + "/IPv6/Addresses/" + node + "/Type/Value"), type);
    }
    static void store_gateway(const std::string &text) {
        fake_tav::put(at("1/IPv6/Default Gateway/Value"), text);
    }

    ctl::comparison_t look() {
        client.require();
        return ctl::compare(kernel, ctl::read_store(client.tav, prefix), prefix);
    }
    // Every finding, of the store and of each link.
    std::vector<ctl::finding_t> findings() {
        const ctl::comparison_t comparison = look();
        std::vector<ctl::finding_t> all = comparison.findings;
        for (const ctl::interface_view_t &interface : comparison.interfaces) {
            all.insert(all.end(), interface.findings.begin(), interface.findings.end());
        }
        return all;
    }

    std::string prefix = "eth";
    ctl::kernel_view_t kernel;
    ctl::client_t client;
};
