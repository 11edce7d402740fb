// Reconciliation of addresses: Static ones follow the store, all others the kernel.
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class SyncAddresses : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        prepare({}, {});
    }
    // A new engine that tracks eth0, and interface 1 of the store, with these addresses.
    void prepare(const strings &known, const strings &stored) {
        store_empty(1);
        restart_with_eth0();
        know(3, known);
        store(1, stored);
    }
};

// One synchronisation of interface 1: the addresses of table and store, what is done, and the table
// afterwards.
struct run_t {
    const char *what;
    strings known, stored, changes, known_after;
};

const run_t runs[] = {
    {"a Static address that the kernel has is not added again",
     {"2001:db8::5/64 Static 1"},
     {"2001:db8::5/64 Static 1"},
     {},
     {"2001:db8::5/64 Static 1"}},
    {"two stored nodes of one Static address are one address in the kernel",
     {},
     {"2001:db8::5/64 Static 1", "2001:db8::5/64 Static 2"},
     {"kernel: add 2001:db8::5/64 dev 3"},
     {"2001:db8::5/64 Static 1"}},
    {"an address is found under any node's name and with any length",
     {"2001:db8::5/64 Automatic 1"},
     {"2001:db8::5/48 Automatic 7"},
     {},
     {"2001:db8::5/64 Automatic 7"}},
    {"Static addresses that left the store are deleted in the kernel",
     {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 2", "2001:db8::7/64 Static 3",
      "2001:db8::8/64 Static 4"},
     {"2001:db8::6/64 Static 2"},
     {"kernel: delete 2001:db8::5/64 dev 3", "kernel: delete 2001:db8::7/64 dev 3",
      "kernel: delete 2001:db8::8/64 dev 3"},
     {"2001:db8::6/64 Static 2"}},
    {"a stored address of another type than the kernel's is junk; the next run writes it",
     {"2001:db8::5/64 Automatic 1"},
     {"2001:db8::5/64 Link-Local 1"},
     {"remove_node(~/1/IPv6/Addresses/1)"},
     {"2001:db8::5/64 Automatic 1"}},
    {"... and that next run",
     {"2001:db8::5/64 Automatic 1"},
     {},
     {address_write("1", "2001:db8::5/64", "Automatic")},
     {"2001:db8::5/64 Automatic 1"}},
    {"a stored Automatic address of a Static entry is junk, and the entry goes as well",
     {"2001:db8::5/64 Static 1"},
     {"2001:db8::5/64 Automatic 1"},
     {"remove_node(~/1/IPv6/Addresses/1)", "kernel: delete 2001:db8::5/64 dev 3"},
     {}},
    {"an adopted address takes the stored length",
     {"2001:db8::5/64 Automatic 1"},
     {"2001:db8::5/48 Static 1"},
     {"kernel: delete 2001:db8::5/64 dev 3", "kernel: add 2001:db8::5/48 dev 3"},
     {"2001:db8::5/48 Static 1"}},
    {"a link-local address is not adopted",
     {"fe80::5/64 Link-Local 1"},
     {"fe80::5/64 Static 9"},
     {"kernel: add fe80::5/64 dev 3"},
     {"fe80::5/64 Link-Local 1", "fe80::5/64 Static 9"}},
    {"a known address is found after the same address of another type",
     {"fe80::5/64 Link-Local 1", "fe80::5/64 Static 9"},
     {"fe80::5/64 Static 9", "fe80::5/64 Link-Local 1"},
     {},
     {"fe80::5/64 Link-Local 1", "fe80::5/64 Static 9"}},
    {"addresses of the kernel that the store lacks are written",
     {"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic 2"},
     {},
     {address_write("1", "fe80::1/64", "Link-Local"),
      address_write("2", "2001:db8::5/64", "Automatic")},
     {"fe80::1/64 Link-Local 1", "2001:db8::5/64 Automatic 2"}},
};

TEST_F(SyncAddresses, FollowTheStoreIfTheyAreStaticAndTheKernelOtherwise) {
    for (const auto &one : runs) {
        SCOPED_TRACE(one.what);
        prepare(one.known, one.stored);
        synchronise();
        EXPECT_EQ(changes(), one.changes);
        EXPECT_EQ(table(3), one.known_after);
    }
}

