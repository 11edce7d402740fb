// The whole engine: datagrams of any content in any state of it, between changes of the store,
// change events and failing calls. It must fail only with its own exceptions, and change only what
// it manages.
#include <cstring>
#include <memory>
#include <set>

#include <linux/rtnetlink.h>

#include "fakes/engine_fixture.h"
#include "fuzz/fuzz.h"
#include "fuzz/log_sink.h"
#include "fuzz/netlink_reference.h"
#include "sync/errors.h"

namespace {

using fake_libnl::datagram_t;
using fuzz::require;

// Like the run loop, rebuild the engine and its channel after a failure.
class world_t {
public:
    world_t() : tav(mlr_init()), other(mlr_init()) { build(); }
    ~world_t() {
        mlr_close(tav.handle);
        mlr_close(other.handle);
    }
    world_t(const world_t &) = delete;
    world_t &operator=(const world_t &) = delete;

    Engine &engine() { return *the_engine; }

    // Carries out one step of the engine and checks its effects.
    template <typename Step>
    void step(const Step &action) {
        fake_tav::forget_calls();
        fake_libnl::state().changes.clear();
        try {
            action();
            check_changes();
            check_writes();
        } catch (const netlink_err &) {
            build();
        } catch (const sync_err &) {
            build();
        } catch (const sync_minor_err &) {
            build();
        } catch (const sync_addr_err &) {
            build();
        }
        require(interface_nodes() == before, "an interface's node was made or removed");
        journal::clear();
    }

    void receive(const std::string &datagram, bool check_type) {
        if (datagram.empty()) {
            return; // the channel never returns an empty datagram
        }
        fake_libnl::queue_datagram({datagram.begin(), datagram.end()});
        step([&] {
            if (check_type) {
                log_sink::record_up_to(4);
            }
            engine().handle_netlink();
            if (check_type) {
                const std::vector<std::string> log = log_sink::take();
                fuzz::require_same(classification(log), expected_classification(datagram),
                                   "the datagram was classified otherwise");
            }
        });
        log_sink::take();
    }

    // Changes of the store by another client.
    void put(const tk_string &path, const toolkit::CElement &value) {
        api_status_t status = api_status_none;
        other.set_leaf(path, value, status, mlr_tribool_unset, "");
        before = interface_nodes();
    }
    void remove(const tk_string &path) {
        api_status_t status = api_status_none;
        other.remove_node(path, status, "");
        before = interface_nodes();
    }

private:
    void build() {
        the_engine.reset();
        channel = std::make_unique<CNetlink>();
        the_engine = std::make_unique<Engine>(&tav, channel.get(), "eth");
    }

    static std::string classification(const std::vector<std::string> &log) {
        for (const std::string &line : log) {
            if (line.find("Received netlink update") != std::string::npos) {
                return line;
            }
        }
        return "";
    }

    static std::string expected_classification(const std::string &datagram) {
        const int type = reference::type(datagram);
        const int code = type == 1 || type == 2 || type == 4 ? 0 : type == 3 ? 1 : type;
        return log_sink::info(4, "Received netlink update (type " + std::to_string(code) + ")");
    }

    // The numbers of the interfaces' nodes, and the names of other children. A node whose name has
    // leading zeros ("01") is listed by its number.
    static std::set<tk_string> interface_nodes() {
        std::set<tk_string> nodes;
        for (const tk_string &name : fake_tav::children(interfaces_node)) {
            const fuzz::decimal_t number = fuzz::decimal(name);
            const bool numbered = number.consumed == name.size() && number.value > 0;
            nodes.insert(numbered ? std::to_string(static_cast<std::int32_t>(number.value)) : name);
        }
        return nodes;
    }

    // Only links that are tracked are touched.
    void check_changes() {
        for (const fake_libnl::message_t &change : fake_libnl::state().changes) {
            std::int32_t ifindex = 0;
            const bool address = change.type == RTM_NEWADDR || change.type == RTM_DELADDR;
            // The index is in an address's header, and in a route's first attribute.
            std::memcpy(&ifindex, change.body.data() + (address ? 4 : 16), sizeof ifindex);
            require(engine().interfaces.count(ifindex) == 1, "a change of a link not tracked");
        }
    }

    // Only below the IPv6 nodes of stored interfaces is anything written.
    void check_writes() {
        for (const fake_tav::call_t &call : fake_tav::state().calls) {
            if (call.client != tav.handle ||
                (call.operation.compare(0, 3, "set") != 0 && call.operation != "remove_node")) {
                continue;
            }
            for (const tk_string &path : call.paths) {
                const std::vector<std::string> parts = fuzz::split(path, '/');
                require(parts.size() >= 7 && before.count(parts[5]) == 1 && parts[6] == "IPv6",
                        "a write beside the interfaces");
            }
        }
    }

