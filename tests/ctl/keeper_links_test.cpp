// Why a setting was removed: the kernel's messages in their order, and the verdict on them.
#include "ctl/keeper_links.h"

#include <functional>

#include <gtest/gtest.h>

#include "ctl/keeper_settings.h"

namespace {

using ctl::kernel_link_t;
using ctl::links_t;
using ctl::moment_t;
using ctl::verdict_t;
using keeper_test::gateway;
using keeper_test::office;

moment_t at(int milliseconds) {
    return moment_t{} + std::chrono::hours(1) + std::chrono::milliseconds(milliseconds);
}

in6_addr bytes(const char *text) {
    in6_addr address{};
    EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1);
    return address;
}

kernel_link_t eth0(const std::function<void(kernel_link_t &)> &change = nullptr) {
    kernel_link_t link;
    link.index = 3;
    link.name = "eth0";
    link.hwaddr = "02:00:00:00:00:05";
    link.ethernet = link.up = link.carrier = link.has_ipv6 = true;
    link.mtu = 1500;
    if (change) {
        change(link);
    }
    return link;
}

void down(kernel_link_t &link) {
    link.up = link.carrier = false;
}

// eth0 has existed for an hour; `events` happen from 0 on; the verdict is asked for at `asked`.
struct case_t {
    const char *name;
    std::function<void(links_t &)> events;
    int asked;
    verdict_t::kind_t kind;
    const char *reason;
};

void leaves(links_t &links, int when, bool ended = false) {
    links.address_left(3, bytes("2001:db8::5"), ended, at(when));
    links.gateway_left(3, bytes("fe80::1"), at(when));
}

const case_t cases[] = {
    {"AbleAndQuiet", [](links_t &links) { leaves(links, 0); }, 1001, verdict_t::by_hand, ""},
    {"NotYetKnown", [](links_t &links) { leaves(links, 0); }, 1000, verdict_t::undecided, ""},
    {"WhileDown",
     [](links_t &links) {
         links.see(eth0(down), at(0));
         leaves(links, 5000);
     },
     5000, verdict_t::link_unable, "link down"},
    {"DownRightAfter",
     [](links_t &links) {
         leaves(links, 0);
         links.see(eth0(down), at(1000));
     },
     1000, verdict_t::uncertain, "link down"},
    {"DownLongAfter",
     [](links_t &links) {
         leaves(links, 0);
         links.see(eth0(down), at(1001));
     },
     1001, verdict_t::by_hand, ""},
    {"UpAgainRightBefore",
     [](links_t &links) {
         links.see(eth0(down), at(-5000));
         links.see(eth0(), at(0));
         leaves(links, 1000);
     },
     1000, verdict_t::uncertain, "link down"},
    {"UpAgainLongBefore",
     [](links_t &links) {
         links.see(eth0(down), at(-5000));
         links.see(eth0(), at(0));
         leaves(links, 1001);
     },
     3000, verdict_t::by_hand, ""},
    {"Removed",
     [](links_t &links) {
         leaves(links, 0);
         links.gone(3, "eth0", at(1));
     },
     1, verdict_t::uncertain, "link removed"},
    {"RemovedAndCreated",
     [](links_t &links) {
         leaves(links, 0);
         links.gone(3, "eth0", at(1));
         links.see(eth0([](kernel_link_t &link) { link.index = 4; }), at(2));
     },
     5000, verdict_t::uncertain, "link removed"},
    {"MtuTooSmall",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.mtu = 1279; }), at(0));
         leaves(links, 0);
     },
     0, verdict_t::link_unable, "MTU below 1280"},
    {"MtuJustLargeEnough",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.mtu = 1280; }), at(0));
         leaves(links, 0);
     },
     1001, verdict_t::by_hand, ""},
    {"NoIpv6",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.has_ipv6 = false; }), at(0));
         leaves(links, 0);
     },
     0, verdict_t::link_unable, "no IPv6 on the link"},
    {"Ipv6Disabled",
     [](links_t &links) {
         leaves(links, 0);
         links.see(eth0([](kernel_link_t &link) { link.ipv6_refused = true; }), at(1));
     },
     1, verdict_t::uncertain, "IPv6 disabled"},
    {"Ipv6DisabledAndEnabledUnseen",
     [](links_t &links) {
         links.ipv6_stopped(3, at(0));
         leaves(links, 1);
     },
     5000, verdict_t::uncertain, "all addresses lost at once"},
    {"InABridge",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.is_part = true; }), at(0));
         leaves(links, 5000);
     },
     5000, verdict_t::link_unable, "part of a bridge or bond"},
    {"NotEthernet",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.hwaddr = ""; }), at(0));
         leaves(links, 5000);
     },
     5000, verdict_t::link_unable, "not an Ethernet link"},
    {"Renamed",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.name = "lan0"; }), at(0));
         leaves(links, 5000);
     },
     5000, verdict_t::link_unable, "link renamed"},
    {"RenamedAndBackRightBefore",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.name = "lan0"; }), at(0));
         links.see(eth0(), at(1));
         leaves(links, 2);
     },
     5000, verdict_t::uncertain, "link renamed"},
    {"LosingCarrierIsNoReason",
     [](links_t &links) {
         links.see(eth0([](kernel_link_t &link) { link.carrier = false; }), at(0));
         leaves(links, 1);
     },
     5000, verdict_t::by_hand, ""},
    {"OtherLinksDown",
     [](links_t &links) {
         leaves(links, 0);
         links.see(eth0([](kernel_link_t &link) {
                       down(link);
                       link.index = 4;
                       link.name = "eth1";
                   }),
                   at(1));
     },
     5000, verdict_t::by_hand, ""},
    {"NotSeen", [](links_t &) {}, 5000, verdict_t::uncertain, "cause not seen"},
    {"MessagesLost",
     [](links_t &links) {
         leaves(links, 0);
         links.restart({eth0()}, at(500));
     },
     5000, verdict_t::uncertain, "cause not seen"},
    {"OnALinkNobodyKnows",
     [](links_t &links) { links.address_left(9, bytes("2001:db8::5"), false, at(0)); }, 5000,
     verdict_t::uncertain, "cause not seen"},
    {"TheLatestDepartureCounts",
     [](links_t &links) {
         links.see(eth0(down), at(0));
         leaves(links, 1);
         links.see(eth0(), at(2));
         leaves(links, 4000);
     },
     6000, verdict_t::by_hand, ""},
};

