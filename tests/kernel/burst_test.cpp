// Many addresses at once.

#include <cstdio>
#include <iostream>

#include "harness/world.h"

namespace {

class BurstTest : public kt::KeptStoreTest {
protected:
    static constexpr int count = 1000;

    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
    }

    static std::string address(int i) {
        char text[64];
        std::snprintf(static_cast<char *>(text), sizeof text, "2001:db8:0:1::%x/64", i);
        return static_cast<const char *>(text);
    }

    // Stores them in one call and waits until the kernel has them all; the time it took.
    double add_all() {
        kt::Store::pairs_t leaves;
        for (int i = 1; i <= count; ++i) {
            const std::string node = std::to_string(i);
            leaves.emplace_back(kt::paths::address_value(1, node), address(i));
            leaves.emplace_back(kt::paths::type_value(1, node), "Static");
        }
        const auto begin = kt::clock_type::now();
        store.write(leaves);
        EXPECT_TRUE(becomes([&] { return global_addresses() == count; }));
        return std::chrono::duration<double>(kt::clock_type::now() - begin).count();
    }

    std::size_t global_addresses() {
        std::size_t found = 0;
        for (const auto &one : device.addresses("eth0")) {
            found += one.scope == 0 ? 1U : 0U;
        }
        return found;
    }

    // Every address under its node and in the kernel, and nothing else.
    void expect_all() {
        ASSERT_TRUE(settle());
        EXPECT_EQ(global_addresses(), static_cast<std::size_t>(count));
        std::size_t right = 0;
        std::size_t others = 0;
        for (const auto &stored : store.addresses(1)) {
            const int node = std::atoi(stored.node.c_str());
            if (node >= 1 && node <= count) {
                right += stored.address == address(node) && stored.type == "Static" ? 1U : 0U;
            } else {
                ++others;
            }
        }
        EXPECT_EQ(right, static_cast<std::size_t>(count));
        EXPECT_LE(others, 1U) << "the link-local address alone";
    }
};

TEST_F(BurstTest, AThousandStaticAddressesInOneTransactionReachTheKernelWithoutAnException) {
    start_daemon_and_wait({"-d", "-D", "3"});
    const double seconds = add_all();
    expect_all();
    const std::size_t exceptions = log().count_containing("Caught exception");
    // Without the privilege to force the buffer's size, the machine's limit applies.
    if (kt::Sandbox::is_real_root()) {
        EXPECT_EQ(exceptions, 0U);
    } else {
        EXPECT_LE(exceptions, 1U);
        rebuilds_allowed = true;
    }
    std::cout << count << " addresses in " << seconds << " s, " << exceptions << " exceptions\n";
}

TEST_F(BurstTest, WithASmallReceiveBufferAtMostOneRebuildIsNeeded) {
    const auto options = kt::preloaded({{"KT_RCVBUF_CAP", "212992"}});
    start_daemon_and_wait({"-d", "-D", "3"}, options);
    rebuilds_allowed = true;
    const double seconds = add_all();
    // The kernel may have them all before the daemon notices what it missed.
    expect_all();
    const std::size_t exceptions = log().count_containing("Caught exception");
    EXPECT_LE(exceptions, 1U);
    std::cout << count << " addresses in " << seconds << " s, " << exceptions << " exceptions\n";
}

TEST_F(BurstTest, AThousandStaticAddressesRemovedAtOnceLeaveTheKernel) {
    start_daemon_and_wait({"-d", "-D", "3"});
    add_all();
    rebuilds_allowed = !kt::Sandbox::is_real_root();
    store.remove(kt::paths::addresses(1));
    EXPECT_TRUE(becomes([&] { return global_addresses() == 0; }));
    ASSERT_TRUE(settle());
    EXPECT_LE(store.addresses(1).size(), 1U);
}

} // namespace
