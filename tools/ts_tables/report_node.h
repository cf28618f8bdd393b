#pragma once
// A small tree of named fields that the command-line tools print either as
// JSON (for scripts) or as indented text (for people).

#include <nlohmann/json.hpp>

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

class report_node {
public:
    enum class kind { number, text, object, array };

    // An empty object.
    report_node() = default;

    static report_node array();
    static report_node text(std::string value);
    // hexDigits > 0 shows the number in the text form as "0x.." of that width
    // after its decimal value; a non-empty name follows it in parentheses and
    // becomes a "<key>_name" member in JSON.
    static report_node number(uint64_t value, unsigned hexDigits = 0, std::string name = std::string());

    // Members of an object, in insertion order; returns the added member.
    report_node& add(const std::string& key, report_node value);
    report_node& add(const std::string& key, const std::string& value) { return add(key, text(value)); }
    report_node& add(const std::string& key, uint64_t value, unsigned hexDigits = 0, std::string name = std::string()) {
        return add(key, number(value, hexDigits, std::move(name)));
    }
    // Elements of an array; returns the added element.
    report_node& push(report_node value);

    bool empty() const { return m_members.empty(); }

    // The whole tree as JSON, members in insertion order.
    nlohmann::ordered_json to_json() const;
    // Object members as "key: value" lines, nested levels indented by two
    // spaces, array elements introduced by "- ".
    void to_text(std::ostream& out, unsigned indent = 0) const;

private:
    // Members as lines; the first line starts with firstLead instead of the indent.
    void write_text(std::ostream& out, unsigned indent, const std::string& firstLead) const;
    std::string scalar_text() const;
    bool is_scalar() const { return m_kind == kind::number || m_kind == kind::text; }

    kind m_kind = kind::object;
    uint64_t m_number = 0;
    unsigned m_hexDigits = 0;
    std::string m_text;                                          // the text, or a number's name
    std::vector<std::pair<std::string, report_node>> m_members;  // keys empty in arrays
};