class Verdict : public testing::TestWithParam<case_t> {};

TEST_P(Verdict, IsTheSameForAddressAndGateway) {
    links_t links("eth");
    links.restart({eth0()}, at(-3600000));
    GetParam().events(links);
    for (const ctl::setting_t &setting : {office(), gateway()}) {
        const verdict_t verdict = links.judge(setting, at(GetParam().asked));
        EXPECT_EQ(verdict.kind, GetParam().kind) << text_of(setting);
        EXPECT_EQ(verdict.reason, GetParam().reason) << text_of(setting);
    }
}

INSTANTIATE_TEST_SUITE_P(Keeper, Verdict, testing::ValuesIn(cases),
                         [](const auto &one) { return one.param.name; });

TEST(KeeperLinks, AnAddressWhoseLifetimeEndedWasNotDeletedByHand) {
    links_t links("eth");
    links.restart({eth0()}, at(-3600000));
    leaves(links, 0, true);
    EXPECT_EQ(links.judge(office(), at(0)).kind, verdict_t::link_unable);
    EXPECT_EQ(links.judge(office(), at(0)).reason, "lifetime ended");
    EXPECT_EQ(links.judge(gateway(), at(1001)).kind, verdict_t::by_hand);
}

TEST(KeeperLinks, AnUndecidedVerdictSaysWhenToAskAgain) {
    links_t links("eth");
    links.restart({eth0()}, at(-3600000));
    leaves(links, 0);
    EXPECT_EQ(links.judge(office(), at(1)).until, at(1000));
}

TEST(KeeperLinks, TheFirstSecondIsUncertain) {
    links_t links("eth");
    links.restart({eth0()}, at(0));
    leaves(links, 1000);
    EXPECT_EQ(links.judge(office(), at(5000)).kind, verdict_t::uncertain);
}

TEST(KeeperLinks, OldDeparturesAreForgottenWhenThereAreMany) {
    links_t links("eth");
    links.restart({eth0()}, at(-3600000));
    leaves(links, 0);
    for (int i = 0; i < 1000; ++i) {
        in6_addr other = bytes("2001:db8:1::");
        other.s6_addr[14] = static_cast<std::uint8_t>(i / 256);
        other.s6_addr[15] = static_cast<std::uint8_t>(i % 256);
        links.address_left(3, other, false, at(60001));
    }
    EXPECT_EQ(links.judge(office(), at(70000)).kind, verdict_t::uncertain);
}