TEST_F(SyncAddresses, AreLoggedAtTheLevelOfWhatIsDone) {
    const struct {
        std::uint32_t level;
        const char *line;
        strings known, stored;
    } rows[] = {
        {1,
         "Removing unknown/junk node from TAV on interface 3 (eth0)",
         {},
         {"2001:db8::5/64 Automatic 1"}},
        {3,
         "Changing prefix length of address '2001:db8::5/64' => 48",
         {"2001:db8::5/64 Static 1"},
         {"2001:db8::5/48 Static 1"}},
        {3,
         "Removing TAV addr '2001:db8::5/64' from kernel on interface 3",
         {"2001:db8::5/64 Static 1"},
         {}},
        {4,
         "Adding TAV addr '2001:db8::5/64' to kernel on interface 3",
         {},
         {"2001:db8::5/64 Static 1"}},
        {4, "Writing kernel addr to TAV on interface 1", {"fe80::1/64 Link-Local 1"}, {}},
    };
    for (const auto &one : rows) {
        expect_info_at(one.level, one.line, [this, &one] {
            prepare(one.known, one.stored);
            synchronise();
        });
    }
}

TEST_F(SyncAddresses, AnAddedOneIsOfThisLinkAndOfUniversalScope) {
    store(1, {"2001:db8::5/64 Static office"});
    synchronise();
    EXPECT_EQ(entry(3).addresses.at(0).ifindex, 3);
    const auto header = fake_libnl::state().changes.at(0).body;
    EXPECT_EQ(header.at(offsetof(ifaddrmsg, ifa_scope)), RT_SCOPE_UNIVERSE);
    synchronise();
    EXPECT_EQ(changes(), strings{}) << "it is not added again";
}

TEST_F(SyncAddresses, AreComparedOnTheRecordWithTypeAndPresence) {
    know(3, {"2001:db8::5/64 Automatic 1", "fe80::1/64 Link-Local 2", "2001:db8::6/48 Static 3"});
    store(1, {"2001:db8::5/64 Automatic 1", "2001:db8::7/64 Static 4"});
    const strings comparisons = {"Comparing address '2001:db8::5/64' (2) (IN TAV)",
                                 "Comparing address 'fe80::1/64' (1) (NOT IN TAV)",
                                 "Comparing address '2001:db8::6/48' (3) (NOT IN TAV)",
                                 "Comparing address '2001:db8::7/64' (3) (IN TAV)"};
    verbosity = 4;
    synchronise();
    std::vector<std::string> seen;
    for (const auto &line : lines()) {
        if (line.find("Comparing ") == 0) {
            seen.push_back(line);
        }
    }
    EXPECT_EQ(seen, comparisons);
    expect_info_at(4, comparisons[0], [this] { synchronise(); });
}

TEST_F(SyncAddresses, OfAnInterfaceThatTheKernelLacksAreIgnored) {
    engine().interfaces.clear();
    store(1, {"2001:db8::5/64 Static 1", "2001:db8::6/64 Automatic 2"});
    verbosity = 3;
    synchronise();
    EXPECT_EQ(changes(), strings{});
    EXPECT_EQ(lines(), strings{});
    verbosity = 4;
    synchronise();
    EXPECT_EQ(lines().back(), "Synchronizing kernel with TAV...");
}

TEST_F(SyncAddresses, OfATrackedLinkThatTheStoreLacksAreNotWritten) {
    fake_tav::erase(at("1"));
    know(3, {"2001:db8::5/64 Automatic 1"});
    know_gateway(3, "fe80::1");
    verbosity = 3;
    synchronise();
    EXPECT_EQ(record(), strings{"list_node(~)"});
    EXPECT_EQ(fake_tav::dump(), strings{std::string(interfaces_node) + "/"});
}

TEST_F(SyncAddresses, AMatchOfNamesGivesTheStoreNumber) {
    EXPECT_EQ(entry(3).iface.number, 0);
    synchronise();
    EXPECT_EQ(entry(3).iface.number, 1);
}

