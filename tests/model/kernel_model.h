// The relevant part of the kernel, with its observed behaviour: links, their IPv6 addresses,
// default routes, and the notifications to a listener. Every call returns an errno value.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace model {

struct Notice {
    enum What {
        link_new,
        link_gone,
        address_new,
        address_gone,
        route_new,
        route_gone,
        address_refused, // the listener's own request
        route_refused,
        route_removal_refused
    };
    What what;
    int link;
    std::string text; // the link's name, the address, the gateway
    int number = 0;   // prefix length, protocol, or the error of a refusal
};

struct KernelAddress {
    std::string text;
    int length;
    bool expires = false;
};

struct KernelRoute { // a default route
    int link;
    std::string gateway;
    int protocol;
    int metric;
    bool operator==(const KernelRoute &other) const {
        return link == other.link && gateway == other.gateway && protocol == other.protocol &&
               metric == other.metric;
    }
};

struct KernelLink {
    std::string name;
    int slot;
    bool up = false;
    std::vector<KernelAddress> addresses; // global ones first, of each kind the youngest first
};

bool is_link_local(const std::string &address);

class KernelModel {
public:
    static constexpr int usual_metric = 1024;

    // 0 when there is none in the slot.
    int link_of(int slot) const;

    int create(int slot, int index);
    int remove(int index);
    int rename(int index, const std::string &name);
    int set_up(int index, const std::string &link_local);
    int set_down(int index);

    int add_address(int index, const std::string &text, int length, bool expires);
    int delete_address(int index, const std::string &text, int length);
    // Announces the address again; adds it if it does not exist.
    int refresh_address(int index, const std::string &text, int length);
    int advertise(int index, const std::string &text, bool expires);
    void expire();

    bool has_address(int index, const std::string &text) const;

    // `exclusive`: refuses a second route of the same metric.
    int add_route(const KernelRoute &route, bool exclusive);
    // Protocol and metric 0 mean any.
    int delete_route(const KernelRoute &route);

    // Whether there are other default routes of the same metric; the kernel then announces and
    // lists them as one, without a link.
    bool has_siblings(const KernelRoute &route) const;

    std::map<int, KernelLink> links; // by kernel index
    std::vector<KernelRoute> routes; // by metric
    bool heard = false;              // whether anybody listens
    std::deque<Notice> notices;      // for the listener
    // Set when something happened whose result this model does not know: a link disappeared or went
    // down while a route on it had siblings on other links.
    bool routes_unsure = false;

private:
    void tell(Notice::What what, int link, const std::string &text, int number = 0);
    KernelAddress *find_address(int index, const std::string &text);
    void drop_routes(int index);
    void drop_addresses(int index);
};

} // namespace model