TEST(KeeperLinks, AnObstacleSaysWhatALinkLacks) {
    links_t links("eth");
    EXPECT_EQ(links.obstacle("eth0"), "no such link");
    links.see(eth0(), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "");
    EXPECT_EQ(links.index("eth0"), 3);
    EXPECT_FALSE(links.is_unclear());
    links.see(eth0(down), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "link down");
}

TEST(KeeperLinks, ARenamedLinkIsNotTouchedUntilItHasItsNameAgain) {
    links_t links("eth");
    links.see(eth0(), at(0));
    links.see(eth0([](kernel_link_t &link) { link.name = "eth7"; }), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "link renamed");
    EXPECT_EQ(links.obstacle("eth7"), "link renamed");
    EXPECT_TRUE(links.is_unclear());
    links.see(eth0(), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "");
    EXPECT_EQ(links.obstacle("eth7"), "no such link");
}

TEST(KeeperLinks, ANewDaemonKnowsARenamedLinkByItsNewName) {
    links_t links("eth");
    links.see(eth0(), at(0));
    links.see(eth0([](kernel_link_t &link) { link.name = "eth7"; }), at(0));
    links.daemon_restarted();
    EXPECT_EQ(links.obstacle("eth0"), "no such link");
    EXPECT_EQ(links.obstacle("eth7"), "");
    EXPECT_FALSE(links.is_unclear());
}

TEST(KeeperLinks, ALinkThatGetsItsFirstNameWithThePrefixIsNotRenamed) {
    links_t links("eth");
    links.see(eth0([](kernel_link_t &link) { link.name = "veth5"; }), at(0));
    links.see(eth0(), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "");
    EXPECT_FALSE(links.is_unclear());
}

TEST(KeeperLinks, ALinkThatEndsUnderAnotherNameIsStillKnownToTheDaemon) {
    links_t links("eth");
    links.see(eth0(), at(0));
    links.see(eth0([](kernel_link_t &link) { link.name = "lan0"; }), at(0));
    links.gone(3, "lan0", at(0));
    EXPECT_EQ(links.obstacle("eth0"), "link renamed");
    EXPECT_TRUE(links.is_unclear());
    links.see(eth0([](kernel_link_t &link) { link.index = 4; }), at(0));
    EXPECT_EQ(links.obstacle("eth0"), "several links have had this name");
    EXPECT_EQ(links.index("eth0"), 0);
    links.daemon_restarted();
    EXPECT_EQ(links.obstacle("eth0"), "");
    EXPECT_EQ(links.index("eth0"), 4);
}

TEST(KeeperLinks, ChangesAreCountedForEachLink) {
    links_t links("eth");
    links.see(eth0(), at(0));
    const unsigned before = links.changes("eth0");
    links.see(eth0(), at(0));
    EXPECT_EQ(links.changes("eth0"), before);
    links.see(eth0([](kernel_link_t &link) { link.carrier = false; }), at(0));
    EXPECT_EQ(links.changes("eth0"), before + 1);
    EXPECT_EQ(links.changes("eth1"), 0U);
}

TEST(KeeperLinks, AMessageAboutOneAspectIsNotTheLink) {
    links_t links("eth");
    links.see(eth0(), at(0));
    kernel_link_t scanned; // as wireless drivers report the end of a scan
    scanned.index = 3;
    scanned.name = "eth0";
    scanned.ethernet = scanned.up = true;
    EXPECT_FALSE(links.see(scanned, at(1)));
    EXPECT_EQ(links.obstacle("eth0"), "");
    EXPECT_TRUE(links.see(eth0(), at(2)));
}

TEST(KeeperLinks, ALinkMissingAfterLostMessagesIsGone) {
    links_t links("eth");
    links.restart({eth0()}, at(0));
    const unsigned before = links.changes("eth0");
    links.restart({}, at(0));
    EXPECT_EQ(links.obstacle("eth0"), "no such link");
    EXPECT_EQ(links.changes("eth0"), before + 1);
}

} // namespace
