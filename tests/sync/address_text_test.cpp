#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "fakes/fake_os.h"
#include "sync/errors.h"

namespace {

const std::string to_addr = "static CAddress CSync::str_to_addr(const tk_string&, bool): ";

class AddressText : public DaemonTest {};

std::string parsed(const tk_string &text, bool prefix_required) {
    const CAddress address = CSync::str_to_addr(text, prefix_required);
    return text_of(address.addr) + " " + std::to_string(address.prefix_len);
}

std::string refusal(const tk_string &text, bool prefix_required) {
    return thrown<sync_addr_err>(
        [&text, prefix_required] { CSync::str_to_addr(text, prefix_required); });
}

TEST_F(AddressText, WithoutAPrefixLengthHasLengthZeroUnlessOneIsRequired) {
    EXPECT_EQ(parsed("fe80::1", false), "fe80::1 0");
    EXPECT_EQ(refusal("fe80::1", true),
              to_addr + "No prefix specified in address string: 'fe80::1'");
    EXPECT_EQ(refusal("", true), to_addr + "No prefix specified in address string: ''");
    EXPECT_EQ(refusal("nonsense", true),
              to_addr + "No prefix specified in address string: 'nonsense'");
}

TEST_F(AddressText, AcceptsPrefixLengthsFromOneTo128) {
    for (const bool required : {true, false}) {
        EXPECT_EQ(parsed("2001:db8::1/1", required), "2001:db8::1 1");
        EXPECT_EQ(parsed("2001:db8::1/64", required), "2001:db8::1 64");
        EXPECT_EQ(parsed("2001:db8::1/128", required), "2001:db8::1 128");
        EXPECT_EQ(parsed("::/1", required), ":: 1");
        EXPECT_EQ(parsed("::ffff:192.0.2.1/96", required), "::ffff:192.0.2.1 96");
    }
}

TEST_F(AddressText, ReadsThePrefixLengthAsStrtolDoes) {
    EXPECT_EQ(parsed("2001:db8::1/064", true), "2001:db8::1 64");
    EXPECT_EQ(parsed("2001:db8::1/+64", true), "2001:db8::1 64");
    EXPECT_EQ(parsed("2001:db8::1/ 64", true), "2001:db8::1 64");
}

TEST_F(AddressText, RefusesAnyOtherPrefixLength) {
    for (const std::string length :
         {"0", "129", "", "64x", "-1", "64/", "0x40", "64 ", "x", "4294967360",
          "99999999999999999999", "-99999999999999999999", "256"}) {
        for (const bool required : {true, false}) {
            EXPECT_EQ(refusal("2001:db8::1/" + length, required),
                      to_addr + "Invalid prefix length '" + length + "'");
        }
    }
}

TEST_F(AddressText, SplitsAtTheFirstSlash) {
    EXPECT_EQ(refusal("2001:db8::1/64/48", true), to_addr + "Invalid prefix length '64/48'");
    EXPECT_EQ(refusal("/64", true), to_addr + "Can't convert string '' to IPv6 address");
}

TEST_F(AddressText, NamesOnlyTheAddressPartThatCannotBeConverted) {
    EXPECT_EQ(refusal("not-an-address/64", true),
              to_addr + "Can't convert string 'not-an-address' to IPv6 address");
    for (const std::string text :
         {"", "192.0.2.1", "2001:db8", "2001:db8::1%eth0", " ::1", "::1 ", "g::"}) {
        EXPECT_EQ(refusal(text, false),
                  to_addr + "Can't convert string '" + text + "' to IPv6 address");
    }
}

TEST_F(AddressText, TheAddressIsJudgedBeforeThePrefixLength) {
    EXPECT_EQ(refusal("bad/0", true), to_addr + "Can't convert string 'bad' to IPv6 address");
}

TEST_F(AddressText, AnErrorTextIsCutAt255Characters) {
    const std::string text(300, 'x');
    EXPECT_EQ(refusal(text, true),
              (to_addr + "No prefix specified in address string: '" + text + "'").substr(0, 255));
    EXPECT_EQ(refusal("::1/" + text, true),
              (to_addr + "Invalid prefix length '" + text + "'").substr(0, 255));
    EXPECT_EQ(refusal(text, false), (to_addr + "Can't convert string '" + text).substr(0, 255));
}

TEST_F(AddressText, IsWrittenCompressedAndWithItsLengthOnlyWhenAsked) {
    const in6_addr address = fake_libnl::addr("2001:db8:0:0:0:0:0:5");
    EXPECT_EQ(CSync::in6addr_to_str(address, 64, true), "2001:db8::5/64");
    EXPECT_EQ(CSync::in6addr_to_str(address, 64, false), "2001:db8::5");
    EXPECT_EQ(CSync::in6addr_to_str(address, 0, true), "2001:db8::5/0");
    EXPECT_EQ(CSync::in6addr_to_str(address, 255, true), "2001:db8::5/255");
    EXPECT_EQ(CSync::in6addr_to_str(in6_addr{}, 0, false), "::");
}

TEST_F(AddressText, TheLongestOneFits) {
    const std::string longest = "1111:2222:3333:4444:5555:6666:7777:8888";
    EXPECT_EQ(CSync::in6addr_to_str(fake_libnl::addr(longest), 128, true), longest + "/128");
}

TEST_F(AddressText, ComesBackFromWritingAndReading) {
    for (const std::string text : {"::1/128", "fe80::1/64", "2001:db8::5/1", "ff02::1/16",
                                   "1111:2222:3333:4444:5555:6666:7777:8888/99"}) {
        const CAddress address = CSync::str_to_addr(text, true);
        EXPECT_EQ(CSync::in6addr_to_str(address.addr, address.prefix_len, true), text);
    }
}

TEST_F(AddressText, AFailingConversionIsAnAddressError) {
    fake_os::state().inet_ntop.returns(0, 28);
    EXPECT_EQ(thrown<sync_addr_err>([] { CSync::in6addr_to_str(in6_addr{}, 64, true); }),
              "static tk_string CSync::in6addr_to_str(const in6_addr&, unsigned char, bool): "
              "Can't convert IPv6 address to string");
}

} // namespace
