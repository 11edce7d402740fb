// What the daemon must do, written plainly from the rules of precedence and of events: for Static
// addresses and the gateway the store wins, for the others the kernel; a stored entry that is not
// Static and that the kernel lacks is removed.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kernel_model.h"
#include "store_model.h"

namespace model {

class DaemonModel {
public:
    struct Known {
        std::string text;
        int length;
        int type; // 1 link-local, 2 automatic, 3 static
        std::string node;
        bool operator==(const Known &other) const {
            return text == other.text && length == other.length && type == other.type &&
                   node == other.node;
        }
    };
    struct Deletion {
        std::string text;
        int length;
        bool added_again; // since
    };
    struct Link {
        std::string name; // of its first sight
        int number = 0;   // of the store's node; 0: none
        std::vector<Known> addresses;
        // The daemon's deletions that the kernel has not reported yet, oldest first.
        std::vector<Deletion> leaving;
        std::set<std::string> listed;
        std::optional<std::string> gateway;
        bool gateway_leaving = false;
        bool operator==(const Link &other) const {
            return name == other.name && number == other.number && addresses == other.addresses &&
                   listed == other.listed && gateway == other.gateway &&
                   gateway_leaving == other.gateway_leaving;
        }
    };

    // Forgets everything, reads the kernel and synchronises.
    void start(KernelModel &kernel, StoreModel &store);
    void stop(KernelModel &kernel, StoreModel &store);
    // Fetches the store's events; whether they require a synchronisation.
    bool fetch(StoreModel &store);
    void serve_notice(KernelModel &kernel, StoreModel &store);
    void synchronise(KernelModel &kernel, StoreModel &store);

    // Fills the entry of a link from the state of a quiet world.
    void take_over(int index, const KernelModel &kernel,
                   const std::vector<StoredInterface> &stored);

    bool running = false;
    std::map<int, Link> links;
    // Whether it has made a request to the store since this was cleared: its next wake-up then
    // waits until the kernel's notifications are handled.
    bool busy = false;

private:
    std::vector<int> order() const;
    int find_by_name(const std::string &name) const;
    void delete_address(KernelModel &kernel, int index, const Known &known);
    int add_address(KernelModel &kernel, int index, const Known &known);
    static bool is_leaving(const Link &link, const std::string &text, int length);
    static std::string free_name(const Link &link);
    static void take_over(Link &link, const KernelAddress &address, const StoredInterface &stored);
    void store_into_kernel(KernelModel &kernel, StoreModel &store, int index,
                           const StoredInterface &stored);
    void gateway_into_kernel(KernelModel &kernel, int index, const StoredInterface &stored);
    void stored_address(KernelModel &kernel, StoreModel &store, int index,
                        const StoredAddress &stored, std::vector<bool> &seen);
    void kernel_into_store(StoreModel &store, Link &link, const StoredInterface &stored);
    void write_address(StoreModel &store, const Link &link, const Known &known);
    void remove_address(StoreModel &store, Link &link, const std::string &node);
    void address_appeared(StoreModel &store, int index, const std::string &text, int length);
    void address_vanished(StoreModel &store, int index, const std::string &text, int length);
    void route_appeared(KernelModel &kernel, StoreModel &store, int index,
                        const std::string &gateway);
    void route_vanished(StoreModel &store, int index, const std::string &gateway);
};

} // namespace model
