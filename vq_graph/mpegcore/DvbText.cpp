#include "mpegcore/DvbText.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace mpegcore {

namespace {

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// ISO/IEC 8859 parts by number; 12 was never published.
const char* const kIso8859[] = {
    nullptr,      "ISO-8859-1", "ISO-8859-2",  "ISO-8859-3",  "ISO-8859-4", "ISO-8859-5",  "ISO-8859-6",  "ISO-8859-7",
    "ISO-8859-8", "ISO-8859-9", "ISO-8859-10", "ISO-8859-11", nullptr,      "ISO-8859-13", "ISO-8859-14", "ISO-8859-15",
};

const char* iso8859(unsigned part) { return part < sizeof kIso8859 / sizeof kIso8859[0] ? kIso8859[part] : nullptr; }

// Whether a decoded character is a control character: C0, DEL, C1, or one
// of the two-byte control codes U+E080..U+E09F.
bool is_control(uint32_t c) {
    return c < 0x20 || c == 0x7F || (c >= 0x80 && c <= 0x9F) || (c >= 0xE080 && c <= 0xE09F);
}

bool opened(iconv_t cd) { return cd != reinterpret_cast<iconv_t>(-1); }

// iconv from a character table to UTF-32 (which admits only Unicode scalar
// values, so what the table's decoder lets through is checked once more),
// then from UTF-32 to UTF-8.
class converter {
public:
    explicit converter(const char* from)
        : m_decode(iconv_open("UTF-32BE", from)), m_encode(iconv_open("UTF-8", "UTF-32BE")) {}
    ~converter() {
        if (opened(m_decode))
            iconv_close(m_decode);
        if (opened(m_encode))
            iconv_close(m_encode);
    }
    converter(const converter&) = delete;
    converter& operator=(const converter&) = delete;

    bool valid() const { return opened(m_decode) && opened(m_encode); }

    // Appends the conversion of a run of text bytes, control characters
    // left out; each sequence iconv rejects becomes U+FFFD and decoding
    // resumes one unit further on.
    void append(const uint8_t* data, size_t size, size_t unit, std::string& out) {
        char* in = const_cast<char*>(reinterpret_cast<const char*>(data));
        size_t inLeft = size;
        unsigned char decoded[1024];
        while (inLeft > 0) {
            char* produced = reinterpret_cast<char*>(decoded);
            size_t room = sizeof decoded;
            const size_t result = iconv(m_decode, &in, &inLeft, &produced, &room);
            append_characters(decoded, static_cast<size_t>(produced - reinterpret_cast<char*>(decoded)) / 4, out);
            if (result != static_cast<size_t>(-1))
                break;
            if (errno == E2BIG)
                continue;
            out += kReplacement;
            if (errno == EINVAL)  // a character cut off by the end of the run
                break;
            const size_t skip = std::min(unit, inLeft);
            in += skip;
            inLeft -= skip;
            iconv(m_decode, nullptr, nullptr, nullptr, nullptr);
        }
        iconv(m_decode, nullptr, nullptr, nullptr, nullptr);
    }

private:
    // Appends count big-endian UTF-32 characters as UTF-8, but for control characters.
    void append_characters(unsigned char* characters, size_t count, std::string& out) {
        size_t kept = 0;
        for (size_t i = 0; i < count; ++i) {
            const unsigned char* c = characters + 4 * i;
            const uint32_t value = static_cast<uint32_t>(c[0]) << 24 | static_cast<uint32_t>(c[1]) << 16 |
                                   static_cast<uint32_t>(c[2]) << 8 | c[3];
            if (!is_control(value))
                std::memmove(characters + 4 * kept++, c, 4);
        }
        char* in = reinterpret_cast<char*>(characters);
        size_t inLeft = 4 * kept;
        char encoded[1024];
        while (inLeft > 0) {
            char* produced = encoded;
            size_t room = sizeof encoded;
            const size_t result = iconv(m_encode, &in, &inLeft, &produced, &room);
            out.append(encoded, static_cast<size_t>(produced - encoded));
            if (result == static_cast<size_t>(-1) && errno != E2BIG)
                break;  // every scalar value has a UTF-8 form; stop rather than loop
        }
    }

