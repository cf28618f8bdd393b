#pragma once
// DVB SI text (EN 300 468 Annex A) as UTF-8, for display. The tables keep
// their text fields as transmitted, character table selector included; this
// is the one place where such bytes become readable text.
//
// Character tables, chosen by the first byte(s) of the text:
//   first byte 0x20 or above   ISO/IEC 6937 (a diacritic byte 0xC1..0xCF
//                              combines with the letter after it)
//   0x01..0x0B                 ISO/IEC 8859-5 .. 8859-15 (0x08 is reserved)
//   0x10 0x00 NN               ISO/IEC 8859-NN (NN 1..15, not 12)
//   0x11                       ISO/IEC 10646 BMP, two bytes big-endian (UCS-2)
//   0x12                       KS X 1001 (EUC-KR)
//   0x13                       GB 2312 (EUC-CN)
//   0x14                       Big5
//   0x15                       UTF-8
// The conversion itself is glibc's iconv (through UTF-32, so that only
// Unicode scalar values come out); no character table is held here.
//
// Control codes (0x80..0x9F in the one-byte tables; 0xE080..0xE09F, and in
// UCS-2 and UTF-8 also U+0080..U+009F, in the others): 0x8A (CR/LF) becomes
// "\n"; the emphasis codes 0x86/0x87 and every other control code are
// dropped, as are C0 control characters and DEL inside the text.
//
// Bad input never reads outside the buffer given. Each byte sequence the
// table cannot decode (an invalid byte, a UCS-2 surrogate, a character cut
// off at the end) becomes one U+FFFD and decoding goes on after it; a text
// whose selector names a reserved or unsupported table (0x08, 0x0C..0x0F,
// 0x16..0x1F, a malformed 0x10 selector) becomes a single U+FFFD.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mpegcore {

class DvbText {
public:
    // How the bytes after the selector are laid out.
    enum class layout {
        single_byte,  // ISO/IEC 6937 and 8859
        ucs2,         // two bytes per character
        multi_byte,   // ASCII bytes alone, a byte of 0x80 or above leads a pair
        utf8,
    };

    struct character_table {
        const char* iconv_name;  // null: reserved or unsupported table
        size_t selector_length;  // leading bytes that select the table (0 to 3)
        layout bytes;
    };

    // The character table the first bytes of a text select.
    static character_table select_table(const uint8_t* data, size_t size);

    // The text of size bytes (selector included) as UTF-8.
    static std::string to_utf8(const uint8_t* data, size_t size);
    static std::string to_utf8(const char* data, size_t size) {
        return to_utf8(reinterpret_cast<const uint8_t*>(data), size);
    }
    static std::string to_utf8(const std::vector<uint8_t>& text) { return to_utf8(text.data(), text.size()); }
};

}  // namespace mpegcore
