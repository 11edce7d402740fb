// The order in which the engine goes through its table and through the store's snapshot: bucket by
// bucket, where the bucket is the key modulo a prime that grows with the number of entries.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"

namespace {

using numbers = std::vector<int>;

class BucketOrder : public EngineTest {
protected:
    // One link and one stored interface for each index, with the same name.
    void follow(const numbers &indices) {
        for (const int index : indices) {
            engine().add_link(kern_link(index, "eth" + std::to_string(index)));
            fake_tav::put_node(at(std::to_string(index + 1)));
        }
    }
    // The kernel indices in the order in which the kernel's settings are written to the store.
    numbers into_store() {
        return indices_of("log 6 Info: Synchronizing TAV interface (", " kernel interface (");
    }
    // The kernel indices in the order in which the store's settings are applied to the kernel.
    numbers into_kernel() {
        return indices_of("log 6 Info: Synchronizing kernel interface (", " kernel interface (");
    }
    void synchronise() {
        verbosity = 3;
        EngineTest::synchronise();
    }

private:
    static numbers indices_of(const std::string &start, const std::string &before) {
        numbers all;
        for (const auto &line : journal::matching(start)) {
            all.push_back(std::stoi(line.substr(line.find(before) + before.size())));
        }
        return all;
    }
};

TEST_F(BucketOrder, OfTheTableIsTheIndexModuloAPrimeThatHoldsIt) {
    const struct {
        const char *what;
        numbers arriving;
        std::size_t buckets;
        numbers order;
    } rows[] = {
        {"few links", {13, 3, 22, 12, 10}, 11, {22, 12, 13, 3, 10}},
        {"in another order of arrival", {10, 12, 22, 3, 13}, 11, {22, 12, 13, 3, 10}},
        {"eleven links still fit",
         {21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 22},
         11,
         {22, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21}},
        {"twelve links",
         {25, 24, 21, 20, 19, 18, 17, 16, 15, 14, 13, 46},
         23,
         {46, 24, 25, 13, 14, 15, 16, 17, 18, 19, 20, 21}},
    };
    for (const auto &one : rows) {
        SCOPED_TRACE(one.what);
        restart();
        follow(one.arriving);
        EXPECT_EQ(engine().interfaces.bucket_count(), one.buckets);
        synchronise();
        EXPECT_EQ(into_store(), one.order);
    }
}

TEST_F(BucketOrder, OfTheTableIsTheIndexModulo47FromThe24thEntryOn) {
    numbers indices;
    for (int index = 47; index > 24; --index) {
        indices.push_back(index);
    }
    indices.push_back(48);
    follow(indices);
    EXPECT_EQ(engine().interfaces.bucket_count(), 47U);
    synchronise();
    numbers expected = {47, 48};
    for (int index = 25; index < 47; ++index) {
        expected.push_back(index);
    }
    EXPECT_EQ(into_store(), expected);
}

TEST_F(BucketOrder, OfTheTableDoesNotShrinkWithIt) {
    follow({25, 24, 21, 20, 19, 18, 17, 16, 15, 14, 13, 46});
    for (const int index : {21, 20, 19, 18, 17, 16, 15, 14, 13}) {
        engine().erase_link(kern_link(index, ""));
    }
    synchronise();
    EXPECT_EQ(into_store(), (numbers{46, 24, 25}));
}

TEST_F(BucketOrder, OfTheSnapshotIsThePositionInTheListingModuloEleven) {
    for (int position = 0; position < 13; ++position) {
        if (position == 5 || position == 12 || position == 11) {
            const int number = 100 + position;
            fake_tav::put_node(at(std::to_string(number)));
            engine().add_link(kern_link(position, "eth" + std::to_string(number - 1)));
        } else {
            fake_tav::put(at("leaf " + std::to_string(position)), "text");
        }
    }
    synchronise();
    EXPECT_EQ(into_kernel(), (numbers{11, 12, 5}));
}

TEST_F(BucketOrder, OfTheSnapshotIsThePositionModulo23FromTheTwelfthInterfaceOn) {
    // Positions 11 to 21 hold interfaces, and so does 24: bucket 1 of 23.
    for (int position = 0; position < 25; ++position) {
        if ((position >= 11 && position <= 21) || position == 24) {
            const int number = 100 + position;
            fake_tav::put_node(at(std::to_string(number)));
            engine().add_link(kern_link(position, "eth" + std::to_string(number - 1)));
        } else {
            fake_tav::put(at("leaf " + std::to_string(position)), "text");
        }
    }
    EXPECT_EQ(engine().read_all_tav_ipv6_settings().bucket_count(), 23U);
    synchronise();
    EXPECT_EQ(into_kernel(), (numbers{24, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21}));
}

TEST_F(BucketOrder, OfTheSnapshotOfAPlainStoreIsTheOrderOfItsListing) {
    follow({7, 3, 5, 1, 2, 4, 6, 9, 8, 11, 10, 13, 12, 14});
    synchronise();
    EXPECT_EQ(into_kernel(), (numbers{7, 3, 5, 1, 2, 4, 6, 9, 8, 11, 10, 13, 12, 14}));
}

TEST_F(BucketOrder, DecidesWhichOfTwoLinksOfOneNameTheStoreMeans) {
    engine().add_link(kern_link(13, "eth0"));
    engine().add_link(kern_link(22, "eth0"));
    fake_tav::put_node(at("1"));
    synchronise();
    EXPECT_EQ(into_kernel(), numbers{22});
    EXPECT_EQ(entry(22).iface.number, 1);
}

TEST_F(BucketOrder, DecidesWhichOfTwoStoredInterfacesOfOneNameTheKernelMeans) {
    engine().add_link(kern_link(3, "eth0"));
    fake_tav::put_node(at("1"));
    fake_tav::put_node(at("01"));
    know(3, {"2001:db8::5/64 Automatic 1"});
    store(1, {"2001:db8::5/64 Automatic 9"});
    synchronise();
    EXPECT_EQ(into_kernel(), (numbers{3, 3})) << "each stored interface finds the link";
    EXPECT_EQ(into_store(), numbers{3}) << "the link finds the first";
    EXPECT_EQ(journal::count("set_leaves("), 0U) << "the first one holds the address";
}

} // namespace
