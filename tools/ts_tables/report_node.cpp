#include "report_node.h"

#include <cstdio>

report_node report_node::array() {
    report_node node;
    node.m_kind = kind::array;
    return node;
}

report_node report_node::text(std::string value) {
    report_node node;
    node.m_kind = kind::text;
    node.m_text = std::move(value);
    return node;
}

report_node report_node::number(uint64_t value, unsigned hexDigits, std::string name) {
    report_node node;
    node.m_kind = kind::number;
    node.m_number = value;
    node.m_hexDigits = hexDigits;
    node.m_text = std::move(name);
    return node;
}

report_node& report_node::add(const std::string& key, report_node value) {
    m_members.emplace_back(key, std::move(value));
    return m_members.back().second;
}

report_node& report_node::push(report_node value) {
    m_members.emplace_back(std::string(), std::move(value));
    return m_members.back().second;
}

nlohmann::ordered_json report_node::to_json() const {
    switch (m_kind) {
    case kind::number: return m_number;
    case kind::text: return m_text;
    case kind::array: {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const auto& member : m_members)
            out.push_back(member.second.to_json());
        return out;
    }
    case kind::object: break;
    }
    nlohmann::ordered_json out = nlohmann::ordered_json::object();
    for (const auto& member : m_members) {
        out[member.first] = member.second.to_json();
        if (member.second.m_kind == kind::number && !member.second.m_text.empty())
            out[member.first + "_name"] = member.second.m_text;
    }
    return out;
}

std::string report_node::scalar_text() const {
    if (m_kind == kind::text)
        return m_text;
    std::string out = std::to_string(m_number);
    if (m_hexDigits > 0) {
        char hex[24];
        std::snprintf(hex, sizeof hex, " (0x%0*llX)", static_cast<int>(m_hexDigits),
                      static_cast<unsigned long long>(m_number));
        out += hex;
    }
    if (!m_text.empty())
        out += " [" + m_text + "]";
    return out;
}

void report_node::to_text(std::ostream& out, unsigned indent) const { write_text(out, indent, std::string()); }

void report_node::write_text(std::ostream& out, unsigned indent, const std::string& firstLead) const {
    const std::string pad(indent, ' ');
    const bool isArray = m_kind == kind::array;
    bool first = true;
    for (const auto& member : m_members) {
        const std::string start = first && !firstLead.empty() ? firstLead : pad;
        first = false;
        const report_node& value = member.second;
        const std::string lead = isArray ? start + "- " : start + member.first + ": ";
        if (value.is_scalar())
            out << lead << value.scalar_text() << '\n';
        else if (value.m_members.empty())
            out << lead << (value.m_kind == kind::array ? "(none)" : "") << '\n';
        else if (isArray && value.m_kind == kind::object)
            value.write_text(out, indent + 2, lead);  // "- key: value", the rest aligned under it
        else {
            out << (isArray ? start + "-" : start + member.first + ":") << '\n';
            value.write_text(out, indent + 2, std::string());
        }
    }
}
