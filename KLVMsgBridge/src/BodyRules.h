// For the bridge's own sources: how long the bodies are that are not framed.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

// A body of so many bytes, or of as many as a length in it tells.
struct BodyRule {
    // How many bytes have to be there to tell the size; and the size of the body that begins so.
    std::size_t Prefix() const { return offset + width; }
    std::size_t Size(std::string_view start) const;

    // Whether the bytes are one body, so that a receiver is not led astray.
    bool IsBody(std::string_view bytes) const {
        return bytes.size() >= Prefix() && bytes.size() == Size(bytes);
    }

    std::size_t fixed = 0;  // the size; where a length tells it, what that does not count
    std::size_t offset = 0;
    std::size_t width = 0;  // of the length; 0: there is none
    bool isBigEndian = false;
};

// By type, in the words of the other tools: "Tick=8;Hello=length(0,8,little,8)". Types that are
// framed have no rule.
class BodyRules {
public:
    // Adds rules; "@FILE" is a file of them. Throws UsageError, which names what has no such form,
    // or cannot be told apart from what comes behind it.
    void Add(const std::string& text);

    // The rule for a type; null for a framed one.
    const BodyRule* Of(const std::string& type) const;
    const std::map<std::string, BodyRule>& All() const { return m_rules; }

private:
    void AddOne(const std::string& type, std::string text);

    std::map<std::string, BodyRule> m_rules;
};
