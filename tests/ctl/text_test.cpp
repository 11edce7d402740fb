// Texts for people: states, times; and the tables made of them.
#include "ctl/text.h"

#include <nlohmann/json.hpp>

#include "ctl/look_fixture.h"
#include "ctl/output.h"
#include "support/hostile_text.h"

namespace {

TEST(Durations, AreShownInTwoUnits) {
    EXPECT_EQ(ctl::duration_text(0), "0s");
    EXPECT_EQ(ctl::duration_text(59), "59s");
    EXPECT_EQ(ctl::duration_text(60), "1m");
    EXPECT_EQ(ctl::duration_text(61), "1m1s");
    EXPECT_EQ(ctl::duration_text(86400), "1d");
    EXPECT_EQ(ctl::duration_text(2 * 86400 + 3 * 3600 + 59), "2d3h");
    EXPECT_EQ(ctl::duration_text(3600 + 5 * 60 + 1), "1h5m");
    EXPECT_EQ(ctl::duration_text(ctl::forever), "forever");
}

TEST(States, NameTheFlagsAndTheTimesLeft) {
    ctl::kernel_address_t address;
    address.valid = address.preferred = ctl::forever;
    EXPECT_EQ(ctl::state_text(address), "");
    address.flags = IFA_F_TENTATIVE | IFA_F_DADFAILED;
    EXPECT_EQ(ctl::state_text(address), "tentative dadfailed");
    address.flags = IFA_F_DEPRECATED;
    address.valid = 3600;
    address.preferred = 0;
    EXPECT_EQ(ctl::state_text(address), "deprecated, valid 1h, preferred 0s");
}

class Table : public LookTest {
protected:
    std::vector<std::string> lines() {
        const ctl::comparison_t comparison = look();
        std::vector<std::string> texts;
        for (const auto &line : ctl::table_lines(ctl::chosen(comparison, options))) {
            texts.push_back(line.text);
        }
        return texts;
    }
    ctl::options_t options;
};

TEST_F(Table, ShowsBothViewsSideBySide) {
    address("fe80::5", 64);
    address("2001:db8::5", 64).flags = IFA_F_TENTATIVE;
    route("fe80::1");
    store("1", "fe80::5/64", "Link-Local");
    store("wan port", "2001:db8::6/64\x1b");
    store_gateway("fe80::1");
    const std::vector<std::string> expected{
        "eth0, interface node 1, up, 02:00:00:00:00:05",
        "  KERNEL          STORE               TYPE        NODE      STATE",
        "K 2001:db8::5/64  -                   -           -         tentative",
        "= fe80::5/64      fe80::5/64          Link-Local  1",
        "? -               2001:db8::6/64\\x1b  Static      wan port",
        "= via fe80::1     fe80::1             Gateway     -         protocol static",
        "",
        "= the same in both   K only in the kernel   ? stored, but cannot be used"};
    EXPECT_EQ(lines(), expected);
}

TEST_F(Table, StoredTextIsEscaped) {
    store("\x9b"
          "2J",
          "\xe2\x80\xae"
          "2001:db8::6/64",
          "\xc2\x85");
    const std::vector<std::string> shown = lines();
    EXPECT_EQ(shown.at(2), "? -       \\xe2\\x80\\xae2001:db8::6/64  \\xc2\\x85  \\x9b2J");
    const std::string remedy = look().interfaces.at(0).findings.at(0).remedy();
    EXPECT_EQ(remedy, "tandrelctl address del eth0 --node $'\\x9b2J'") << "a shell reads it back";
    store(tavtest::hostile_text("/"), tavtest::hostile_text(), tavtest::hostile_text());
    link(tavtest::hostile_text());
    options.all = true;
    for (const std::string &line : lines()) {
        EXPECT_EQ(tavtest::unescaped_part(line), "");
    }
    for (const ctl::finding_t &finding : findings()) {
        EXPECT_EQ(tavtest::unescaped_part(finding.sentence() + finding.remedy()), "");
    }
}

TEST_F(Table, OmitsUntrackedAndUnstoredLinksUnlessRequested) {
    link("wlan0");
    EXPECT_EQ(lines().size(), 2U);
    options.all = true;
    EXPECT_EQ(lines().size(), 5U);
    options.all = false;
    options.link = "wlan0";
    EXPECT_EQ(lines().front(), "wlan0, no interface node, up, 02:00:00:00:00:05, not synchronised");
    options.link = "eth7";
    EXPECT_THROW(lines(), ctl::refusal);
}

TEST_F(Table, FitsAnEightyColumnTerminal) {
    address("2001:db8:1111:2222:3333:4444:5555:6666", 64).flags = IFA_F_TENTATIVE;
    address("2001:db8:1111:2222:3333:4444:5555:7777", 64);
    store("a long name", "2001:db8:1111:2222:3333:4444:5555:6666/64");
    store("x", "2001:db8:1111:2222:3333:4444:5555:7777/48");
    const ctl::comparison_t comparison = look();
    std::vector<std::string> texts;
    for (const ctl::line_t &line : ctl::table_lines(ctl::chosen(comparison, options), 80)) {
        texts.push_back(line.text);
        EXPECT_LE(line.text.size(), 80U) << line.text;
    }
    EXPECT_EQ(texts,
              (std::vector<std::string>{
                  "eth0, interface node 1, up, 02:00:00:00:00:05",
                  "  ENTRY                                      TYPE    NODE",
                  "= 2001:db8:1111:2222:3333:4444:5555:6666/64  Static  a long name  tentative",
                  "! 2001:db8:1111:2222:3333:4444:5555:7777/64  Static  x",
                  "    stored: 2001:db8:1111:2222:3333:4444:5555:7777/48", "",
                  "= the same in both   ! in both, but different"}));
}

TEST_F(Table, RowsAndLinksAreSorted) {
    link("eth10");
    link("eth2");
    address("fe80::5", 64);
    address("2001:db8::7", 64);
    address("2001:db8::6", 64);
    store("1", "2001:db8::5/64");
    options.all = true;
    std::string first_words;
    for (const std::string &line : lines()) {
        first_words += line.substr(0, line.find_first_of(",/")) + "|";
    }
    EXPECT_EQ(first_words.find("eth0|"), 0U);
    EXPECT_LT(first_words.find("eth2|"), first_words.find("eth10|"));
    const std::vector<std::string> wanted{"2001:db8::5", "2001:db8::6", "2001:db8::7", "fe80::5"};
    std::vector<std::size_t> places;
    for (const std::string &one : wanted) {
        places.push_back(first_words.find(one));
    }
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end())) << first_words;
}

