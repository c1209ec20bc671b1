#include "BodyRules.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "Text.h"

namespace {

constexpr unsigned long kMost = 999999999;
constexpr std::string_view kLength = "length(";

[[noreturn]] void Refuse(const std::string& type, const std::string& text) {
    throw UsageError(type + ": neither a size nor length(OFFSET,WIDTH,little|big[,MORE]): '" +
                     text + "'");
}

void DropFrom(std::string& text, std::size_t place) {
    if (place != text.npos) {
        text = std::string(Trimmed(std::string_view(text).substr(0, place)));
    }
}

bool IsLength(const std::string& text) {
    return text.compare(0, kLength.size(), kLength) == 0 && text.back() == ')';
}

BodyRule Length(const std::string& type, const std::string& text) {
    const std::size_t size = text.size() - kLength.size() - 1;
    const std::vector<std::string> parts = Split(text.substr(kLength.size(), size), ',');
    const auto number = [&](std::size_t i) {
        return ParseNumber(std::string(Trimmed(parts[i])), kMost, type);
    };
    if (parts.size() != 3 && parts.size() != 4) {
        Refuse(type, text);
    }
    const std::string_view order = Trimmed(parts[2]);
    BodyRule rule;
    rule.offset = number(0);
    rule.width = number(1);
    rule.isBigEndian = order == "big";
    rule.fixed = parts.size() == 4 ? number(3) : 0;
    const bool isWidth = rule.width == 1 || rule.width == 2 || rule.width == 4 || rule.width == 8;
    if (!isWidth || (order != "big" && order != "little")) {
        Refuse(type, text);
    }
    return rule;
}

}  // namespace

std::size_t BodyRule::Size(std::string_view start) const {
    std::size_t length = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const std::size_t place = isBigEndian ? i : width - 1 - i;
        length = length << 8 | static_cast<unsigned char>(start[offset + place]);
    }
    const std::size_t rest = fixed + Prefix();
    return rest + std::min(length, std::numeric_limits<std::size_t>::max() - rest);
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
    DropFrom(text, !text.empty() && text.back() == ')' ? text.rfind(" protobuf(") : text.npos);
    DropFrom(text, text.size() > 5 && text.substr(text.size() - 5) == " call" ? text.size() - 5
                                                                              : text.npos);
    BodyRule rule;
    if (IsLength(text)) {
        rule = Length(type, text);
    } else if (text.find_first_not_of("0123456789") == text.npos) {
        rule.fixed = ParseNumber(text, kMost, type);
    } else {
        Refuse(type, text);
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
