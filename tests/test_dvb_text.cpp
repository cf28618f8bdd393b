// DVB SI text to UTF-8: every character table, the control codes, and input
// that is empty, cut short or invalid.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mpegcore/DvbText.h"

using mpegcore::DvbText;

namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

// Decodes a text given as a byte string literal; the bytes are copied into a
// buffer of exactly that size so that any read past the end is caught.
std::string decode(const std::string& bytes) {
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    return DvbText::to_utf8(exact);
}

}  // namespace

// Byte strings are split after their hex escapes ("\xC2" "e") and kept one case a
// line; the formatter would break them apart.
// clang-format off
TEST(DvbText, DefaultTableIsIso6937WithCombiningDiacritics) {
    EXPECT_EQ(decode("News"), "News");
    EXPECT_EQ(decode("\xC2" "e"), "\xC3\xA9");                 // acute + e: é
    EXPECT_EQ(decode("Caf\xC2" "e"), "Caf\xC3\xA9");           // Café
    EXPECT_EQ(decode("\xC8" "a\xCB" "c\xC1" "A"), "\xC3\xA4\xC3\xA7\xC3\x80");  // ä ç À
    EXPECT_EQ(decode("\xCF" "s"), "\xC5\xA1");                 // caron + s: š
    EXPECT_EQ(decode("a\xD0" "b"), "a\xE2\x80\x94" "b");       // em dash
}

TEST(DvbText, Iso8859PartsSelectedByOneByte) {
    EXPECT_EQ(decode("\x01\xB0\xB1"), "\xD0\x90\xD0\x91");     // 8859-5: АБ
    EXPECT_EQ(decode("\x02\xC7"), "\xD8\xA7");                 // 8859-6: alef
    EXPECT_EQ(decode("\x03\xC1\xE2"), "\xCE\x91\xCE\xB2");     // 8859-7: Αβ
    EXPECT_EQ(decode("\x04\xE0"), "\xD7\x90");                 // 8859-8: alef
    EXPECT_EQ(decode("\x05\xFD"), "\xC4\xB1");                 // 8859-9: dotless i
    EXPECT_EQ(decode("\x07\xA1"), "\xE0\xB8\x81");             // 8859-11: ko kai
    EXPECT_EQ(decode("\x0B\xA4"), "\xE2\x82\xAC");             // 8859-15: euro
}

TEST(DvbText, Iso8859PartsSelectedByThreeBytes) {
    EXPECT_EQ(decode(std::string("\x10\x00\x05\xB0\xB1", 5)), "\xD0\x90\xD0\x91");
    EXPECT_EQ(decode(std::string("\x10\x00\x02\xB1", 4)), "\xC4\x85");   // 8859-2: ą
    EXPECT_EQ(decode(std::string("\x10\x00\x01\xE9", 4)), "\xC3\xA9");   // 8859-1: é
    EXPECT_EQ(decode(std::string("\x10\x00\x0F\xA4", 4)), "\xE2\x82\xAC");
}

TEST(DvbText, Ucs2IsBigEndianWithTwoByteControlCodes) {
    EXPECT_EQ(decode(std::string("\x11\x04\x10\x04\x11", 5)), "\xD0\x90\xD0\x91");
    EXPECT_EQ(decode(std::string("\x11\x00" "A\xE0\x8A\x00" "B", 7)), "A\nB");
    EXPECT_EQ(decode(std::string("\x11\xE0\x86\x00" "A\xE0\x87", 7)), "A");
    EXPECT_EQ(decode(std::string("\x11\x00" "A\x00", 4)), "A" + kReplacement);      // odd last byte
    EXPECT_EQ(decode(std::string("\x11\xD8\x00\x00" "B", 5)), kReplacement + "B");  // lone surrogate
}

TEST(DvbText, KoreanChineseAndBig5Tables) {
    EXPECT_EQ(decode("\x12\xC7\xD1\xB1\xDB"), "\xED\x95\x9C\xEA\xB8\x80");  // 한글
    EXPECT_EQ(decode("\x13\xD6\xD0\xCE\xC4"), "\xE4\xB8\xAD\xE6\x96\x87");  // GB 2312: 中文
    EXPECT_EQ(decode("\x14\xA4\xA4\xA4\xE5"), "\xE4\xB8\xAD\xE6\x96\x87");  // Big5: 中文
    EXPECT_EQ(decode("\x13\xD6\xD0\xE0\x8A\xCE\xC4"), "\xE4\xB8\xAD\n\xE6\x96\x87");
    EXPECT_EQ(decode("\x14\xE0\x86\xA4\xA4\xE0\x87"), "\xE4\xB8\xAD");
    EXPECT_EQ(decode("\x13" "ab\xD6"), "ab" + kReplacement);  // cut in the middle of a character
    EXPECT_EQ(decode(std::string("\x14\xA4\xA4\x80\x00", 5)), "\xE4\xB8\xAD");  // Big5 0x80 is a C1 control
}

