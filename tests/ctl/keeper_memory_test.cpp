// What the keeper remembers in the store, and the steps that change it.
#include "ctl/keeper_memory.h"

#include <gtest/gtest.h>

#include "ctl/keeper_settings.h"

namespace {

using ctl::task_t;
using keeper_test::gateway;
using keeper_test::office;

class Memory : public LookTest {
protected:
    // Carries the steps out on the fake store; false if a condition does not hold.
    static bool apply(const ctl::writes_t &writes) {
        for (const ctl::write_t &write : writes) {
            if ((write.kind == ctl::write_t::same && fake_tav::text(write.path) != write.text) ||
                (write.kind == ctl::write_t::absent && fake_tav::exists(write.path))) {
                return false;
            }
        }
        for (const ctl::write_t &write : writes) {
            if (write.kind == ctl::write_t::set) {
                fake_tav::put(write.path, write.text);
            } else if (write.kind == ctl::write_t::clear && fake_tav::exists(write.path)) {
                fake_tav::erase(write.path);
            }
        }
        return true;
    }
    bool apply(task_t::kind_t kind, const ctl::setting_t &setting, const std::string &text,
               const std::string &words = "") {
        return apply(ctl::writes_of({kind, setting, text, words, type_automatic}, prefix));
    }
    ctl::memory_t read() {
        client.require();
        return ctl::read_memory(client.tav);
    }
    static std::string text(const std::string &below) { return fake_tav::text(at(below)); }
    void remember(const ctl::setting_t &setting) {
        ctl::writes_t writes;
        ctl::remember(writes, {setting, "link down", 0});
        ASSERT_TRUE(apply(writes));
    }
};

TEST_F(Memory, IsEmptyAtFirst) {
    const ctl::memory_t memory = read();
    EXPECT_FALSE(memory.handled);
    EXPECT_TRUE(memory.kept.empty());
    EXPECT_TRUE(memory.removals.empty());
}

TEST_F(Memory, IsReadAsItWasWritten) {
    remember(office());
    remember(gateway());
    ctl::writes_t writes;
    ctl::begin_removal(writes, {office("", "2001:db8::6"), "7"});
    ctl::note_handled(writes, 1234);
    ASSERT_TRUE(apply(writes));
    const ctl::memory_t memory = read();
    EXPECT_EQ(memory.handled, 1234U);
    ASSERT_EQ(memory.kept.size(), 2U);
    EXPECT_TRUE(same_setting(memory.kept[0].setting, office()));
    EXPECT_EQ(memory.kept[0].setting.address.prefix_len, 64);
    EXPECT_EQ(memory.kept[0].setting.node, "office");
    EXPECT_EQ(memory.kept[0].why, "link down");
    EXPECT_TRUE(same_setting(memory.kept[1].setting, gateway()));
    EXPECT_EQ(memory.kept[1].why, "link down");
    ASSERT_EQ(memory.removals.size(), 1U);
    EXPECT_EQ(text_of(memory.removals[0].setting), "2001:db8::6/64");
    EXPECT_EQ(memory.removals[0].node, "7");
}

TEST_F(Memory, BecomesWhatItWasWhenAChangeWasHandled) {
    const std::string text = "2001:db8::5/64";
    using text_t = std::optional<std::string>;
    const auto change = [&](const text_t &before, const text_t &after, const char *handled) {
        std::vector<ctl::leaf_change_t> leaves{
            {"/Software/tandrel/Keeper/Links/eth0/Addresses/2001:db8::50/Value", after, before},
            {"/Software/tandrel/Keeper/Handled/Value", "6", handled}};
        for (const char *leaf : {"/Value", "/Node/Value", "/Reason/Value"}) {
            leaves.push_back({ctl::kept_path(office()) + leaf, before, after});
        }
        return leaves;
    };
    const auto become = [&](const std::vector<std::vector<ctl::leaf_change_t>> &since) {
        ctl::writes_t writes;
        std::vector<bool> result;
        for (const auto &[setting, is_kept] :
             ctl::remember_as_before(12, office(), since, writes)) {
            EXPECT_EQ(text_of(setting), text);
            result.push_back(is_kept);
        }
        EXPECT_TRUE(apply(writes));
        return result;
    };
    remember(office());
    EXPECT_TRUE(become({}).empty());
    EXPECT_TRUE(become({change(text, {}, "12"), change({}, text, "13")}).empty());
    EXPECT_TRUE(become({change({}, text, "11")}).empty()) << "noted later, but it left before";
    EXPECT_EQ(read().kept.size(), 1U) << "remembered then and now";
    EXPECT_EQ(become({change({}, text, "12")}), std::vector<bool>{false});
    EXPECT_TRUE(read().kept.empty()) << "only remembered since";
    EXPECT_TRUE(become({change({}, text, "12"), change(text, {}, "13")}).empty());
    EXPECT_TRUE(read().kept.empty()) << "remembered meanwhile";
    EXPECT_EQ(become({change({}, text, "11"), change(text, {}, "12")}), std::vector<bool>{true});
    ASSERT_EQ(read().kept.size(), 1U) << "forgotten since";
    EXPECT_EQ(read().kept[0].setting.node, text);
    EXPECT_EQ(read().kept[0].why, text);
}

TEST_F(Memory, BecomesTheGatewayOfThatTime) {
    ctl::setting_t other = gateway();
    other.address.addr.s6_addr[15] = 0x99;
    remember(other);
    const std::string leaf = ctl::kept_path(gateway()) + "/Value";
    ctl::writes_t writes;
    const auto result = ctl::remember_as_before(
        12, gateway(), {{{leaf, "fe80::1", std::nullopt}}, {{leaf, std::nullopt, "fe80::99"}}},
        writes);
    ASSERT_EQ(result.size(), 2U);
    EXPECT_EQ(text_of(result[0].first), "gateway fe80::99");
    EXPECT_FALSE(result[0].second);
    EXPECT_EQ(text_of(result[1].first), "gateway fe80::1");
    EXPECT_TRUE(result[1].second);
    ASSERT_TRUE(apply(writes));
    EXPECT_EQ(text_of(read().kept.at(0).setting), "gateway fe80::1");
}

TEST_F(Memory, IsOutsideTheInterfacesSubtree) {
    remember(office());
    EXPECT_EQ(fake_tav::text("/Software/tandrel/Keeper/Links/eth0/Addresses/2001:db8::5/Value"),
              "2001:db8::5/64");
}

TEST_F(Memory, WhatCannotBeReadIsSkipped) {
    const std::string links = "/Software/tandrel/Keeper/Links/eth0";
    fake_tav::put(links + "/Addresses/2001:db8::5/Value", "none");
    fake_tav::put_node(links + "/Addresses/2001:db8::6");
    fake_tav::put(links + "/Gateway/Value", "none");
    fake_tav::put(links + "/Removals/2001:db8::5/Value", "none");
    EXPECT_TRUE(read().kept.empty());
    EXPECT_TRUE(read().removals.empty());
    for (const char *text : {"", "none", "12x", "-1", "99999999999999999999"}) {
        fake_tav::put("/Software/tandrel/Keeper/Handled/Value", text);
        EXPECT_FALSE(read().handled) << text;
    }
}

TEST_F(Memory, AnAddressIsRestoredAndForgottenAtOnce) {
    remember(office());
    EXPECT_TRUE(apply(task_t::restore, office("2"), "2001:db8::5/64"));
    EXPECT_EQ(text("1/IPv6/Addresses/2/Address/Value"), "2001:db8::5/64");
    EXPECT_EQ(text("1/IPv6/Addresses/2/Type/Value"), "Static");
    EXPECT_TRUE(read().kept.empty());
    EXPECT_FALSE(apply(task_t::restore, office("3"), "2001:db8::5/64")) << "it is forgotten";
}

TEST_F(Memory, ANodeThatAppearedMeanwhileIsNotOverwritten) {
    remember(office());
    fake_tav::put_node(at("1/IPv6/Addresses/office"));
    EXPECT_FALSE(apply(task_t::restore, office(), "2001:db8::5/64"));
    EXPECT_EQ(read().kept.size(), 1U);
}

TEST_F(Memory, AGatewayIsRestoredUnlessThereIsOne) {
    remember(gateway());
    store_gateway("fe80::2");
    EXPECT_FALSE(apply(task_t::restore, gateway(), "fe80::1"));
    fake_tav::erase(at("1/IPv6/Default Gateway/Value"));
    EXPECT_TRUE(apply(task_t::restore, gateway(), "fe80::1"));
    EXPECT_EQ(text("1/IPv6/Default Gateway/Value"), "fe80::1");
    EXPECT_TRUE(read().kept.empty());
}

TEST_F(Memory, ADuplicateIsRememberedBeforeItLeaves) {
    store("office", "2001:DB8::5/64");
    EXPECT_TRUE(apply(task_t::take_out, office(), "2001:DB8::5/64", "duplicate"));
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Addresses/office")));
    ASSERT_EQ(read().kept.size(), 1U);
    EXPECT_EQ(read().kept[0].why, "duplicate");
    store("office", "2001:db8::6/64");
    EXPECT_FALSE(apply(task_t::take_out, office(), "2001:DB8::5/64")) << "edited meanwhile";
}

TEST_F(Memory, ARemovalIsFinishedInTwoSteps) {
    ctl::writes_t writes;
    ctl::begin_removal(writes, {office(), ""});
    ASSERT_TRUE(apply(writes));
    store("3", "2001:db8::5/64", "Automatic");
    EXPECT_TRUE(apply(task_t::adopt, office("3"), "2001:db8::5/64"));
    EXPECT_EQ(text("1/IPv6/Addresses/3/Type/Value"), "Static");
    EXPECT_EQ(read().removals.at(0).node, "3");
    EXPECT_FALSE(apply(task_t::adopt, office("3"), "2001:db8::5/64"));
    EXPECT_TRUE(apply(task_t::remove, office("3"), "2001:db8::5/64"));
    EXPECT_FALSE(fake_tav::exists(at("1/IPv6/Addresses/3")));
    EXPECT_EQ(read().removals.at(0).node, "");
    EXPECT_TRUE(apply(task_t::settle, office(), "2001:db8::5/64"));
    EXPECT_TRUE(read().removals.empty());
}

TEST_F(Memory, ANodeIsDroppedUnlessItHasChangedMeanwhile) {
    store("3", "2001:db8::5/64");
    EXPECT_FALSE(apply(task_t::drop, office("3"), "2001:db8::5/64")) << "it is Static";
    store("3", "2001:db8::5/64", "Automatic");
    EXPECT_FALSE(apply(task_t::drop, office("3"), "2001:db8::6/64"));
    EXPECT_TRUE(apply(task_t::drop, office("3"), "2001:db8::5/64"));
    EXPECT_EQ(text("1/IPv6/Addresses/3/Address/Value"), "(absent)");
}

TEST_F(Memory, ForgettingRemovesOneSetting) {
    remember(office());
    remember(gateway());
    EXPECT_TRUE(apply(task_t::forget, office(), ""));
    ASSERT_EQ(read().kept.size(), 1U);
    EXPECT_TRUE(read().kept[0].setting.is_gateway);
}

TEST_F(Memory, AskingTheDaemonChangesNoSetting) {
    EXPECT_TRUE(
        ctl::writes_of({task_t::synchronise, office(), "", "", type_automatic}, prefix).empty());
}

} // namespace
