// The engine against the model of its rules, on random tables, stores and kernel events: table,
// store and kernel must be the same afterwards. The tables hold what real ones hardly do: equal
// addresses, types that do not match, one name twice.
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "model/daemon_model.h"

namespace {

constexpr int ifindex = 3;
const char *const type_texts[] = {"none", "Link-Local", "Automatic", "Static"};

class ModelOracle : public EngineTest {
protected:
    // A number of 0..most.
    int any(int most) { return std::uniform_int_distribution<int>(0, most)(random); }
    std::string any_address() {
        return (any(3) == 0 ? "fe80::" : "2001:db8::") + std::to_string(1 + any(4));
    }
    int any_length() { return any(2) == 0 ? 48 : 64; }
    std::string any_name() {
        static const strings names = {"1", "2", "3", "4", "5", "7", "02", "office"};
        return names[static_cast<std::size_t>(any(static_cast<int>(names.size()) - 1))];
    }

    // One link and one interface of the store, alike on both sides.
    void lay_out() {
        store_empty(1);
        restart_with_eth0(1);
        daemon = {};
        kernel = {};
        store_model = {};
        daemon.running = true;
        store_model.nodes.insert("1");
        kernel.links[ifindex].name = "eth0";
        kernel.links[ifindex].up = true;
        model::DaemonModel::Link &link = daemon.links[ifindex];
        link.name = "eth0";
        link.number = 1;
        for (int left = any(8); left > 0; --left) {
            link.addresses.push_back({any_address(), any_length(), 1 + any(2), any_name()});
            const auto &known = link.addresses.back();
            know(ifindex, known.text, known.length, known.type, known.node);
            kernel.add_address(ifindex, known.text, known.length, false);
        }
        for (int left = any(5); left > 0; --left) {
            const std::string node = any_name();
            store_model.user_write(
                {{model::address_leaf(1, node), any_address() + "/" + std::to_string(any_length())},
                 {model::type_leaf(1, node), type_texts[any(3)]}});
        }
        if (any(1) == 0) {
            store_model.user_write({{model::gateway_leaf(1), any_gateway()}});
        }
        if (any(1) == 0) {
            link.gateway = any_gateway();
            know_gateway(ifindex, *link.gateway);
            kernel.add_route({ifindex, *link.gateway, 4, model::KernelModel::usual_metric}, false);
        }
        store_model.events.clear();
        const model::StoredInterface stored = store_model.read().front();
        for (const std::string &node : stored.listed) { // in the order of the model's listing
            for (const auto &leaf : {model::address_leaf(1, node), model::type_leaf(1, node)}) {
                fake_tav::put(at(leaf), store_model.leaves.at(leaf));
            }
        }
        if (store_model.exists(model::gateway_leaf(1))) {
            store_gateway(1, store_model.leaves.at(model::gateway_leaf(1)));
        }
        kernel.notices.clear();
        asked = kernel;
    }
    std::string any_gateway() { return any(1) == 0 ? "fe80::8" : "fe80::9"; }

    // Does to `asked` what the engine asked the kernel for; refuses it what cannot be deleted.
    void carry_out_requests() {
        const std::vector<fake_libnl::message_t> sent = fake_libnl::state().changes;
        std::size_t number = 0;
        for (const std::string &effect : effects()) {
            std::istringstream words(effect);
            std::string side;
            std::string verb;
            std::string address;
            std::string via;
            if (!(words >> side >> verb >> address >> via) || side != "kernel:") {
                continue;
            }
            const std::size_t slash = address.find('/');
            const std::string text = address.substr(0, slash);
            const int length = std::stoi(address.substr(slash + 1));
            int error = 0;
            if (via == "via") {
                words >> address;
                const model::KernelRoute route{ifindex, address, verb == "add" ? 4 : 0,
                                               verb == "add" ? asked.usual_metric : 0};
                verb == "add" ? asked.add_route(route, false) : asked.delete_route(route);
            } else if (verb == "add") {
                asked.add_address(ifindex, text, length, false);
            } else {
                error = asked.delete_address(ifindex, text, length);
            }
            if (error != 0) {
                receive(fake_libnl::datagram_t().error(-error, sent.at(number)));
            }
            ++number;
        }
    }

    static strings addresses_of(const model::KernelModel &model) {
        strings all;
        for (const auto &address : model.links.at(ifindex).addresses) {
            all.push_back(address.text + "/" + std::to_string(address.length));
        }
        return all;
    }

    void expect_same() {
        const model::DaemonModel::Link &link = daemon.links.at(ifindex);
        strings expected;
        for (const auto &known : link.addresses) {
            expected.push_back(known.text + "/" + std::to_string(known.length) + " " +
                               type_texts[known.type] + " " + known.node);
        }
        EXPECT_EQ(table(ifindex), expected);
        EXPECT_EQ(gateway(ifindex), link.gateway.value_or(""));
        EXPECT_EQ(std::set<std::string>(entry(ifindex).listed_nodes.begin(),
                                        entry(ifindex).listed_nodes.end()),
                  link.listed);
        std::set<std::string> leaves;
        for (const auto &leaf : store_model.leaves) {
            leaves.insert(std::string(at(leaf.first)) + " = " + leaf.second);
        }
        std::set<std::string> stored;
        for (const std::string &line : fake_tav::dump()) {
            if (line.find(" = ") != std::string::npos) {
                stored.insert(line);
            }
        }
        EXPECT_EQ(stored, leaves);
        EXPECT_EQ(addresses_of(asked), addresses_of(kernel));
        EXPECT_EQ(asked.routes, kernel.routes);
    }

    // The kernel announces an address, or reports it deleted.
    void report() {
        const bool appears = any(2) != 0;
        const std::string text = any_address();
        const int length = any_length();
        kernel.notices = {{appears ? model::Notice::address_new : model::Notice::address_gone,
                           ifindex, text, length}};
        daemon.serve_notice(kernel, store_model);
        engine().nl_addr_update(appears ? 20 : 21,
                                {kern_addr(ifindex, text, length, text[0] == 'f' ? 253 : 0)});
    }

    model::DaemonModel daemon;
    model::StoreModel store_model;
    model::KernelModel kernel;
    model::KernelModel asked;      // as the engine's requests leave it
    std::mt19937 random{20240229}; // fixed, so that a failure comes again with the next run
};

TEST_F(ModelOracle, SynchronisationsAndKernelEventsEndAlike) {
    int changed = 0;
    for (int run = 0; run < 3000 && !HasFailure(); ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        lay_out();
        daemon.synchronise(kernel, store_model);
        synchronise();
        changed += changes().empty() ? 0 : 1;
        carry_out_requests();
        expect_same();
        for (int left = any(12); left > 0; --left) {
            report();
        }
        expect_same();
    }
    EXPECT_GT(changed, 1000);
}

} // namespace
