#include "BodyRules.h"

#include <regex>

#include "Text.h"

std::size_t BodyRule::Size(std::string_view start) const {
    std::size_t length = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const std::size_t place = isBigEndian ? i : width - 1 - i;
        length = length << 8 | static_cast<unsigned char>(start[offset + place]);
    }
    return fixed + Prefix() + length;
}

void BodyRules::Add(const std::string& text) {
    const std::string all = text[0] == '@' ? ReadFile(text.substr(1)) : text;
    for (const std::string& line : Split(all, '\n')) {
        for (const std::string& item : Split(line.substr(0, line.find('#')), ';')) {
            const std::string_view rule = Trimmed(item);
            const bool isForDecoders = rule.substr(0, 7) == "decode " ||
                                       rule.substr(0, 6) == "proto " ||
                                       rule.substr(0, 5) == "text ";
            if (!rule.empty() && !isForDecoders) {
                const auto [type, form] = SplitAssignment(std::string(rule), "TYPE=RULE");
                AddOne(std::string(Trimmed(type)), std::string(Trimmed(form)));
            }
        }
    }
}

void BodyRules::AddOne(const std::string& type, std::string text) {
    // What the content is does not matter here.
    text = std::regex_replace(text, std::regex(R"(\s+protobuf\([^)]*\)$)"), "");
    text = std::regex_replace(text, std::regex(R"(\s+call$)"), "");
    static const std::regex length(R"(length\(\s*(\d{1,9})\s*,\s*([1248])\s*,\s*(little|big)\s*)"
                                   R"((?:,\s*(\d{1,9})\s*)?\))");
    std::smatch found;
    BodyRule rule;
    if (std::regex_match(text, std::regex(R"(\d{1,9})"))) {
        rule.fixed = std::stoul(text);
    } else if (std::regex_match(text, found, length)) {
        rule.offset = std::stoul(found[1]);
        rule.width = std::stoul(found[2]);
        rule.isBigEndian = found[3] == "big";
        rule.fixed = found[4].length() == 0 ? 0 : std::stoul(found[4]);
    } else {
        throw UsageError(type + ": neither a size nor length(OFFSET,WIDTH,little|big[,MORE]): '" +
                         text + "'");
    }
    const bool isFramed = rule.width == 4 && rule.offset == 0 && rule.fixed == 0 &&
                          rule.isBigEndian == (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__);
    if (isFramed) {
        m_rules.erase(type);
    } else if (type == "*") {
        throw UsageError("types without a rule of their own are framed, and cannot be " + text);
    } else {
        m_rules[type] = rule;
    }
}

const BodyRule* BodyRules::Of(const std::string& type) const {
    const auto found = m_rules.find(type);
    return found == m_rules.end() ? nullptr : &found->second;
}
