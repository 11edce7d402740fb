// The table when requests to the kernel fail during a reconciliation of addresses, and stored
// addresses that the store's reader never returns.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

class SyncFailure : public EngineTest {
protected:
    static constexpr int sent = 24; // a size that the netlink library could have sent
    static constexpr int failed = -5;

    void SetUp() override {
        EngineTest::SetUp();
        track(3, "eth0");
        engine().state = 4;
        fake_tav::put_node(at("1"));
    }
    void fail_to_synchronise() {
        forget();
        EXPECT_EQ(thrown<netlink_err>([this] { engine().sync_all(); }), "nl_send_auto_complete");
        EXPECT_EQ(fake_tav::writes(), 0U);
    }
};

TEST_F(SyncFailure, AnAddressIsRecordedBeforeTheKernelIsAskedToAddIt) {
    store(1, {"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 2", "2001:db8::7/64 Static 3"});
    fake_libnl::state().send_auto_complete.then(sent).then(failed);
    fail_to_synchronise();
    EXPECT_EQ(table(3), (strings{"2001:db8::5/64 Static 1", "2001:db8::6/64 Static 2"}));
}

TEST_F(SyncFailure, AnOldPrefixLengthStaysUntilTheKernelWasAskedToDeleteIt) {
    know(3, {"2001:db8::5/64 Static 1"});
    store(1, {"2001:db8::5/48 Static 1"});
    fake_libnl::state().send_auto_complete.then(failed);
    fail_to_synchronise();
    EXPECT_EQ(table(3), strings{"2001:db8::5/64 Static 1"});
    EXPECT_EQ(effects().back(), "nl_send_auto_complete(21)");
}

TEST_F(SyncFailure, ANewPrefixLengthIsRecordedBeforeTheKernelIsAskedToAddIt) {
    know(3, {"2001:db8::5/64 Static 1"});
    store(1, {"2001:db8::5/48 Static 1"});
    fake_libnl::state().send_auto_complete.then(sent).then(failed);
    fail_to_synchronise();
    EXPECT_EQ(table(3), strings{"2001:db8::5/48 Static 1"});
}

class SyncUntypedAddress : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        track(3, "eth0");
        engine().state = 4;
    }
    // Interface 1 with one address of type 0, which the reader never returns.
    static tavcfg_t stored() {
        tavcfg_t result;
        result.iface.name = "eth0";
        result.iface.number = 1;
        CTavAddress address;
        address.addr = fake_libnl::addr("2001:db8::5");
        address.prefix_len = 64;
        address.type = type_unset;
        address.node = "7";
        result.addresses.push_back(address);
        result.listed_nodes.push_back(address.node);
        return result;
    }
};

TEST_F(SyncUntypedAddress, IsJunk) {
    verbosity = 1;
    engine().sync_kernel_with_tav(stored());
    EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Addresses/7)"});
    EXPECT_EQ(lines(), strings{"Removing unknown/junk node from TAV on interface 3 (eth0)"});
    EXPECT_EQ(table(3), strings{});
}

TEST_F(SyncUntypedAddress, IsJunkAlsoWhenTheKernelHasTheAddressWithAType) {
    for (const std::int32_t type : {1, 2}) {
        forget();
        entry(3).addresses.clear();
        know(3, "2001:db8::5", 64, type, "9");
        engine().sync_kernel_with_tav(stored());
        EXPECT_EQ(effects(), strings{"remove_node(~/1/IPv6/Addresses/7)"});
        ASSERT_EQ(table(3).size(), 1U);
        EXPECT_EQ(entry(3).addresses.at(0).node, "9");
    }
}

} // namespace