    toolkit::CTav tav;
    toolkit::CTav other;
    std::unique_ptr<CNetlink> channel;
    std::unique_ptr<Engine> the_engine;
    std::set<tk_string> before = interface_nodes();
};

std::string text_of(const datagram_t &datagram) {
    return std::string(datagram.bytes().begin(), datagram.bytes().end());
}

void furnish(unsigned which) {
    if (which == 0) {
        return;
    }
    fake_tav::put(at("1/IPv6/Default Gateway/Value"), "fe80::1");
    fake_tav::put(at("1/IPv6/Addresses/office/Address/Value"), "2001:db8::5/64");
    fake_tav::put(at("1/IPv6/Addresses/office/Type/Value"), "Static");
    if (which == 2) {
        fake_tav::put(at("1/IPv6/Addresses/1/Address/Value"), "nonsense");
        fake_tav::put(at("1/IPv6/Addresses/1/Type/Value"), "Static");
        fake_tav::put(at("1/IPv6/Addresses/2/Address/Value"), "2001:DB8::5/128");
        fake_tav::put(at("1/IPv6/Addresses/2/Type/Value"), "Static");
        fake_tav::put(at("1/IPv6/Addresses/3"), "a leaf");
    }
    if (which == 3) {
        fake_tav::put(at("2/IPv6/Addresses/1/Address/Value"), "fe80::2/64");
        fake_tav::put(at("2/IPv6/Addresses/1/Type/Value"), "Link-Local");
        fake_tav::put(at("01/IPv6/Default Gateway/Value"), "fe80::9/64");
        fake_tav::put(at("leaf"), "x");
    }
}

// Discovery of eth0 (3) and eth1 (4) without addresses and routes.
void discover(world_t &world) {
    world.step([&] { world.engine().discover(); });
    world.receive(text_of(datagram_t().link(RTM_NEWLINK, 3, "eth0").link(RTM_NEWLINK, 4, "eth1")),
                  false);
    for (int dump = 0; dump < 3; ++dump) {
        world.receive(text_of(datagram_t().done()), false);
    }
}

// Makes the next call of an operation fail. The fake allows one such plan per operation at a time,
// so each is used once in a run.
class failures_t {
public:
    void plan(fuzz::input_t &input) {
        static const char *const operations[] = {"set_leaf",  "set_leaves", "remove_node",
                                                 "list_node", "get_leaf",   "get_leaves",
                                                 "events_get"};
        const unsigned which = input.byte();
        const int value = static_cast<signed char>(input.byte());
        if (!planned.insert(which % 8).second) {
            return;
        }
        if (which % 8 == 7) {
            fake_libnl::state().send_auto_complete.then(value);
        } else if ((which & 0x10U) != 0) {
            fake_tav::on_call(operations[which % 8]).statuses({value});
        } else {
            fake_tav::on_call(operations[which % 8]).returns(value);
        }
    }

private:
    std::set<unsigned> planned;
};

void notify(world_t &world, const std::string &path) {
    fake_tav::queue_event(2, at(path));
    world.step([&] { world.engine().handle_tav_update(); });
}

void carry_out(world_t &world, failures_t &failures, fuzz::input_t &input) {
    const unsigned operation = input.byte();
    switch (operation % 8) {
    case 0:
    case 1:
    case 2:
        world.receive(input.bytes(input.number()), (operation & 0x80U) != 0);
        break;
    case 3:
        notify(world, input.text());
        break;
    case 4: {
        const tk_string path = at(input.text());
        world.put(path, toolkit::CElement(input.text(), -1));
        break;
    }
    case 5: {
        const std::string path = input.text();
        world.remove(at(path));
        if (path.find('/') == std::string::npos) {
            // An interface's node. The engine learns of it by the events on the leaves below.
            notify(world, path + "/IPv6/Default Gateway/Value");
        }
        break;
    }
    case 6:
        failures.plan(input);
        break;
    default:
        fake_libnl::queue_recv_result(-static_cast<int>(input.byte()));
        world.step([&] { world.engine().handle_netlink(); });
    }
}

} // namespace

// The first byte of an input is the initial content of the store and whether discovery is over;
// then operations follow.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    fakes::reset_all();
    const unsigned head = input.byte();
    furnish(head / 2 % 4);
    {
        world_t world;
        failures_t failures;
        if ((head & 1U) != 0) {
            discover(world);
        } else {
            world.step([&] { world.engine().discover(); });
        }
        while (!input.empty()) {
            carry_out(world, failures, input);
        }
    }
    journal::clear();
    return 0;
}
