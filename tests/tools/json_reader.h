#pragma once
// A strict reader for the JSON the tools print: objects, arrays, strings
// (with \uXXXX escapes), unsigned and signed integers, decimals, true, false
// and null. parse() fails on anything else, trailing text included.

#include <cstdint>
#include <cctype>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace vq_test {

struct json_value {
    enum class kind { null, boolean, number, string, array, object };

    kind type = kind::null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<json_value> items;
    std::map<std::string, json_value> members;

    bool has(const std::string& key) const { return members.count(key) != 0; }
    // The member, or a null value when absent.
    const json_value& operator[](const std::string& key) const {
        static const json_value missing;
        const auto found = members.find(key);
        return found == members.end() ? missing : found->second;
    }
    uint64_t u64() const { return static_cast<uint64_t>(number); }
};

class json_reader {
public:
    // False when `text` is not exactly one JSON value (surrounding spaces allowed).
    static bool parse(const std::string& text, json_value& out) {
        json_reader reader(text);
        reader.skipSpace();
        if (!reader.value(out, 0))
            return false;
        reader.skipSpace();
        return reader.m_pos == text.size();
    }

private:
    explicit json_reader(const std::string& text) : m_text(text) {}

    bool value(json_value& out, int depth) {
        if (depth > 64 || m_pos >= m_text.size())
            return false;
        const char c = m_text[m_pos];
        if (c == '{')
            return object(out, depth);
        if (c == '[')
            return array(out, depth);
        if (c == '"') {
            out.type = json_value::kind::string;
            return string(out.text);
        }
        if (literal("true")) {
            out.type = json_value::kind::boolean;
            out.boolean = true;
            return true;
        }
        if (literal("false")) {
            out.type = json_value::kind::boolean;
            return true;
        }
        if (literal("null"))
            return true;
        return number(out);
    }

    bool object(json_value& out, int depth) {
        out.type = json_value::kind::object;
        ++m_pos;
        skipSpace();
        if (consume('}'))
            return true;
        do {
            skipSpace();
            std::string key;
            if (m_pos >= m_text.size() || m_text[m_pos] != '"' || !string(key))
                return false;
            skipSpace();
            if (!consume(':'))
                return false;
            skipSpace();
            json_value member;
            if (!value(member, depth + 1) || out.members.count(key))
                return false;  // duplicate keys are a fault of the writer
            out.members.emplace(key, std::move(member));
            skipSpace();
        } while (consume(','));
        return consume('}');
    }

    bool array(json_value& out, int depth) {
        out.type = json_value::kind::array;
        ++m_pos;
        skipSpace();
        if (consume(']'))
            return true;
        do {
            skipSpace();
            json_value item;
            if (!value(item, depth + 1))
                return false;
            out.items.push_back(std::move(item));
            skipSpace();
        } while (consume(','));
        return consume(']');
    }

    bool string(std::string& out) {
        ++m_pos;  // the opening quote
        while (m_pos < m_text.size()) {
            const unsigned char c = static_cast<unsigned char>(m_text[m_pos++]);
            if (c == '"')
                return true;
            if (c < 0x20)
                return false;
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (m_pos >= m_text.size())
                return false;
            const char e = m_text[m_pos++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                if (m_pos + 4 > m_text.size())
                    return false;
                const std::string hex = m_text.substr(m_pos, 4);
                char* end = nullptr;
                const unsigned long code = std::strtoul(hex.c_str(), &end, 16);
                if (end != hex.c_str() + 4)
                    return false;
                m_pos += 4;
                appendUtf8(out, static_cast<unsigned>(code));
                break;
            }
            default: return false;
            }
        }
        return false;
    }

    bool number(json_value& out) {
        const size_t start = m_pos;
        if (m_pos < m_text.size() && m_text[m_pos] == '-')
            ++m_pos;
        const size_t digits = m_pos;
        while (m_pos < m_text.size() && std::isdigit(static_cast<unsigned char>(m_text[m_pos])))
            ++m_pos;
        if (m_pos == digits)
            return false;
        if (m_pos < m_text.size() && m_text[m_pos] == '.') {
            ++m_pos;
            const size_t fraction = m_pos;
            while (m_pos < m_text.size() && std::isdigit(static_cast<unsigned char>(m_text[m_pos])))
                ++m_pos;
            if (m_pos == fraction)
                return false;
        }
        out.type = json_value::kind::number;
        out.number = std::strtod(m_text.substr(start, m_pos - start).c_str(), nullptr);
        return true;
    }

    bool literal(const char* word) {
        const std::string w(word);
        if (m_text.compare(m_pos, w.size(), w) != 0)
            return false;
        m_pos += w.size();
        return true;
    }

    bool consume(char c) {
        if (m_pos < m_text.size() && m_text[m_pos] == c) {
            ++m_pos;
            return true;
        }
        return false;
    }

    void skipSpace() {
        while (m_pos < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_pos])))
            ++m_pos;
    }

    static void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    const std::string& m_text;
    size_t m_pos = 0;
};

}  // namespace vq_test
