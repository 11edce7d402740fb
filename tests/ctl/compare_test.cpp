// The rows that result from two views, and their marks.
#include "ctl/look_fixture.h"
#include "ctl/output.h"
#include "ctl/rules.h"

namespace {

using ctl::mark_t;

class Compare : public LookTest {
protected:
    // The marks of eth0's addresses and gateways, in order.
    std::string marks() {
        std::string letters;
        const ctl::comparison_t comparison = look();
        const ctl::interface_view_t &view = comparison.interfaces.at(0);
        for (const auto &row : view.addresses) {
            letters += ctl::mark_letter(row.mark);
        }
        letters += ' ';
        for (const auto &row : view.gateways) {
            letters += ctl::mark_letter(row.mark);
        }
        return letters;
    }
};

TEST_F(Compare, EachAddressHasOneRowWithTheMarkOfItsState) {
    address("fe80::5", 64);
    address("2001:db8::5", 64);
    address("2001:db8::6", 64);
    store("1", "fe80::5/64", "Link-Local");
    store("2", "2001:db8::6/48");
    store("3", "2001:db8::7/64");
    store("4", "2001:db8::8");
    EXPECT_EQ(marks(), "=K!S? ");
}

TEST_F(Compare, AnAddressOfAnotherTypeIsNoMatch) {
    address("fe80::5", 64);
    store("1", "fe80::5/64", "Automatic");
    EXPECT_EQ(marks(), "! ");
    store("1", "fe80::5/64", "Static");
    EXPECT_EQ(marks(), "= ") << "a Static address is the user's";
}

TEST_F(Compare, TheStoredGatewayIsPairedWithItsStaticRoute) {
    route("fe80::9", RTPROT_RA);
    route("fe80::2");
    route("fe80::1");
    store_gateway("fe80::1");
    EXPECT_EQ(marks(), " .K=");
}

TEST_F(Compare, ADuplicateIsNotUsable) {
    address("2001:db8::5", 64).flags = IFA_F_DADFAILED | IFA_F_TENTATIVE;
    store("x", "2001:db8::5/64");
    EXPECT_EQ(marks(), "? ");
}

TEST_F(Compare, AGatewayThatTheKernelHasJoinedWithOthersIsPairedToo) {
    ctl::kernel_route_t &one = route("fe80::1");
    one.multipath = true;
    one.has_index = false;
    EXPECT_EQ(marks(), " .");
    store_gateway("fe80::1");
    EXPECT_EQ(marks(), " =");
    route("fe80::1").metric = 512; // the same once more
    EXPECT_EQ(marks(), " =.");
}

TEST_F(Compare, AnotherStoredGatewayDiffersFromTheStaticRoute) {
    route("fe80::1");
    store_gateway("fe80::2");
    EXPECT_EQ(marks(), " !");
}

TEST_F(Compare, AnUnusableGatewayHasARowOfItsOwn) {
    route("fe80::1");
    store_gateway("router");
    EXPECT_EQ(marks(), " K?");
}

TEST_F(Compare, NothingIsMissingOnALinkThatIsNotSynchronised) {
    fake_tav::erase(at("1"));
    address("fe80::5", 64);
    route("fe80::1");
    EXPECT_EQ(marks(), ". .");
}

TEST_F(Compare, AStoreThatDidNotAnswerCausesNoFindings) {
    address("fe80::5", 64);
    route("fe80::1");
    const ctl::comparison_t comparison = ctl::compare(kernel, ctl::store_view_t{}, "eth");
    const ctl::interface_view_t &view = comparison.interfaces.at(0);
    EXPECT_EQ(view.addresses.at(0).mark, mark_t::half_known);
    EXPECT_EQ(view.gateways.at(0).mark, mark_t::half_known);
    EXPECT_TRUE(view.findings.empty());
    EXPECT_TRUE(comparison.findings.empty());
    EXPECT_EQ(ctl::table_lines({&view}).front().text, "eth0, up, 02:00:00:00:00:05");
}

TEST_F(Compare, AddressesAndRoutesOfOtherLinksStayThere) {
    link("eth1");
    address("2001:db8::5", 64).address.ifindex = 2;
    route("fe80::1").route.ifindex = 2;
    const ctl::comparison_t comparison = look();
    EXPECT_TRUE(comparison.interfaces.at(0).addresses.empty());
    EXPECT_EQ(comparison.interfaces.at(1).addresses.size(), 1U);
    EXPECT_EQ(comparison.interfaces.at(1).gateways.size(), 1U);
}

TEST_F(Compare, ALinkThatOnlyTheStoreHasComesLast) {
    store("x", "2001:db8::5/64", "Static", "3");
    const ctl::comparison_t comparison = look();
    ASSERT_EQ(comparison.interfaces.size(), 2U);
    EXPECT_EQ(comparison.interfaces[1].link, "eth2");
    EXPECT_FALSE(comparison.interfaces[1].kernel);
    EXPECT_EQ(comparison.interfaces[1].number, 3);
}

TEST(InterfaceNumber, IsOneMoreThanTheNumberAfterThePrefix) {
    EXPECT_EQ(ctl::interface_number("eth0", "eth"), 1);
    EXPECT_EQ(ctl::interface_number("eth41", "eth"), 42);
    EXPECT_EQ(ctl::interface_number("wlan0", "wlan"), 1);
    for (const std::string name : {"wlan0", "eth", "eth00", "eth01", "eth1.5", "eth-1", "eth 1",
                                   "et", "", "eth12345678901"}) {
        EXPECT_EQ(ctl::interface_number(name, "eth"), 0) << name;
    }
}

} // namespace
