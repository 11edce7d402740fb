// The names of address nodes in the store. The table adopts the names of stored nodes, and the
// daemon gives other addresses names that are not stored. Without that, the link-local address of a
// first start once overwrote a user's address stored under the name 1, and when a kernel listed its
// addresses in another order, the daemon overwrote the nodes with each other's addresses.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using fake_libnl::datagram_t;

class NodeNames : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        restart_with_eth0();
        fake_tav::put_node(at("1"));
    }
    void appear(const std::string &address, int prefix_len = 64, int scope = 0) {
        receive(datagram_t().address(20, 3, address, prefix_len, scope));
    }
    void vanish(const std::string &address, int prefix_len = 64) {
        receive(datagram_t().address(21, 3, address, prefix_len));
    }
    // The content of a stored node: "<address> <type>".
    static std::string content(const std::string &node) {
        const std::string path = at("1/IPv6/Addresses/" + node);
        return fake_tav::text(path + "/Address/Value") + " " + fake_tav::text(path + "/Type/Value");
    }
    // A node that cannot be read: its address lacks the prefix length.
    static void store_unreadable(const std::string &node) {
        store(1, node, "2001:db8::bad", "Static");
    }
};

// One synchronisation of interface 1: the addresses of the table and of the store, before and
// after.
struct naming_t {
    const char *what;
    strings known, stored, known_after, stored_after;
};