TEST(DvbText, Utf8TableKeepsValidTextAndReplacesInvalidBytes) {
    EXPECT_EQ(decode("\x15\xD0\x90\xE2\x82\xAC"), "\xD0\x90\xE2\x82\xAC");
    EXPECT_EQ(decode("\x15" "a\xC2\x8A" "b"), "a\nb");
    EXPECT_EQ(decode("\x15" "a\xEE\x82\x86" "b\xEE\x82\x87\xEE\x82\x8A"), "ab\n");
    EXPECT_EQ(decode("\x15\xFF" "A"), kReplacement + "A");
    EXPECT_EQ(decode("\x15" "A\xD0"), "A" + kReplacement);
    EXPECT_EQ(decode("\x15\xED\xA0\x80"), kReplacement + kReplacement + kReplacement);  // encoded surrogate
    EXPECT_EQ(decode("\x15\xF6\x91\x91\x91"), kReplacement + kReplacement + kReplacement + kReplacement);  // past U+10FFFF
}

TEST(DvbText, ControlCodesOfOneByteTables) {
    EXPECT_EQ(decode("a\x86" "b\x87" "c\x8A" "d"), "abc\nd");
    EXPECT_EQ(decode("\x01\x86\xB0\x87\x8A\xB1"), "\xD0\x90\n\xD0\x91");
    EXPECT_EQ(decode("a\x80\x9F" "b"), "ab");  // other control codes are dropped
    EXPECT_EQ(decode(std::string("a\x01" "b\x7F" "c\x00" "d", 7)), "abcd");  // C0 and DEL inside the text
}

TEST(DvbText, EmptyAndSelectorOnlyTextsAreEmpty) {
    EXPECT_EQ(DvbText::to_utf8(static_cast<const uint8_t*>(nullptr), 0), "");
    EXPECT_EQ(decode(""), "");
    EXPECT_EQ(decode("\x01"), "");
    EXPECT_EQ(decode("\x15"), "");
    EXPECT_EQ(decode(std::string("\x10\x00", 2)), "");
    EXPECT_EQ(decode(std::string("\x10\x00\x05", 3)), "");
}

TEST(DvbText, CutOffDiacriticAndUnknownLettersBecomeReplacementCharacters) {
    EXPECT_EQ(decode("ab\xC2"), "ab" + kReplacement);
    EXPECT_EQ(decode("\xC2" "1x"), kReplacement + "1x");  // a diacritic only combines with a letter
    EXPECT_EQ(decode("\xC9" "a"), kReplacement + "a");    // 0xC9 is not a diacritic
}

TEST(DvbText, ReservedAndUnsupportedTablesGiveOneReplacementCharacter) {
    EXPECT_EQ(decode("\x08\xB0\xB1"), kReplacement);  // would be 8859-12
    EXPECT_EQ(decode("\x0C" "abc"), kReplacement);
    EXPECT_EQ(decode("\x16" "abc"), kReplacement);
    EXPECT_EQ(decode("\x1F\x01" "abc"), kReplacement);
    EXPECT_EQ(decode(std::string("\x00" "abc", 4)), kReplacement);
    EXPECT_EQ(decode(std::string("\x10\x00\x0C" "a", 4)), kReplacement);
    EXPECT_EQ(decode(std::string("\x10\x01\x05" "a", 4)), kReplacement);
    EXPECT_EQ(decode(std::string("\x10\x00\x10" "a", 4)), kReplacement);
}

TEST(DvbText, SelectTableNamesTheTableAndTheSelectorLength) {
    const uint8_t latin[] = {'A'};
    EXPECT_STREQ(DvbText::select_table(latin, 1).iconv_name, "ISO_6937");
    EXPECT_EQ(DvbText::select_table(latin, 1).selector_length, 0u);
    const uint8_t cyrillic[] = {0x01};
    EXPECT_STREQ(DvbText::select_table(cyrillic, 1).iconv_name, "ISO-8859-5");
    const uint8_t three[] = {0x10, 0x00, 0x0E};
    EXPECT_STREQ(DvbText::select_table(three, 3).iconv_name, "ISO-8859-14");
    EXPECT_EQ(DvbText::select_table(three, 3).selector_length, 3u);
    EXPECT_EQ(DvbText::select_table(three, 2).iconv_name, nullptr);  // selector cut short
    EXPECT_EQ(DvbText::select_table(three, 2).selector_length, 2u);
    const uint8_t ucs2[] = {0x11};
    EXPECT_EQ(DvbText::select_table(ucs2, 1).bytes, DvbText::layout::ucs2);
}

// Every two-byte body after each selector: decoding ends, and what comes out
// holds no control character but the line break.
TEST(DvbText, EveryTwoByteBodyDecodesToPrintableText) {
    for (const int selector : {-1, 0x01, 0x05, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15}) {
        for (unsigned first = 0; first < 256; ++first) {
            for (const unsigned second : {0x00u, 0x0Au, 0x20u, 0x41u, 0x7Fu, 0x80u, 0x86u, 0x8Au, 0x9Fu, 0xA0u,
                                          0xA4u, 0xC2u, 0xE0u, 0xEEu, 0xFEu, 0xFFu}) {
                std::vector<uint8_t> text;
                if (selector == 0x10)
                    text = {0x10, 0x00, 0x05};
                else if (selector >= 0)
                    text.push_back(static_cast<uint8_t>(selector));
                text.push_back(static_cast<uint8_t>(first));
                text.push_back(static_cast<uint8_t>(second));
                const std::string out = DvbText::to_utf8(text);
                for (const char c : out)
                    ASSERT_TRUE(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F))
                        << "selector " << selector << " bytes " << first << ' ' << second;
            }
        }
    }
}
// clang-format on
