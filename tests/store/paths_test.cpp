#include "store/paths.h"

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(StorePaths, AreSpelledAsTheStoreHasThem) {
    const tk_string interface = "/Software/System Settings/Network/Interface/1";
    EXPECT_STREQ(paths::interfaces, "/Software/System Settings/Network/Interface");
    EXPECT_EQ(paths::ipv6(1), interface + "/IPv6");
    EXPECT_EQ(paths::gateway(paths::ipv6(1)), interface + "/IPv6/Default Gateway");
    EXPECT_EQ(paths::value(paths::gateway(paths::ipv6(1))),
              interface + "/IPv6/Default Gateway/Value");
    const tk_string addresses = paths::addresses(paths::ipv6(1));
    EXPECT_EQ(addresses, interface + "/IPv6/Addresses");
    const tk_string node = paths::address(addresses, "7");
    EXPECT_EQ(node, interface + "/IPv6/Addresses/7");
    EXPECT_EQ(paths::address_value(node), interface + "/IPv6/Addresses/7/Address/Value");
    EXPECT_EQ(paths::type_value(node), interface + "/IPv6/Addresses/7/Type/Value");
}

TEST(StorePaths, AreTheSameFromANumberAndFromItsName) {
    for (const std::int32_t number : {1, 2, 10, 2147483647}) {
        EXPECT_EQ(paths::ipv6(number), paths::ipv6(tk_string(std::to_string(number))));
    }
}

TEST(StorePaths, KeepTheNamesOfNodesAsListed) {
    EXPECT_EQ(paths::ipv6(tk_string("01")), "/Software/System Settings/Network/Interface/01/IPv6");
    EXPECT_EQ(paths::address("/a/Addresses", "my own name"), "/a/Addresses/my own name");
}

TEST(AddressTypes, HaveOneTextEachAndAnEmptyOneOtherwise) {
    EXPECT_EQ(type_to_str(1), "Link-Local");
    EXPECT_EQ(type_to_str(2), "Automatic");
    EXPECT_EQ(type_to_str(3), "Static");
    for (const std::int32_t other : {0, 4, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(type_to_str(other), "") << other;
    }
}

TEST(AddressTypes, AreReadByTheirExactTextOnly) {
    EXPECT_EQ(str_to_type("Link-Local"), 1);
    EXPECT_EQ(str_to_type("Automatic"), 2);
    EXPECT_EQ(str_to_type("Static"), 3);
    for (const char *other : {"", "static", "STATIC", "Static ", " Static", "Stat", "Link-local",
                              "LinkLocal", "automatic", "3"}) {
        EXPECT_EQ(str_to_type(other), 0) << other;
    }
    EXPECT_EQ(str_to_type(tk_string("Static\0", 7)), 0);
}

TEST(InterfaceNumbers, AreWholeDecimalNumbersGreaterThanZero) {
    EXPECT_EQ(positive_number("1"), 1);
    EXPECT_EQ(positive_number("42"), 42);
    EXPECT_EQ(positive_number("01"), 1);
    EXPECT_EQ(positive_number(" 1"), 1) << "leading blanks are skipped";
    EXPECT_EQ(positive_number("+1"), 1);
    for (const char *other : {"", "0", "-1", "x", "1a", "01x", "1 ", "0x1", "1.0", "eth0", "-"}) {
        EXPECT_EQ(positive_number(other), 0) << '"' << other << '"';
    }
}

} // namespace
