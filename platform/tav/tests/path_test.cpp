// Paths, names and values. LimitsTest has their largest sizes.
#include <gtest/gtest.h>

#include <algorithm>

#include "protocol/limits.h"
#include "service/path.h"
#include "service/value_check.h"

using namespace tav;

TEST(Path, IsTheRootOrNamesAfterSingleSlashes) {
    for (const char *path : {"/", "/a", "/Main Hall/Ceiling Lamp", "/\x01\xff/.."}) {
        EXPECT_EQ(check_path(path), api_status_ok) << path;
    }
    for (const char *path : {"", "a", "a/b", "//", "/a/", "/a//b", "//a"}) {
        EXPECT_EQ(check_path(path), api_status_bad_path) << path;
    }
    EXPECT_EQ(check_path(std::string_view("/a\0b", 4)), api_status_bad_path);
    for (const char *begin : {"/", "//", "/a//"}) {
        const std::string rest(limits::path_bytes, 'a');
        EXPECT_EQ(check_path(begin + rest), api_status_path_too_long) << "and not gone through";
    }
    EXPECT_EQ(check_path(std::string(limits::path_bytes + 1, 'a')), api_status_bad_path);
}

TEST(NameOrder, NumbersComeFirstByValueThenNamesBytewise) {
    std::vector<std::string> names{
        "b", "10", "a", "9", "B", "1a", "-1", "99999999999999999999999", "007", "7", "0", "\xff"};
    std::sort(names.begin(), names.end(), NameLess());
    EXPECT_EQ(names,
              (std::vector<std::string>{"0", "007", "7", "9", "10", "99999999999999999999999", "-1",
                                        "1a", "B", "a", "b", "\xff"}));
}

TEST(Value, EachTypeHasItsTexts) {
    using Texts = std::vector<std::string>;
    struct {
        int type;
        Texts good;
        Texts bad;
    } const rows[] = {
        {element_type_boolean, {"true", "false"}, {"", "1", "True", "true "}},
        {element_type_integer,
         {"0", "-5", "9223372036854775807", "-9223372036854775808"},
         {"", "-", "+5", " 5", "5 ", "0x10", "1.0", "9223372036854775808"}},
        {element_type_real,
         {"0", "-1.5", "1e10", "2.5E-3", "1e+2", "17"},
         {"", "-", ".5", "5.", "1e", "nan", "inf", "0x1p3", "1,5", "1e999"}},
        {element_type_string, {"", "\x01\xff\n"}, {std::string("a\0b", 3)}},
        {0, {}, {""}},
        {1, {}, {""}},
        {element_type_node, {}, {""}},
        {7, {}, {""}},
        {255, {}, {""}},
    };
    for (const auto &[type, good, bad] : rows) {
        const auto status = [type = type](const std::string &text) {
            return check_value(Value{static_cast<element_type_t>(type), text, no_time});
        };
        for (const std::string &text : good) {
            EXPECT_EQ(status(text), api_status_ok) << type << " " << text;
        }
        for (const std::string &text : bad) {
            EXPECT_EQ(status(text), api_status_bad_value) << type << " " << text;
        }
    }
}
