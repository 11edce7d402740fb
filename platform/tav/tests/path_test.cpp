// Paths, names and values.
#include <gtest/gtest.h>

#include <algorithm>

#include "protocol/limits.h"
#include "service/path.h"
#include "service/value_check.h"

using namespace tav;

namespace {

std::string repeated(const std::string &part, std::size_t times) {
    std::string result;
    for (std::size_t i = 0; i < times; ++i) {
        result += part;
    }
    return result;
}

api_status_t check(element_type_t type, const std::string &text) {
    return check_value(Value{type, text, no_time});
}

} // namespace

TEST(Path, ARootAndNamesSeparatedBySingleSlashesAreFine) {
    EXPECT_EQ(check_path("/"), api_status_ok);
    EXPECT_EQ(check_path("/a"), api_status_ok);
    EXPECT_EQ(check_path("/Main Hall/Ceiling Lamp"), api_status_ok);
    EXPECT_EQ(check_path("/\x01\xff/.."), api_status_ok);
}

TEST(Path, WhatIsMalformedIsABadPath) {
    for (const char *path : {"", "a", "a/b", "//", "/a/", "/a//b", "//a"}) {
        EXPECT_EQ(check_path(path), api_status_bad_path) << path;
    }
    EXPECT_EQ(check_path(std::string_view("/a\0b", 4)), api_status_bad_path);
}

TEST(Path, EachLimitHoldsExactly) {
    EXPECT_EQ(check_path("/" + std::string(limits::name_bytes, 'x')), api_status_ok);
    EXPECT_EQ(check_path("/" + std::string(limits::name_bytes + 1, 'x')), api_status_name_too_long);
    EXPECT_EQ(check_path(repeated("/a", limits::depth)), api_status_ok);
    EXPECT_EQ(check_path(repeated("/a", limits::depth + 1)), api_status_path_too_deep);
    const std::string longest = repeated("/" + std::string(255, 'x'), 16);
    ASSERT_EQ(longest.size(), limits::path_bytes);
    EXPECT_EQ(check_path(longest), api_status_ok);
    EXPECT_EQ(check_path(longest.substr(0, longest.size() - 1) + "/x"), api_status_path_too_long);
}

TEST(Path, NamesAreRemovedOneByOne) {
    std::string_view rest = "/a/b c/d";
    EXPECT_EQ(take_name(rest), "a");
    EXPECT_EQ(take_name(rest), "b c");
    EXPECT_EQ(take_name(rest), "d");
    EXPECT_TRUE(rest.empty());
}

TEST(Path, BelowMeansWholeNames) {
    EXPECT_TRUE(is_at_or_below("/a/b", "/a"));
    EXPECT_TRUE(is_at_or_below("/a", "/a"));
    EXPECT_TRUE(is_at_or_below("/a", "/"));
    EXPECT_FALSE(is_at_or_below("/ab", "/a"));
    EXPECT_FALSE(is_at_or_below("/a", "/a/b"));
}

TEST(NameOrder, NumbersComeFirstByValueThenNamesBytewise) {
    std::vector<std::string> names{
        "b", "10", "a", "9", "B", "1a", "-1", "99999999999999999999999", "007", "7", "0", "\xff"};
    std::sort(names.begin(), names.end(), NameLess());
    EXPECT_EQ(names,
              (std::vector<std::string>{"0", "007", "7", "9", "10", "99999999999999999999999", "-1",
                                        "1a", "B", "a", "b", "\xff"}));
}

TEST(Value, BooleansAreTrueAndFalse) {
    EXPECT_EQ(check(element_type_boolean, "true"), api_status_ok);
    EXPECT_EQ(check(element_type_boolean, "false"), api_status_ok);
    for (const char *text : {"", "1", "True", "true "}) {
        EXPECT_EQ(check(element_type_boolean, text), api_status_bad_value) << text;
    }
}

TEST(Value, IntegersAreSigned64BitDecimals) {
    for (const char *text : {"0", "-5", "9223372036854775807", "-9223372036854775808"}) {
        EXPECT_EQ(check(element_type_integer, text), api_status_ok) << text;
    }
    for (const char *text : {"", "-", "+5", " 5", "5 ", "0x10", "1.0", "9223372036854775808"}) {
        EXPECT_EQ(check(element_type_integer, text), api_status_bad_value) << text;
    }
}

TEST(Value, RealsAreInDecimalNotation) {
    for (const char *text : {"0", "-1.5", "1e10", "2.5E-3", "1e+2", "17"}) {
        EXPECT_EQ(check(element_type_real, text), api_status_ok) << text;
    }
    for (const char *text : {"", "-", ".5", "5.", "1e", "nan", "inf", "0x1p3", "1,5", "1e999"}) {
        EXPECT_EQ(check(element_type_real, text), api_status_bad_value) << text;
    }
}

TEST(Value, StringsHoldAnyByteButNul) {
    EXPECT_EQ(check(element_type_string, ""), api_status_ok);
    EXPECT_EQ(check(element_type_string, "\x01\xff\n"), api_status_ok);
    EXPECT_EQ(check(element_type_string, std::string("a\0b", 3)), api_status_bad_value);
    EXPECT_EQ(check(element_type_string, std::string(limits::value_bytes, 'x')), api_status_ok);
    EXPECT_EQ(check(element_type_string, std::string(limits::value_bytes + 1, 'x')),
              api_status_value_too_long);
}

TEST(Value, OnlyTheTypesOfLeavesHaveValues) {
    for (const int type : {0, 1, 2, 7, 255}) {
        EXPECT_EQ(check(static_cast<element_type_t>(type), ""), api_status_bad_value) << type;
    }
}