TEST_F(Table, JsonHasTheSameContent) {
    ctl::kernel_address_t &one = address("2001:db8::5", 64);
    one.valid = 60;
    one.preferred = 30;
    store("x", "2001:db8::5/48");
    store_gateway("fe80::1");
    const ctl::json_t json = ctl::interface_json(look().interfaces.at(0));
    EXPECT_EQ(json["link"], "eth0");
    EXPECT_EQ(json["interface"], 1);
    EXPECT_EQ(json["synchronised"], true);
    EXPECT_EQ(json["kernel"]["up"], true);
    const ctl::json_t &row = json["addresses"].at(0);
    EXPECT_EQ(row["mark"], "differ");
    EXPECT_EQ(row["kernel"]["address"], "2001:db8::5/64");
    EXPECT_EQ(row["kernel"]["scope"], "global");
    EXPECT_EQ(row["kernel"]["valid_seconds"], 60);
    EXPECT_EQ(row["kernel"]["preferred_seconds"], 30);
    EXPECT_EQ(row["store"]["node"], "x");
    EXPECT_EQ(row["store"]["address"], "2001:db8::5/48");
    EXPECT_EQ(row["store"]["type"], "Static");
    const ctl::json_t &gateway = json["gateways"].at(0);
    EXPECT_EQ(gateway["mark"], "store-only");
    EXPECT_TRUE(gateway["kernel"].is_null());
    EXPECT_EQ(gateway["store"]["gateway"], "fe80::1");
}

} // namespace
