// The engine finds addresses and names by indexes and erases many at once. Here the same rules
// stand written out as plain walks, with no thought for their cost, and both are let loose on
// random tables: the effects in their order, the log and the table afterwards must be the same. The
// tables hold what real ones hardly do: equal addresses, types that do not match, names given
// twice.
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"

namespace {

using strings = std::vector<std::string>;

constexpr int ifindex = 3;
constexpr int fault = -5; // what a refused send to the kernel returns

struct send_failed {};

// One interface, "eth0" under node 1, as plain lists.
class Plain {
public:
    std::vector<CFullAddress> table;
    std::set<tk_string> listed;
    std::set<tk_string> in_store; // nodes that the fake store holds; others cannot be removed
    strings done;                 // what record() is to tell
    int sends_left = -1;

    void store_into_kernel(const tavcfg_t &stored) {
        listed = {stored.listed_nodes.begin(), stored.listed_nodes.end()};
        std::vector<bool> seen(table.size(), false);
        for (const CTavAddress &one : stored.addresses) {
            const int match = find_match(one, seen);
            if (match >= 0) {
                adjust(table[static_cast<std::size_t>(match)], one);
            } else if (one.type != 3) {
                log("Removing unknown/junk node from TAV on interface 3 (eth0)");
                remove_node(one.node);
            } else {
                add(one);
                seen.push_back(true);
            }
        }
        remove_unseen(seen);
        rename(seen);
    }

    void kernel_into_store(const tavcfg_t &stored) {
        for (const CFullAddress &known : table) {
            bool there = false;
            for (const CTavAddress &one : stored.addresses) {
                there = there || text_of(one.addr) == text_of(known.addr);
            }
            if (!there) {
                log("Writing kernel addr to TAV on interface 1");
                write(known);
            }
        }
    }

    void appear(const CKernAddress &addr) {
        int last = -1;
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (text_of(table[i].addr) == text_of(addr.addr)) {
                table[i].prefix_len = addr.prefix_len;
                last = static_cast<int>(i);
            }
        }
        if (last >= 0) {
            write(table[static_cast<std::size_t>(last)]);
        } else {
            CFullAddress fresh;
            static_cast<CKernAddress &>(fresh) = addr;
            fresh.node = free_name();
            fresh.type = addr.scope == 253 ? 1 : 2;
            table.push_back(fresh);
            write(fresh);
        }
        log_event("ADDING", addr);
    }

    void vanish(const CKernAddress &addr) {
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (text_of(table[i].addr) == text_of(addr.addr) &&
                table[i].prefix_len == addr.prefix_len) {
                remove_node(table[i].node);
                erase(i);
            }
        }
        log_event("REMOVING", addr);
    }

