// Reading the whole store, over a store client with arbitrary answers: listings, statuses, types,
// texts, failures.
#include <map>

#include "fakes/engine_fixture.h"
#include "fuzz/address_reference.h"
#include "fuzz/fuzz.h"
#include "fuzz/log_sink.h"
#include "fuzz/scripted_tav.h"
#include "sync/errors.h"

namespace {

using fuzz::format;
using scripted_tav::answer_t;

// Takes answers from the input, mostly those of a working store.
class source_t {
public:
    source_t(const std::uint8_t *data, std::size_t size) : input(data, size) {}

    int result() { return mostly(0); }
    api_status_t status() { return static_cast<api_status_t>(mostly(1)); }
    element_type_t child_type() { return static_cast<element_type_t>(mostly(2)); }
    toolkit::CElement leaf() {
        const auto type = static_cast<element_type_t>(mostly(6));
        return toolkit::CElement(type, input.text(), -1);
    }
    std::vector<toolkit::child_t> children() {
        std::vector<toolkit::child_t> listed(input.byte() % 8U);
        for (toolkit::child_t &child : listed) {
            child = {input.text(), {child_type(), element_property_none}};
        }
        return listed;
    }
    // How many of two items an answer has.
    std::size_t items() { return static_cast<std::size_t>(mostly(2)) % 3; }

private:
    // The last 32 values of a byte mean another number, 0 to 31.
    int mostly(int usual) {
        const int byte = input.byte();
        return byte < 224 ? usual : byte - 224;
    }

    fuzz::input_t input;
};

// The result of a read: the settings as text, or an exception.
struct fault_t {
    std::string text; // kind and message
    bool ends_all;    // more than this item is lost
};

// The second version of the readers. It takes the answers as it needs them and leaves them in the
// script for the first one.
class expected_read_t {
public:
    expected_read_t(const std::uint8_t *data, std::size_t size) : source(data, size) {}

    std::string everything() {
        try {
            return interfaces();
        } catch (const fault_t &fault) {
            return fault.text;
        }
    }
    std::string log;

private:
    [[noreturn]] static void fail(const char *kind, const std::string &text, bool ends_all) {
        throw fault_t{std::string(kind) + text, ends_all};
    }
    void ignore(const char *what, const fault_t &fault) {
        const std::string message = fault.text.substr(fault.text.find(' ') + 1);
        log += log_sink::joined(
            {log_sink::info(2, std::string("Ignoring ") + what + ": '" + message + "'")});
    }
    answer_t &ask(const char *operation, const std::vector<tk_string> &paths) {
        answer_t answer;
        answer.operation = operation;
        answer.paths = paths;
        answer.result = source.result();
        scripted_tav::script().push_back(answer);
        return scripted_tav::script().back();
    }

    std::string interfaces() {
        const std::string root = "/Software/System Settings/Network/Interface";
        answer_t &answer = ask("list_node", {root});
        answer.statuses = {source.status()};
        answer.children = source.children();
        const int status = answer.result == 0 ? answer.statuses[0] : 0;
        if (answer.result != 0 || status != 1) {
            fail("sync_err ",
                 format(256, "%s: CTav::list_node() returned %d/%d",
                        "tavcfg_map_t CSync::read_all_tav_ipv6_settings()", answer.result, status),
                 true);
        }
        std::string text;
        const std::vector<toolkit::child_t> children = answer.children;
        for (std::size_t i = 0; i < children.size(); ++i) {
            if (children[i].second.first == 2) {
                text += std::to_string(i) + ": " + interface(root, children[i].first);
            }
        }
        return text;
    }

    std::string interface(const std::string &root, const std::string &name) {
        const fuzz::decimal_t number = fuzz::decimal(name);
        if (number.consumed != name.size() || number.value <= 0) {
            fail("sync_minor_err ",
                 format(256, "Ignoring unknown interface path '%s'", name.c_str()), true);
        }
        const std::string path = root + "/" + name + "/IPv6";
        std::string text = "eth" + std::to_string(number.value - 1) + " " +
                           std::to_string(static_cast<std::int32_t>(number.value)) + "\n";
        try {
            text += gateway(path);
        } catch (const fault_t &fault) {
            if (fault.ends_all) {
                throw;
            }
            ignore("gateway", fault);
        }
        return text + addresses(path + "/Addresses");
    }

    std::string gateway(const std::string &path) {
        constexpr const char *who =
            "boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string&)";
        const std::string leaf = path + "/Default Gateway/Value";
        answer_t &answer = ask("get_leaf", {leaf});
        answer.statuses = {source.status()};
        answer.values = {source.leaf()};
        if (answer.result != 0) {
            fail("sync_err ", format(256, "%s: CTav::get_leaf() returned %d", who, answer.result),
                 true);
        }
        if (answer.statuses[0] != 1) {
            return "";
        }
        if (answer.values[0].type() != 6) {
            fail("sync_minor_err ", format(256, "%s: '%s' is not a string type", who, leaf.c_str()),
                 false);
        }
        const auto address = reference::address(answer.values[0].to_string(), false);
        if (!address.fault.empty()) {
            fail("sync_addr_err ", address.fault, false);
        }
        return "via " + reference::bytes_of(address.addr) + "\n";
    }