TEST_F(SyncAddresses, AFailureOfTheKernelEndsTheRun) {
    store(1, {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 2", "2001:db8::7/64 Automatic 3"});
    fake_libnl::state().send_auto_complete.then(24).then(-5);
    EXPECT_THROW(synchronise(), netlink_err);
    EXPECT_TRUE(fake_tav::exists(at("1/IPv6/Addresses/3")));
    EXPECT_EQ(table(3).front(), "2001:db8::5/64 Static 1") << "what was done stays";
}

TEST_F(SyncAddresses, AFailureOfTheStoreEndsTheRun) {
    store(1, {"2001:db8::5/64 Automatic 1", "2001:db8::6/64 Static 2"});
    fake_tav::on_call("remove_node").returns(-1);
    EXPECT_THROW(synchronise(), sync_err);
    EXPECT_EQ(fake_libnl::state().changes.size(), 0U);
    restart_with_eth0();
    know(3, {"fe80::1/64 Link-Local 7"});
    know_gateway(3, "fe80::1");
    fake_tav::on_call("set_leaves").returns(-1);
    EXPECT_THROW(synchronise(), sync_err);
    EXPECT_EQ(fake_tav::calls("set_leaf").size(), 0U);
}

TEST_F(SyncAddresses, AJunkNodeThatTheStoreKeepsDoesNotEndTheRun) {
    store(1, {"2001:db8::5/64 Automatic 1", "2001:db8::6/64 Static 2"});
    fake_tav::on_call("remove_node").statuses({5});
    synchronise();
    EXPECT_EQ(changes(),
              (strings{"remove_node(~/1/IPv6/Addresses/1)", "kernel: add 2001:db8::6/64 dev 3"}));
}

// The kernel's report of a deletion by the daemon once arrived after the address had been added
// again, and the user's node was removed.
class SyncAddressesThatComeBack : public SyncAddresses {
protected:
    void SetUp() override {
        SyncAddresses::SetUp();
        store(1, {"2001:db8::5/64 Static office"});
        synchronise();
        fake_tav::erase(at("1/IPv6/Addresses/office"));
        synchronise();
        ASSERT_EQ(changes(), strings{"kernel: delete 2001:db8::5/64 dev 3"});
        deletion = fake_libnl::state().changes.back();
        store(1, {"2001:db8::5/64 Static office"});
        synchronise();
        forget();
    }
    void report_deletion(int prefix_len = 64) {
        receive(fake_libnl::datagram_t().address(21, 3, "2001:db8::5", prefix_len));
    }
    fake_libnl::message_t deletion;
};

TEST_F(SyncAddressesThatComeBack, StayWhenTheirDeletionIsReported) {
    report_deletion();
    EXPECT_EQ(changes(), strings{});
    EXPECT_TRUE(entry(3).deletions.empty());
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static office"});
}

TEST_F(SyncAddressesThatComeBack, GoWithTheNextDeletion) {
    report_deletion();
    report_deletion();
    EXPECT_EQ(changes(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
    EXPECT_EQ(table(3), strings{});
}

// An announcement from before the deletion makes the address look present: it must be added again.
TEST_F(SyncAddressesThatComeBack, AreAddedThoughAnEarlierAnnouncementComesFirst) {
    report_deletion();
    fake_tav::erase(at("1/IPv6/Addresses/office"));
    synchronise();
    know(3, "2001:db8::77", 48, 2, "9"); // another address, of another prefix length
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 64, 0));
    EXPECT_EQ(table(3).back(), "2001:db8::5/64 Automatic 1");
    entry(3).addresses.erase(entry(3).addresses.begin());
    store(1, {"2001:db8::5/64 Static office"});
    synchronise();
    EXPECT_EQ(changes().front(), "kernel: add 2001:db8::5/64 dev 3");
    report_deletion();
    synchronise();
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static office"});
    EXPECT_TRUE(fake_tav::exists(at("1/IPv6/Addresses/office")));
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Addresses/1")));
}

TEST_F(SyncAddressesThatComeBack, GoForGoodWhenOnlyAnEarlierAnnouncementBringsThemBack) {
    report_deletion();
    fake_tav::erase(at("1/IPv6/Addresses/office"));
    synchronise();
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 64, 0));
    report_deletion();
    EXPECT_EQ(table(3), strings{});
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Addresses/1")));
}