const naming_t namings[] = {
    {"matched entries take the store's names",
     {"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic 2", "2001:db8::6/64 Automatic 3"},
     {"fe80::1/64 Link-Local 3", "2001:db8::5/64 Automatic office", "2001:db8::6/64 Static 1"},
     {"fe80::1/64 Link-Local 3", "2001:db8::5/64 Automatic office", "2001:db8::6/64 Static 1"},
     {"fe80::1/64 Link-Local 3", "2001:db8::5/64 Automatic office", "2001:db8::6/64 Static 1"}},
    {"of several stored nodes for one entry, the first is used",
     {"2001:db8::5/64 Automatic 9"},
     {"2001:db8::5/64 Automatic 4", "2001:db8::5/64 Automatic 2", "2001:db8::5/64 Automatic 3"},
     {"2001:db8::5/64 Automatic 4"},
     {"2001:db8::5/64 Automatic 4", "2001:db8::5/64 Automatic 2", "2001:db8::5/64 Automatic 3"}},
    {"unmatched entries take the smallest numbers that are free in table and listing",
     {"fe80::1/64 Link-Local 1", "2001:db8::a/64 Automatic 2", "2001:db8::b/64 Automatic 3"},
     {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 3", "2001:db8::bad Static 5"},
     {"fe80::1/64 Link-Local 4", "2001:db8::a/64 Automatic 2", "2001:db8::b/64 Automatic 6",
      "2001:db8::5/64 Static 1", "2001:db8::6/64 Static 3"},
     {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 3", "2001:db8::bad Static 5",
      "fe80::1/64 Link-Local 4", "2001:db8::a/64 Automatic 2", "2001:db8::b/64 Automatic 6"}},
    {"a name that a matched entry takes over is not shared with another",
     {"fe80::1/64 Link-Local 1", "2001:db8::a/64 Automatic 2"},
     {"2001:db8::a/64 Automatic 1"},
     {"fe80::1/64 Link-Local 2", "2001:db8::a/64 Automatic 1"},
     {"2001:db8::a/64 Automatic 1", "fe80::1/64 Link-Local 2"}},
    {"names are chosen after Static addresses that left the store are gone",
     {"2001:db8::5/64 Static 1", "fe80::1/64 Link-Local 2"},
     {"2001:db8::6/64 Static 2"},
     {"fe80::1/64 Link-Local 1", "2001:db8::6/64 Static 2"},
     {"2001:db8::6/64 Static 2", "fe80::1/64 Link-Local 1"}},
    {"an address that is Static in the store and link-local in the kernel is two entries",
     {"fe80::1/64 Link-Local 1"},
     {"fe80::1/64 Static 1"},
     {"fe80::1/64 Link-Local 2", "fe80::1/64 Static 1"},
     {"fe80::1/64 Static 1"}},
};

TEST_F(NodeNames, AreTheStoresOrTheSmallestThatAreFree) {
    for (const auto &one : namings) {
        SCOPED_TRACE(one.what);
        store_empty(1);
        restart_with_eth0();
        know(3, one.known);
        store(1, one.stored);
        synchronise();
        EXPECT_EQ(table(3), one.known_after);
        EXPECT_EQ(stored(1), one.stored_after);
    }
}

TEST_F(NodeNames, ThatTheStoreDoesNotListAreKept) {
    know(3, {"fe80::1/64 Link-Local 7"});
    store(1, {"2001:db8::5/64 Static 1"});
    synchronise();
    EXPECT_EQ(content("7"), "fe80::1/64 Link-Local");
    fake_tav::erase(at("1/IPv6/Addresses/7"));
    synchronise();
    EXPECT_EQ(content("7"), "fe80::1/64 Link-Local") << "also when a user took the node away";
}

TEST_F(NodeNames, OfJunkThatTheStoreDidNotRemoveAreStillTaken) {
    know(3, {"fe80::1/64 Link-Local 1"});
    store(1, {"2001:db8::dead/64 Automatic 1"});
    fake_tav::on_call("remove_node").statuses({api_status_refused});
    synchronise();
    EXPECT_EQ(content("1"), "2001:db8::dead/64 Automatic");
    EXPECT_EQ(content("2"), "fe80::1/64 Link-Local");
}

// The name once stayed taken for ever: the node had been removed as not matching the kernel, so the
// store had nothing to remove when the kernel deleted the address.
TEST_F(NodeNames, AreFreeAgainThoughTheStoreHadNoNodeToRemove) {
    synchronise();
    engine().add_kern_addr(kern_addr(3, "fe80::1", 64, 253));
    ASSERT_EQ(content("1"), "fe80::1/64 Link-Local");
    fake_tav::put(at("1/IPv6/Addresses/1/Type/Value"), "Automatic");
    synchronise();
    ASSERT_EQ(content("1"), "(absent) (absent)");
    engine().remove_kern_addr_from_tav(kern_addr(3, "fe80::1", 64, 253));
    appear("2001:db8::5");
    EXPECT_EQ(content("1"), "2001:db8::5/64 Automatic");
}

TEST_F(NodeNames, AreChosenBeforeAnythingIsWritten) {
    know(3, {"fe80::1/64 Link-Local 1", "2001:db8::a/64 Automatic 2"});
    store(1, {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 2"});
    strings at_first_write;
    fake_tav::on_call("set_leaves").runs([this, &at_first_write] { at_first_write = table(3); });
    synchronise();
    ASSERT_GE(at_first_write.size(), 2U);
    EXPECT_EQ(at_first_write[0], "fe80::1/64 Link-Local 3");
    EXPECT_EQ(at_first_write[1], "2001:db8::a/64 Automatic 4");
}

TEST_F(NodeNames, WhoseRemovalWasRefusedAreStillTaken) {
    store(1, {"2001:db8::a/64 Automatic 1"});
    know(3, {"2001:db8::a/64 Automatic 1"});
    synchronise();
    fake_tav::on_call("remove_node").statuses({api_status_stale});
    vanish("2001:db8::a");
    appear("2001:db8::b");
    EXPECT_EQ(table(3), strings{"2001:db8::b/64 Automatic 2"});
}

TEST_F(NodeNames, OfALaterListingThatLacksThemAreFree) {
    for (const char *erased : {"1/IPv6/Addresses", "1"}) {
        restart_with_eth0();
        store_unreadable("1");
        synchronise();
        fake_tav::erase(at(erased));
        synchronise();
        appear("2001:db8::a");
        EXPECT_EQ(table(3), strings{"2001:db8::a/64 Automatic 1"}) << erased;
    }
}

TEST_F(NodeNames, OfAReadingThatFailedAreNotRemembered) {
    store(1, {"2001:db8::5/64 Static 1"});
    fake_tav::on_call("get_leaves").returns(-1);
    EXPECT_THROW(engine().sync_all(), sync_err);
    fake_tav::erase(at("1/IPv6/Addresses"));
    synchronise();
    appear("2001:db8::a");
    EXPECT_EQ(table(3), strings{"2001:db8::a/64 Automatic 1"});
}

TEST_F(NodeNames, AreRememberedForEachInterfaceByItself) {
    track(4, "eth1");
    fake_tav::put_node(at("2"));
    store_unreadable("1");
    store_unreadable("2");
    know(4, {"fe80::2/64 Link-Local 1"});
    synchronise();
    EXPECT_EQ(table(4), strings{"fe80::2/64 Link-Local 1"}) << "interface 2 lists no nodes";
    receive(datagram_t().address(20, 4, "2001:db8::b", 64).address(20, 3, "2001:db8::a", 64));
    EXPECT_EQ(table(4), (strings{"fe80::2/64 Link-Local 1", "2001:db8::b/64 Automatic 2"}));
    EXPECT_EQ(table(3), strings{"2001:db8::a/64 Automatic 3"});
    vanish("2001:db8::a");
    receive(datagram_t().address(21, 4, "2001:db8::b", 64));
    receive(datagram_t().address(20, 4, "2001:db8::c", 64));
    EXPECT_EQ(entry(4).addresses.back().node, "2");
    appear("2001:db8::d");
    EXPECT_EQ(entry(3).addresses.back().node, "3") << "a removal on the other one frees nothing";
}

// Names that only look like the daemon's own do not prevent the use of a number.
TEST_F(NodeNames, ThatAreNoPlainNumbersOccupyNone) {
    const struct {
        const char *name;
        int number; // as which a careless parser reads it
    } names[] = {{":", 10}, {"1.", 8}, {"18446744073709551617", 1}, {"18446744073709551618", 2},
                 {"03", 3}, {"", 0}};
    for (const auto &one : names) {
        restart_with_eth0(1);
        ifcfg_t &link = entry(3);
        link.listed_nodes = {one.name};
        for (int number = 1; number < one.number; ++number) {
            link.listed_nodes.insert(std::to_string(number));
        }
        engine().add_kern_addr(kern_addr(3, "2001:db8::5", 64));
        EXPECT_EQ(table(3),
                  strings{"2001:db8::5/64 Automatic " + std::to_string(std::max(one.number, 1))})
            << one.name;
    }
}

TEST_F(NodeNames, ThatAreTooLargeToBeGivenAreIgnored) {
    for (int listed = 1; listed < 200; ++listed) {
        restart_with_eth0(1);
        ifcfg_t &link = entry(3);
        // The number after those that are tracked, and the following ones.
        for (int i = 0; i < listed; ++i) {
            link.listed_nodes.insert(std::to_string(listed + 2 + i));
        }
        engine().add_kern_addr(kern_addr(3, "2001:db8::5", 64));
        EXPECT_EQ(table(3), strings{"2001:db8::5/64 Automatic 1"});
    }
}

} // namespace
