#include <cstdlib>
#include <stdexcept>

#include "support/store_targets.h"

#include <tav/toolkit.h>

namespace bench {
namespace {

const std::string parent = "/Software/System Settings/Network/Interface/1/IPv6/Addresses";

void require(int result, api_status_t status) {
    if (result != 0 || status != api_status_ok) {
        throw std::runtime_error("tav: result " + std::to_string(result) + ", status " +
                                 std::to_string(status));
    }
}

class TavClient : public StoreClient {
public:
    explicit TavClient(const std::string &socket) {
        setenv("TAV_SOCKET", socket.c_str(), 1);
        tav = toolkit::CTav(mlr_init());
        if (tav.handle == nullptr) {
            throw std::runtime_error("tav: no connection");
        }
    }
    ~TavClient() override { mlr_close(tav.handle); }
    TavClient(const TavClient &) = delete;
    TavClient &operator=(const TavClient &) = delete;

    std::string read(int address) override {
        toolkit::CElement value;
        api_status_t status = api_status_none;
        element_property_t property = element_property_none;
        const int result = tav.get_leaf(leaf(address, "Address"), status, value, property);
        require(result, status);
        return value.to_string();
    }

    void write(int address, const std::string &text) override {
        api_status_t status = api_status_none;
        const int result =
            tav.set_leaf(leaf(address, "Address"), element(text), status, either, "");
        require(result, status);
    }

    void write_both(int address, const std::string &text, const std::string &type) override {
        std::vector<api_status_t> statuses;
        const int result =
            tav.set_leaves({leaf(address, "Address"), leaf(address, "Type")},
                           {element(text), element(type)}, {either, either}, statuses, "");
        require(result, result == 0 ? statuses.back() : api_status_none);
    }

    std::size_t read_all() override {
        std::vector<toolkit::child_t> children;
        api_status_t status = api_status_none;
        const int result = tav.list_node(parent, status, children);
        require(result, status);
        std::vector<tk_string> paths;
        paths.reserve(children.size() * 2);
        for (const auto &child : children) {
            paths.push_back(parent + "/" + child.first + "/Address/Value");
            paths.push_back(parent + "/" + child.first + "/Type/Value");
        }
        std::vector<api_status_t> statuses;
        std::vector<toolkit::CElement> values;
        std::vector<element_property_t> properties;
        require(tav.get_leaves(paths, statuses, values, properties), api_status_ok);
        return values.size();
    }

    int subscribe() override {
        api_status_t status = api_status_none;
        const int result = tav.event_register(parent, api_event_change, true, status);
        require(result, status);
        take_events();
        return mlr_get_fd(tav.handle);
    }

    void take_events() override {
        std::vector<toolkit::CEvent> events;
        tav.events_get(events);
    }

private:
    static constexpr auto either = static_cast<mlr_tribool_t>(2);

    static tk_string leaf(int address, const char *name) {
        return parent + "/" + std::to_string(address) + "/" + name + "/Value";
    }
    static toolkit::CElement element(const std::string &text) {
        return {text, toolkit::CElement::_invalid_time};
    }

    toolkit::CTav tav;
};

class TavTarget : public StoreTarget {
public:
    TavTarget(kt::Sandbox &sandbox, const std::string &durability)
        : socket(sandbox.directory() + "/" + durability + ".sock") {
        std::vector<std::string> arguments{kt::program("TAVD"), "--socket", socket};
        if (durability == "memory") {
            arguments.emplace_back("--memory");
        } else {
            arguments.push_back("--durability=" + durability);
            arguments.insert(arguments.end(),
                             {"--database", sandbox.directory() + "/" + durability + ".db"});
        }
        process = std::make_unique<kt::Process>(sandbox, arguments);
        if (!kt::eventually([&] {
                try {
                    return connect() != nullptr;
                } catch (const std::runtime_error &) {
                    return false; // not yet
                }
            })) {
            throw std::runtime_error("tavd does not answer");
        }
    }

    std::unique_ptr<StoreClient> connect() override { return std::make_unique<TavClient>(socket); }

private:
    std::string socket;
    std::unique_ptr<kt::Process> process;
};

} // namespace

std::unique_ptr<StoreTarget> tav_target(kt::Sandbox &sandbox, const std::string &durability) {
    return std::make_unique<TavTarget>(sandbox, durability);
}

} // namespace bench
