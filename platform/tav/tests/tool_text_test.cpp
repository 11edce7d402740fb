// The rule by which the tool writes bytes as text.
#include <nlohmann/json.hpp>

#include "support/hostile_text.h"
#include "terminal/escape.h"
#include "terminal/hex.h"
#include "tool/screen.h"
#include "tool/script.h"

#include <gtest/gtest.h>

using namespace tav::terminal;
using namespace tav::tool;

TEST(Escape, PrintableTextIsNotChanged) {
    for (const char *text : {"", "plain text", "\"quoted\"", "\xc3\xa4", "\xe2\x82\xac",
                             "\xf0\x9f\x98\x80", "\xc2\xa0", "\xef\xbf\xbd", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(escaped(text), text);
        EXPECT_FALSE(holds_hidden(text));
    }
}

TEST(Escape, ControlCharactersAreMadeVisibleHoweverTheyAreSpelt) {
    EXPECT_EQ(escaped("a\nb\tc\\d\re"), "a\\nb\\tc\\\\d\\x0de");
    EXPECT_EQ(escaped("\x1b[31m\x7f"), "\\x1b[31m\\x7f");
    EXPECT_EQ(escaped("\xc2\x9b"
                      "31m"),
              "\\xc2\\x9b31m")
        << "an escape sequence in two bytes of UTF-8";
    EXPECT_EQ(escaped("\x9b"
                      "31m"),
              "\\x9b31m")
        << "and in one byte of Latin-1";
    EXPECT_EQ(escaped("\xc0\x9b"), "\\xc0\\x9b") << "longer than need be";
    EXPECT_EQ(escaped("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");
    EXPECT_EQ(escaped("\xf0\x80\x82\x9b"), "\\xf0\\x80\\x82\\x9b");
    EXPECT_EQ(escaped("\xe2\x80\xae\xe2\x81\xa6\xe2\x80\xa8"),
              "\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x80\\xa8");
}

TEST(Escape, EveryByteAndEveryHiddenCharacterIsEscaped) {
    const std::string all = tavtest::hostile_text();
    for (const std::string &text :
         {all, tavtest::utf8(0x61c), tavtest::utf8(0x200e), tavtest::utf8(0x200f),
          tavtest::utf8(0x2028), tavtest::utf8(0x2029)}) {
        EXPECT_EQ(tavtest::unescaped_part(escaped(text)), "");
        EXPECT_EQ(tavtest::unescaped_part(shell_word(text)), "");
        EXPECT_EQ(tavtest::unescaped_part(json_text(tav::tool::Json(text))), "");
    }
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(tavtest::unescaped_part(escaped(text)), "") << byte;
    }
}

TEST(Escape, TextThatIsNotUtf8IsEscapedByteByByte) {
    EXPECT_EQ(escaped("\xff\xfe"), "\\xff\\xfe");
    EXPECT_EQ(escaped("\xc3"), "\\xc3") << "cut short";
    EXPECT_EQ(escaped("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(escaped("\xc3("), "\\xc3(");
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "half of a pair";
    EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
}

TEST(Escape, ATerminalWithoutUtf8GetsAsciiOnly) {
    EXPECT_EQ(escaped("a\xc3\x84", true), "a\\xc3\\x84");
}

TEST(Escape, InvalidEscapesAreRefused) {
    for (const char *text :
         {"\\", "a\\", "\\q", "\\x", "\\x1", "\\xg1", "\\x1g", "\\x00", "\\x-1"}) {
        EXPECT_EQ(unescaped(text), std::nullopt) << text;
    }
    EXPECT_EQ(unescaped("\\\"\\ \\x1B"), "\" \x1b");
}

TEST(Escape, AWordForTheShellIsQuotedWhenItMustBe) {
    EXPECT_EQ(shell_word("/a/b-1.x"), "/a/b-1.x");
    EXPECT_EQ(shell_word("/a b$"), "'/a b$'");
    EXPECT_EQ(shell_word("it's"), "$'it\\'s'");
    EXPECT_EQ(shell_word("/a\n\\b"), "$'/a\\n\\\\b'");
    EXPECT_EQ(shell_word(""), "''");
}

TEST(Hex, IsReversedAndRefusesOtherText) {
    EXPECT_EQ(to_hex(std::string("\x00\x7f\xff", 3)), "007fff");
    EXPECT_EQ(from_hex("007fFF"), std::string("\x00\x7f\xff", 3));
    EXPECT_EQ(from_hex("0"), std::nullopt);
    EXPECT_EQ(from_hex("0g"), std::nullopt);
    EXPECT_EQ(from_hex("+1"), std::nullopt);
}

TEST(JsonText, HasNoControlCharacters) {
    EXPECT_EQ(json_text(tav::tool::Json("a\x1b\x7f")), R"("a\u001b\u007f")");
    EXPECT_EQ(json_text(tav::tool::Json("\xc3\xa4")), "\"\xc3\xa4\"");
    EXPECT_EQ(json_text(tav::tool::Json("\xc3\xa4\xc2\x9b")), R"("\u00e4\u009b")");
}

TEST(Script, GivesEachStepItsLine) {
    const Script script = parse_script("set /a 1 /b 2\n\n#\nmknode /c");
    EXPECT_TRUE(script.errors.empty());
    EXPECT_EQ(script.items.size(), 3U);
    EXPECT_EQ(script.lines, (std::vector<std::size_t>{1, 1, 4}));
}

TEST(Script, AWordMayBeEmptyOrQuotedInPart) {
    const Script script = parse_script("set /a \"\" /b x\"y z\"\\x41");
    ASSERT_EQ(script.items.size(), 2U);
    EXPECT_EQ(script.items[0].value.text, "");
    EXPECT_EQ(script.items[1].value.text, "xy zA");
}

TEST(Color, EnclosesWordsOnlyIfRequested) {
    EXPECT_EQ(tav::terminal::painted("x", Style::bad, false), "x");
    EXPECT_EQ(tav::terminal::painted("x", Style::bad, true), "\x1b[31mx\x1b[0m");
    EXPECT_EQ(tav::terminal::painted("x", Style::plain, true), "x");
    EXPECT_TRUE(use_color(Color::always));
    EXPECT_FALSE(use_color(Color::never));
}