    std::string addresses(const std::string &path) {
        answer_t &answer = ask("list_node", {path});
        answer.statuses = {source.status()};
        answer.children = source.children();
        if (answer.result != 0) {
            fail("sync_err ",
                 format(256, "%s: CTav::list_node(%s) returned %d",
                        "std::vector<CTavAddress> CSync::read_tav_ipv6_addrs(const tk_string&)",
                        path.c_str(), answer.result),
                 true);
        }
        if (answer.statuses[0] != 1) {
            return "";
        }
        std::string text;
        std::string names;
        const std::vector<toolkit::child_t> children = answer.children;
        for (const toolkit::child_t &child : children) {
            names += "listed " + child.first + "\n";
            if (child.second.first != 2) {
                continue;
            }
            try {
                text += address(path + "/" + child.first, child.first);
            } catch (const fault_t &fault) {
                if (fault.ends_all) {
                    throw;
                }
                ignore("address", fault);
            }
        }
        return text + names;
    }

    std::string address(const std::string &path, const std::string &name) {
        constexpr const char *who =
            "CTavAddress CSync::read_tav_ipv6_addr(const tk_string&, const tk_string&)";
        answer_t &answer = ask("get_leaves", {path + "/Address/Value", path + "/Type/Value"});
        answer.statuses = {source.status(), source.status()};
        answer.values = {source.leaf(), source.leaf()};
        answer.statuses.resize(source.items());
        answer.values.resize(source.items());
        const auto status = [&answer](std::size_t i) {
            return answer.result == 0 && i < answer.statuses.size() ? answer.statuses[i] : 0;
        };
        if (answer.result != 0 || status(0) != 1 || status(1) != 1) {
            fail(answer.result != 0 ? "sync_err " : "sync_minor_err ",
                 format(256, "%s: CTav::get_leaves(%s) returned %d/%d/%d", who, path.c_str(),
                        answer.result, status(0), status(1)),
                 answer.result != 0);
        }
        for (std::size_t i = 0; i < 2; ++i) {
            if (i >= answer.values.size() || answer.values[i].type() != 6) {
                fail("sync_minor_err ",
                     format(256, "%s: '%s' is not a string type", who, answer.paths[i].c_str()),
                     false);
            }
        }
        const auto read = reference::address(answer.values[0].to_string(), true);
        if (!read.fault.empty()) {
            fail("sync_addr_err ", read.fault, false);
        }
        const std::string type = answer.values[1].to_string();
        const std::map<std::string, int> types = {
            {"Link-Local", 1}, {"Automatic", 2}, {"Static", 3}};
        if (types.count(type) == 0) {
            fail("sync_minor_err ", format(256, "%s: Unknown addr type '%s'", who, type.c_str()),
                 false);
        }
        return "address " + reference::bytes_of(read.addr) + "/" + std::to_string(read.prefix_len) +
               " " + std::to_string(types.at(type)) + " " + name + "\n";
    }

    source_t source;
};

std::string described(const tavcfg_t &settings) {
    std::string text = settings.iface.name + " " + std::to_string(settings.iface.number) + "\n";
    if (settings.gateway) {
        fuzz::require(is_default_route(*settings.gateway) && settings.gateway->dst_len == 0,
                      "a gateway of another than the default route");
        text += "via " + reference::bytes_of(settings.gateway->gateway) + "\n";
    }
    for (const CTavAddress &addr : settings.addresses) {
        text += "address " + reference::bytes_of(addr.addr) + "/" +
                std::to_string(addr.prefix_len) + " " + std::to_string(addr.type) + " " +
                addr.node + "\n";
    }
    for (const tk_string &name : settings.listed_nodes) {
        text += "listed " + name + "\n";
    }
    return text;
}

std::string actual(Engine &engine) {
    try {
        const tavcfg_map_t settings = engine.read_all_tav_ipv6_settings();
        const std::map<std::uint32_t, tavcfg_t> sorted(settings.begin(), settings.end());
        std::string text;
        for (const auto &[position, one] : sorted) {
            text += std::to_string(position) + ": " + described(one);
        }
        return text;
    } catch (const sync_err &fault) {
        return std::string("sync_err ") + fault.what();
    } catch (const sync_minor_err &fault) {
        return std::string("sync_minor_err ") + fault.what();
    } catch (const sync_addr_err &fault) {
        return std::string("sync_addr_err ") + fault.what();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static toolkit::CTav tav;
    static CNetlink channel;
    static Engine engine(&tav, &channel, "eth");

    scripted_tav::script().clear();
    expected_read_t expected(data, size);
    const std::string expected_text = expected.everything();

    log_sink::record_up_to(2);
    const std::string text = actual(engine);
    const std::string log = log_sink::joined(log_sink::take());
    fuzz::require_same(text, expected_text, "the store was read otherwise");
    fuzz::require_same(log, expected.log, "the log lines differ");
    fuzz::require(scripted_tav::script().empty(), "a call less than expected");
    journal::clear();
    return 0;
}