    iconv_t m_decode;
    iconv_t m_encode;
};

// Length of the control code at data[0] in the given layout (0 when there
// is none) and its value as a one-byte code 0x80..0x9F.
size_t control_code(DvbText::layout bytes, const uint8_t* data, size_t size, uint8_t& code) {
    auto c1 = [](uint8_t b) { return b >= 0x80 && b <= 0x9F; };
    switch (bytes) {
    case DvbText::layout::single_byte: code = data[0]; return c1(data[0]) ? 1 : 0;
    case DvbText::layout::ucs2:
        if (size < 2 || (data[0] != 0x00 && data[0] != 0xE0) || !c1(data[1]))
            return 0;
        code = data[1];
        return 2;
    case DvbText::layout::multi_byte:
        if (size < 2 || data[0] != 0xE0 || !c1(data[1]))
            return 0;
        code = data[1];
        return 2;
    case DvbText::layout::utf8:
        // U+0080..U+009F is C2 80..C2 9F, U+E080..U+E09F is EE 82 80..EE 82 9F.
        if (size >= 2 && data[0] == 0xC2 && c1(data[1])) {
            code = data[1];
            return 2;
        }
        if (size >= 3 && data[0] == 0xEE && data[1] == 0x82 && c1(data[2])) {
            code = data[2];
            return 3;
        }
        return 0;
    }
    return 0;
}

// Bytes of the character (or code unit) at data[0], for stepping over text.
size_t character_length(DvbText::layout bytes, const uint8_t* data, size_t size) {
    size_t length = 1;
    if (bytes == DvbText::layout::ucs2 || (bytes == DvbText::layout::multi_byte && data[0] >= 0x80))
        length = 2;
    return std::min(length, size);
}

}  // namespace

DvbText::character_table DvbText::select_table(const uint8_t* data, size_t size) {
    if (size == 0 || data[0] >= 0x20)
        return {"ISO_6937", 0, layout::single_byte};
    const uint8_t selector = data[0];
    if (selector >= 0x01 && selector <= 0x0B)
        return {iso8859(selector + 4u), 1, layout::single_byte};
    switch (selector) {
    case 0x10:
        if (size < 3 || data[1] != 0x00)
            return {nullptr, std::min<size_t>(size, 3), layout::single_byte};
        return {iso8859(data[2]), 3, layout::single_byte};
    case 0x11: return {"UCS-2BE", 1, layout::ucs2};
    case 0x12: return {"EUC-KR", 1, layout::multi_byte};
    case 0x13: return {"GB2312", 1, layout::multi_byte};
    case 0x14: return {"BIG5", 1, layout::multi_byte};
    case 0x15: return {"UTF-8", 1, layout::utf8};
    case 0x1F: return {nullptr, std::min<size_t>(size, 2), layout::single_byte};  // encoding_type_id follows
    default: return {nullptr, 1, layout::single_byte};
    }
}

std::string DvbText::to_utf8(const uint8_t* data, size_t size) {
    if (!data || size == 0)
        return {};
    const character_table table = select_table(data, size);
    const uint8_t* text = data + table.selector_length;
    const size_t length = size - table.selector_length;
    if (length == 0)
        return {};
    if (!table.iconv_name)
        return kReplacement;
    converter convert(table.iconv_name);
    if (!convert.valid())
        return kReplacement;

    const size_t unit = table.bytes == layout::ucs2 ? 2 : 1;
    std::string out;
    size_t runStart = 0;
    for (size_t i = 0; i < length;) {
        uint8_t code = 0;
        const size_t controlLength = control_code(table.bytes, text + i, length - i, code);
        if (controlLength == 0) {
            i += character_length(table.bytes, text + i, length - i);
            continue;
        }
        convert.append(text + runStart, i - runStart, unit, out);
        if (code == 0x8A)
            out += '\n';
        i += controlLength;
        runStart = i;
    }
    convert.append(text + runStart, length - runStart, unit, out);
    return out;
}

}  // namespace mpegcore