private:
    int find_match(const CTavAddress &one, std::vector<bool> &seen) {
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (text_of(table[i].addr) != text_of(one.addr)) {
                continue;
            }
            if (table[i].type == 2 && one.type == 3) {
                table[i].type = 3;
            }
            if (table[i].type == one.type) {
                if (!seen[i]) {
                    table[i].node = one.node;
                }
                seen[i] = true;
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    void adjust(CFullAddress &known, const CTavAddress &one) {
        if (known.prefix_len == one.prefix_len || known.type != 3) {
            return;
        }
        log("Changing prefix length of address '" + with_length(known) + "' => " +
            std::to_string(one.prefix_len));
        send(21, known);
        known.prefix_len = one.prefix_len;
        send(20, known);
    }

    void add(const CTavAddress &one) {
        log("Adding TAV addr '" + with_length(one) + "' to kernel on interface 3");
        CFullAddress fresh;
        static_cast<CTavAddress &>(fresh) = one;
        fresh.ifindex = ifindex;
        table.push_back(fresh);
        send(20, fresh);
    }

    void remove_unseen(std::vector<bool> &seen) {
        for (std::size_t i = 0; i < table.size();) {
            log("Comparing address '" + with_length(table[i]) + "' (" +
                std::to_string(table[i].type) + ") (" + (seen[i] ? "IN TAV)" : "NOT IN TAV)"));
            if (seen[i] || table[i].type != 3) {
                ++i;
                continue;
            }
            log("Removing TAV addr '" + with_length(table[i]) + "' from kernel on interface 3");
            send(21, table[i]);
            erase(i);
            seen.erase(seen.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }

    void rename(const std::vector<bool> &seen) {
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (!seen[i] && listed.count(table[i].node) != 0) {
                table[i].node = free_name();
            }
        }
    }

    std::string free_name() const {
        for (std::size_t number = 1;; ++number) {
            const std::string name = std::to_string(number);
            bool taken = listed.count(name) != 0;
            for (const CFullAddress &known : table) {
                taken = taken || known.node == name;
            }
            if (!taken) {
                return name;
            }
        }
    }

    void erase(std::size_t i) { table.erase(table.begin() + static_cast<std::ptrdiff_t>(i)); }

    void write(const CFullAddress &known) {
        in_store.insert(known.node);
        static const strings types = {"", "Link-Local", "Automatic", "Static"};
        done.push_back(address_write(known.node, with_length(known),
                                     types.at(static_cast<std::size_t>(known.type))));
    }

    void remove_node(const tk_string &node) {
        const std::string path = "~/1/IPv6/Addresses/" + node;
        done.push_back("remove_node(" + path + ")");
        if (in_store.erase(node) == 1) {
            listed.erase(node);
        } else {
            log("Error when removing '" + path + "': 2");
        }
    }

    void send(int type, const CFullAddress &known) {
        if (sends_left == 0) {
            done.push_back("nl_send_auto_complete(" + std::to_string(type) + ")");
            done.emplace_back("3 Error: Failed to send ifa message: -5");
            throw send_failed();
        }
        --sends_left;
        done.push_back(std::string("kernel: ") + (type == 20 ? "add " : "delete ") +
                       with_length(known) + " dev 3");
    }

    void log(const std::string &text) { done.push_back("6 Info: " + text); }
    void log_event(const std::string &word, const CKernAddress &addr) {
        log(word + " addr [3]: " + with_length(addr) + " [scope:link]");
    }

    static std::string with_length(const CAddress &address) {
        return text_of(address.addr) + "/" + std::to_string(address.prefix_len);
    }
};

class PlainWalks : public EngineTest {
protected:
    // A number of 0..most.
    int any(int most) { return std::uniform_int_distribution<int>(0, most)(random); }

    std::string any_address() {
        return (any(3) == 0 ? "fe80::" : "2001:db8::") + std::to_string(any(5));
    }
    int any_length() { return any(2) == 0 ? 48 : 64; }
    tk_string any_name() {
        static const strings names = {"1", "2", "3", "4", "5", "7", "02", "office"};
        return names[static_cast<std::size_t>(any(static_cast<int>(names.size()) - 1))];
    }

    // The same random table for both, and an empty store.
    void lay_table(Plain &plain) {
        fake_tav::put_node(at("1"));
        fake_tav::erase(at("1"));
        restart_with_eth0(1);
        for (int left = any(8); left > 0; --left) {
            know(ifindex, any_address(), any_length(), any(3), any_name());
        }
        for (int left = any(3); left > 0; --left) {
            entry(ifindex).listed_nodes.insert(any_name());
        }
        plain.table = entry(ifindex).addresses;
        plain.listed = entry(ifindex).listed_nodes;
    }

    void lay_node(Plain &plain, const tk_string &node) {
        if (any(1) == 0 && plain.in_store.insert(node).second) {
            fake_tav::put_node(at("1/IPv6/Addresses/" + node));
        }
    }

    tavcfg_t any_stored(Plain &plain) {
        tavcfg_t stored;
        stored.iface.name = "eth0";
        stored.iface.number = 1;
        for (int left = any(8); left > 0; --left) {
            CTavAddress one;
            one.addr = fake_libnl::addr(any_address());
            one.prefix_len = static_cast<std::uint8_t>(any_length());
            one.type = any(3);
            one.node = any_name();
            lay_node(plain, one.node);
            stored.listed_nodes.push_back(one.node);
            stored.addresses.push_back(one);
        }
        for (int left = any(2); left > 0; --left) {
            stored.listed_nodes.push_back(any_name());
        }
        return stored;
    }

    // Lets the kernel refuse one of the coming messages, in one run of three.
    void lay_fault(Plain &plain) {
        if (any(2) != 0) {
            return;
        }
        plain.sends_left = any(4);
        for (int i = 0; i < plain.sends_left; ++i) {
            fake_libnl::state().send_auto_complete.then(44);
        }
        fake_libnl::state().send_auto_complete.then(fault);
    }

    strings table_of(const Plain &plain) {
        const std::vector<CFullAddress> kept = entry(ifindex).addresses;
        entry(ifindex).addresses = plain.table;
        const strings text = table(ifindex);
        entry(ifindex).addresses = kept;
        return text;
    }

    void expect_same_table(const Plain &plain) {
        EXPECT_EQ(table(ifindex), table_of(plain));
        EXPECT_EQ(entry(ifindex).listed_nodes, plain.listed);
    }

    // A fixed seed, so that a failure comes again with the next run.
    std::mt19937 random{20240229};
};

TEST_F(PlainWalks, BringTheSameSynchronisation) {
    int faults = 0;
    int runs_with_effect = 0;
    for (int run = 0; run < 4000 && !HasFailure(); ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        Plain plain;
        lay_table(plain);
        const tavcfg_t stored = any_stored(plain);
        lay_fault(plain);
        verbosity = 4;
        bool failed = false;
        forget();
        try {
            engine().sync_kernel_with_tav(stored);
            engine().sync_tav_with_kernel({{0, stored}}, entry(ifindex));
        } catch (const netlink_err &) {
            failed = true;
        }
        plain.done = {"6 Info: Synchronizing kernel with TAV...",
                      "6 Info: Synchronizing kernel interface (3) with TAV interface (1): eth0"};
        bool plain_failed = false;
        try {
            plain.store_into_kernel(stored);
            plain.done.insert(
                plain.done.end(),
                {"6 Info: Synchronizing TAV with kernel settings...",
                 "6 Info: Synchronizing TAV interface (1) with kernel interface (3): eth0"});
            plain.kernel_into_store(stored);
        } catch (const send_failed &) {
            plain_failed = true;
        }
        EXPECT_EQ(failed, plain_failed);
        EXPECT_EQ(record(), plain.done);
        if (!failed) {
            expect_same_table(plain); // an engine that failed is destroyed with its table
        }
        faults += failed ? 1 : 0;
        runs_with_effect += effects().empty() ? 0 : 1;
        fake_libnl::state().send_auto_complete.clear();
    }
    EXPECT_GT(faults, 100);
    EXPECT_GT(runs_with_effect, 1000);
}

TEST_F(PlainWalks, AnswerTheKernelsEventsAlike) {
    for (int run = 0; run < 500 && !HasFailure(); ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        Plain plain;
        lay_table(plain);
        for (const CFullAddress &known : plain.table) {
            lay_node(plain, known.node);
        }
        verbosity = 2;
        forget();
        for (int event = 0; event < 20; ++event) {
            const CKernAddress addr =
                kern_addr(ifindex, any_address(), any_length(), any(1) == 0 ? 253 : 0);
            if (any(2) == 0) {
                engine().nl_addr_update(21, {addr});
                plain.vanish(addr);
            } else {
                engine().nl_addr_update(20, {addr});
                plain.appear(addr);
            }
        }
        EXPECT_EQ(record(), plain.done);
        expect_same_table(plain);
    }
}

} // namespace