TEST_F(SyncAddressesThatComeBack, GoWhenTheDeletionAskedForWasRefused) {
    receive(fake_libnl::datagram_t().error(-99, deletion));
    report_deletion();
    EXPECT_EQ(changes(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
}

TEST_F(SyncAddressesThatComeBack, AreNotTakenForOnesOfAnotherPrefixLength) {
    entry(3).addresses.at(0).prefix_len = 48;
    report_deletion(48);
    EXPECT_EQ(changes(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
}

// The announcement of a prefix length that had been corrected since then once overwrote the user's
// last edit.
TEST_F(SyncAddressesThatComeBack, KeepTheirPrefixLengthWhenAnEarlierOneIsAnnounced) {
    report_deletion();
    for (const char *text : {"2001:db8::5/56", "2001:db8::5/48"}) {
        fake_tav::put(at("1/IPv6/Addresses/office/Address/Value"), text);
        synchronise();
    }
    forget();
    report_deletion(64);
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 56, 0));
    report_deletion(56);
    EXPECT_EQ(changes(), strings{});
    EXPECT_EQ(table(3), strings{"2001:db8::5/48 Static office"});
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 56, 0));
    EXPECT_EQ(table(3), strings{"2001:db8::5/56 Static office"}) << "somebody else's";
}

TEST_F(SyncAddressesThatComeBack, StayWhenTheirPrefixLengthIsChangedThereAndBack) {
    report_deletion();
    for (const char *text : {"2001:db8::5/48", "2001:db8::5/64"}) {
        fake_tav::put(at("1/IPv6/Addresses/office/Address/Value"), text);
        synchronise();
    }
    forget();
    report_deletion(64);
    report_deletion(48);
    EXPECT_EQ(changes(), strings{});
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static office"});
}

// With two entries for one address, the first once took the prefix length that the second was
// protected from.
TEST_F(SyncAddressesThatComeBack, KeepTheLengthOfEachEqualEntryWhenAnEarlierOneIsAnnounced) {
    report_deletion();
    fake_tav::put(at("1/IPv6/Addresses/office/Address/Value"), "2001:db8::5/48");
    synchronise();
    know(3, {"2001:db8::5/64 Link-Local 7"});
    std::swap(entry(3).addresses[0], entry(3).addresses[1]);
    const strings before = table(3);
    forget();
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 64, 0));
    EXPECT_EQ(changes(), strings{});
    EXPECT_EQ(table(3), before);
}

TEST_F(SyncAddressesThatComeBack, AreNotAddedOnceMoreByTheNextSynchronisation) {
    synchronise();
    EXPECT_EQ(changes(), strings{});
}

// Removed a second time, and announced only then: the first report concerns the first removal.
TEST_F(SyncAddressesThatComeBack, AreAnnouncedUntilTheirLastDeletionIsReported) {
    fake_tav::erase(at("1/IPv6/Addresses/office"));
    synchronise();
    receive(fake_libnl::datagram_t().address(20, 3, "2001:db8::5", 64, 0));
    report_deletion();
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Automatic 1"});
    report_deletion();
    EXPECT_EQ(table(3), strings{});
    EXPECT_TRUE(entry(3).deletions.empty());
}

TEST_F(SyncAddressesThatComeBack, AreForgottenWithTheirLink) {
    engine().erase_link(kern_link(3, "eth0"));
    engine().add_link(kern_link(3, "eth0"));
    forget();
    report_deletion();
    EXPECT_EQ(changes(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
}

// Each report belongs to one request, oldest first.
TEST_F(SyncAddressesThatComeBack, StayThroughEachOfTheirDeletions) {
    fake_tav::erase(at("1/IPv6/Addresses/office"));
    synchronise();
    store(1, {"2001:db8::5/64 Static office"});
    synchronise();
    forget();
    report_deletion();
    receive(fake_libnl::datagram_t().error(-99, deletion));
    EXPECT_EQ(changes(), strings{});
    report_deletion();
    EXPECT_EQ(changes(), strings{"remove_node(~/1/IPv6/Addresses/office)"});
}

} // namespace
