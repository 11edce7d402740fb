// One whole run of the reconciliation, log lines and effects in their order.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class SyncOrder : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        engine().state = 4;
        verbosity = 4;
    }
    // From the line that begins with `start` on, in the record.
    static strings tail(const std::string &start) {
        strings all = record();
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i].find(start) == 0) {
                return {all.begin() + static_cast<std::ptrdiff_t>(i), all.end()};
            }
        }
        return {};
    }
};

strings joined(strings first, const strings &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string info(const std::string &text) {
    return "6 Info: " + text;
}

strings reading_address(const std::string &interface, const std::string &node,
                        const std::string &address, const std::string &type) {
    const std::string path = "~/" + interface + "/IPv6/Addresses/" + node;
    return {
        info("Found TAV address '" + node + "'"), info("Discovering TAV addr on '" + path + "'"),
        "get_leaves(" + path + "/Address/Value, " + path + "/Type/Value)",
        info("Read TAV address " + node + " ('" + address + "') (" + type + ") on '" + path + "'")};
}

strings reading_gateway(const std::string &interface, const std::string &gateway) {
    const std::string path = "~/" + interface + "/IPv6";
    return {info("Discovering IPv6 TAV settings on interface '" + interface + "'"),
            info("Discovering TAV gateway on '" + path + "'"),
            "get_leaf(" + path + "/Default Gateway/Value)",
            gateway.empty() ? info("No gateway specified.")
                            : info("Read TAV gateway address '" + gateway + "' on '" + path + "'"),
            info("Discovering TAV addresses on '" + path + "'"),
            "list_node(" + path + "/Addresses)"};
}

const char *const into_kernel = "6 Info: Synchronizing kernel with TAV...";

TEST_F(SyncOrder, TheWholeStoreIsReadBeforeAnythingIsChanged) {
    track(3, "eth0");
    track(4, "eth1");
    know(3, {"fe80::1/64 Link-Local 1"});
    store(1, {"2001:db8::5/64 Static 5"});
    store_gateway(1, "fe80::99");
    fake_tav::put_node(at("2"));
    engine().sync_all();
    strings expected = {info("Synchronizing kernel & TAV settings..."),
                        info("Discovering all IPv6 TAV settings..."), "list_node(~)"};
    expected = joined(expected, reading_gateway("1", "fe80::99"));
    expected = joined(expected, reading_address("1", "5", "2001:db8::5/64", "Static"));
    expected = joined(expected, reading_gateway("2", ""));
    expected = joined(expected, {info("No addresses specified (~/2/IPv6/Addresses).")});
    strings all = record();
    ASSERT_GE(all.size(), expected.size());
    all.resize(expected.size());
    EXPECT_EQ(all, expected);
    EXPECT_EQ(
        tail(into_kernel),
        (strings{info("Synchronizing kernel with TAV..."),
                 info("Synchronizing kernel interface (3) with TAV interface (1): eth0"),
                 info("Adding TAV addr '2001:db8::5/64' to kernel on interface 3"),
                 "kernel: add 2001:db8::5/64 dev 3",
                 info("Comparing address 'fe80::1/64' (1) (NOT IN TAV)"),
                 info("Comparing address '2001:db8::5/64' (3) (IN TAV)"),
                 info("Adding TAV route 'fe80::99' to kernel on interface 3"),
                 "kernel: add ::/0 via fe80::99 dev 3", info("Synchronizing kernel with TAV..."),
                 info("Synchronizing kernel interface (4) with TAV interface (2): eth1"),
                 info("Synchronizing TAV with kernel settings..."),
                 info("Synchronizing TAV interface (1) with kernel interface (3): eth0"),
                 info("Writing kernel addr to TAV on interface 1"),
                 "set_leaves(~/1/IPv6/Addresses/1/Address/Value = fe80::1/64, "
                 "~/1/IPv6/Addresses/1/Type/Value = Link-Local)",
                 info("Writing kernel route to TAV on interface 3"),
                 "set_leaf(~/1/IPv6/Default Gateway/Value = fe80::99)",
                 info("Synchronizing TAV with kernel settings..."),
                 info("Synchronizing TAV interface (2) with kernel interface (4): eth1")}));
}

TEST_F(SyncOrder, OneInterfaceStaticFirstThenJunkThenRemovalsThenTheGateway) {
    track(3, "eth0");
    know(3, {"2001:db8::a/64 Static 1", "2001:db8::b/64 Static 2", "2001:db8::c/64 Automatic 3",
             "fe80::1/64 Link-Local 4"});
    know_gateway(3, "fe80::98");
    store(1, {"2001:db8::b/48 Static 2", "2001:db8::dead/64 Automatic 6", "2001:db8::c/64 Static 3",
              "2001:db8::d/64 Static 7"});
    store_gateway(1, "fe80::99");
    engine().sync_all();
    EXPECT_EQ(tail(into_kernel),
              (strings{info("Synchronizing kernel with TAV..."),
                       info("Synchronizing kernel interface (3) with TAV interface (1): eth0"),
                       info("Changing prefix length of address '2001:db8::b/64' => 48"),
                       "kernel: delete 2001:db8::b/64 dev 3",
                       "kernel: add 2001:db8::b/48 dev 3",
                       info("Removing unknown/junk node from TAV on interface 3 (eth0)"),
                       "remove_node(~/1/IPv6/Addresses/6)",
                       info("Adding TAV addr '2001:db8::d/64' to kernel on interface 3"),
                       "kernel: add 2001:db8::d/64 dev 3",
                       info("Comparing address '2001:db8::a/64' (3) (NOT IN TAV)"),
                       info("Removing TAV addr '2001:db8::a/64' from kernel on interface 3"),
                       "kernel: delete 2001:db8::a/64 dev 3",
                       info("Comparing address '2001:db8::b/48' (3) (IN TAV)"),
                       info("Comparing address '2001:db8::c/64' (3) (IN TAV)"),
                       info("Comparing address 'fe80::1/64' (1) (NOT IN TAV)"),
                       info("Comparing address '2001:db8::d/64' (3) (IN TAV)"),
                       info("New TAV route overriding existing one"),
                       "kernel: delete ::/0 via fe80::98 dev 3",
                       info("Adding TAV route 'fe80::99' to kernel on interface 3"),
                       "kernel: add ::/0 via fe80::99 dev 3",
                       info("Synchronizing TAV with kernel settings..."),
                       info("Synchronizing TAV interface (1) with kernel interface (3): eth0"),
                       info("Writing kernel addr to TAV on interface 1"),
                       "set_leaves(~/1/IPv6/Addresses/4/Address/Value = fe80::1/64, "
                       "~/1/IPv6/Addresses/4/Type/Value = Link-Local)",
                       info("Writing kernel route to TAV on interface 3"),
                       "set_leaf(~/1/IPv6/Default Gateway/Value = fe80::99)"}));
    EXPECT_EQ(table(3), (strings{"2001:db8::b/48 Static 2", "2001:db8::c/64 Static 3",
                                 "fe80::1/64 Link-Local 4", "2001:db8::d/64 Static 7"}));
}

TEST_F(SyncOrder, AGatewayThatLeftTheStoreIsWrittenInTheSameRun) {
    track(3, "eth0");
    know_gateway(3, "fe80::98");
    fake_tav::put_node(at("1"));
    engine().sync_all();
    EXPECT_EQ(
        tail(into_kernel),
        (strings{info("Synchronizing kernel with TAV..."),
                 info("Synchronizing kernel interface (3) with TAV interface (1): eth0"),
                 info("Removing existing static route"), "kernel: delete ::/0 via fe80::98 dev 3",
                 info("Synchronizing TAV with kernel settings..."),
                 info("Synchronizing TAV interface (1) with kernel interface (3): eth0"),
                 info("Writing kernel route to TAV on interface 3"),
                 "set_leaf(~/1/IPv6/Default Gateway/Value = fe80::98)"}));
}

TEST_F(SyncOrder, TheSnapshotServesTheWholeRun) {
    track(3, "eth0");
    know(3, {"2001:db8::c/64 Automatic 1"});
    store(1, {"2001:db8::c/64 Link-Local 1"});
    engine().sync_all();
    EXPECT_EQ(journal::count("list_node("), 2U) << "one for the interfaces, one for addresses";
    EXPECT_EQ(journal::count("set_leaves("), 0U) << "the snapshot still holds the removed node";
}

TEST_F(SyncOrder, InterfacesWithoutACounterpartCostOneLineEach) {
    track(3, "eth5");
    fake_tav::put_node(at("1"));
    engine().sync_all();
    EXPECT_EQ(tail(into_kernel), (strings{info("Synchronizing kernel with TAV..."),
                                          info("Synchronizing TAV with kernel settings...")}));
}

TEST_F(SyncOrder, LinesAreLoggedAtTheirLevels) {
    const auto run = [this] {
        restart();
        engine().state = 4;
        track(3, "eth0");
        engine().sync_all();
    };
    fake_tav::put_node(at("1"));
    for (const std::string line :
         {"Synchronizing kernel & TAV settings...", "Synchronizing kernel with TAV...",
          "Synchronizing TAV with kernel settings..."}) {
        expect_logged_at(4, 6, info(line).substr(2), run);
    }
    for (const std::string line :
         {"Synchronizing kernel interface (3) with TAV interface (1): eth0",
          "Synchronizing TAV interface (1) with kernel interface (3): eth0"}) {
        expect_logged_at(3, 6, info(line).substr(2), run);
    }
}

TEST_F(SyncOrder, AFailedReadingChangesNothing) {
    track(3, "eth0");
    know(3, {"2001:db8::c/64 Static 1"});
    fake_tav::put_node(at("1"));
    fake_tav::on_path("list_node", at("1/IPv6/Addresses")).returns(-1);
    EXPECT_THROW(engine().sync_all(), sync_err);
    EXPECT_TRUE(fake_libnl::state().changes.empty());
    EXPECT_EQ(fake_tav::writes(), 0U);
    EXPECT_EQ(table(3).size(), 1U);
}

TEST_F(SyncOrder, TheStoreIsWrittenUnderTheStoredInterfacesNumber) {
    track(3, "eth0", 1);
    know(3, {"fe80::1/64 Link-Local 1"});
    know_gateway(3, "fe80::98");
    tavcfg_map_t snapshot;
    snapshot[0].iface.name = "eth0";
    snapshot[0].iface.number = 4;
    engine().sync_tav_with_kernel(snapshot, entry(3));
    EXPECT_EQ(record(),
              (strings{info("Synchronizing TAV with kernel settings..."),
                       info("Synchronizing TAV interface (4) with kernel interface (3): eth0"),
                       info("Writing kernel addr to TAV on interface 1"),
                       "set_leaves(~/4/IPv6/Addresses/1/Address/Value = fe80::1/64, "
                       "~/4/IPv6/Addresses/1/Type/Value = Link-Local)",
                       info("Writing kernel route to TAV on interface 3"),
                       "set_leaf(~/4/IPv6/Default Gateway/Value = fe80::98)"}));
}

TEST_F(SyncOrder, TheSecondRunOverAnAgreedStateWritesTheGatewayAlone) {
    track(3, "eth0");
    know(3, {"fe80::1/64 Link-Local 1"});
    store(1, {"2001:db8::5/64 Static 5"});
    store_gateway(1, "fe80::99");
    engine().sync_all();
    const strings before = fake_tav::dump();
    forget();
    verbosity = 0;
    engine().sync_all();
    EXPECT_EQ(fake_tav::dump(), before);
    EXPECT_EQ(fake_tav::writes(), 1U);
    EXPECT_EQ(tail("kernel: "), (strings{"kernel: add ::/0 via fe80::99 dev 3",
                                         "set_leaf(~/1/IPv6/Default Gateway/Value = fe80::99)"}));
}

} // namespace
