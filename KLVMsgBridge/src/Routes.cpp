#include "Routes.h"

#include <algorithm>

#include "Text.h"

namespace {

constexpr std::size_t kMostFound = 10000;

// Parts between dots, none of them empty; wildcards only where they may be.
void CheckSubject(const std::string& subject, bool mayHaveWildcards) {
    const bool isPlain = std::all_of(subject.begin(), subject.end(),
                                     [](char one) { return one > ' ' && one != '\x7f'; });
    const bool hasWildcards = subject.find_first_of("*>") != std::string::npos;
    if (!isPlain || subject.empty() || subject.front() == '.' || subject.back() == '.' ||
        subject.find("..") != std::string::npos || (hasWildcards && !mayHaveWildcards)) {
        throw UsageError("no subject that can be used here: '" + subject + "'");
    }
}

}  // namespace

void Routes::AddOutward(const std::string& text) {
    const auto [type, subject] = SplitAssignment(text, "TYPE=SUBJECT");
    CheckSubject(subject, true);
    if (subject.find('>') != std::string::npos ||
        std::count(subject.begin(), subject.end(), '*') > 1) {
        throw UsageError("one * at the most stands for the type: '" + subject + "'");
    }
    m_found.clear();
    if (!m_outwards.emplace(type, subject).second) {
        throw UsageError("messages of " + type + " have a subject already");
    }
}

void Routes::AddInward(const std::string& text) {
    auto [subject, label] = SplitAssignment(text, "SUBJECT=LABEL");
    CheckSubject(subject, true);
    m_inwards.push_back({std::move(subject), std::move(label)});
}

void Routes::SetPrefix(const std::string& prefix) {
    CheckSubject(prefix + "x", false);
    m_prefix = prefix;
}

const std::string& Routes::Subject(const std::string& type) {
    const auto known = m_found.find(type);
    if (known != m_found.end()) {
        return known->second;
    }
    if (m_found.size() >= kMostFound) {
        m_found.clear();  // peers make up names
    }
    auto route = m_outwards.find(type);
    route = route == m_outwards.end() ? m_outwards.find("*") : route;
    std::string subject;
    if (route != m_outwards.end()) {
        subject = m_prefix + route->second;
        if (const std::size_t star = subject.find('*'); star != std::string::npos) {
            subject.replace(star, 1, Token(type));
        }
    }
    return m_found[type] = subject;
}

std::map<std::string, std::string> Routes::Outwards() const {
    std::map<std::string, std::string> all = m_outwards;
    for (auto& [type, subject] : all) {
        subject.insert(0, m_prefix);
    }
    return all;
}

std::string Routes::Token(std::string_view type) {
    std::string token(type);
    for (char& one : token) {
        const bool isPlain = one > ' ' && one < '\x7f' && one != '.' && one != '*' && one != '>';
        one = isPlain ? one : '_';
    }
    return token;
}

std::string Routes::TypeOf(std::string_view subject) {
    return std::string(subject.substr(subject.rfind('.') + 1));
}

bool Routes::Covers(std::string_view wide, std::string_view narrow) {
    const std::vector<std::string> all = Split(wide, '.'), some = Split(narrow, '.');
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (all[i] == ">") {
            return i < some.size();
        }
        if (i >= some.size() || (all[i] == "*" ? some[i] == ">" : all[i] != some[i])) {
            return false;
        }
    }
    return all.size() == some.size();
}
