#include "Text.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

std::vector<std::string> Split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return parts;
}

std::vector<const char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<const char*> pointers;
    pointers.reserve(texts.size());
    for (const std::string& text : texts) {
        pointers.push_back(text.c_str());
    }
    return pointers;
}

std::string_view Trimmed(std::string_view text) {
    constexpr const char* spaces = " \t\r";
    const std::size_t first = text.find_first_not_of(spaces);
    return first == text.npos ? std::string_view()
                              : text.substr(first, text.find_last_not_of(spaces) - first + 1);
}

std::pair<std::string, std::string> SplitAssignment(const std::string& text, const char* form) {
    const std::size_t sign = text.rfind('=');
    if (sign == std::string::npos || sign == 0 || sign + 1 == text.size()) {
        throw UsageError("not of the form " + std::string(form) + ": '" + text + "'");
    }
    return {text.substr(0, sign), text.substr(sign + 1)};
}

unsigned long ParseNumber(const std::string& text, unsigned long most, const std::string& name) {
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 ||
        number > most) {
        throw UsageError(name + " is no number up to " + std::to_string(most) + ": '" + text + "'");
    }
    return number;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) {
        throw UsageError("cannot read " + path + ": " + std::strerror(errno));
    }
    return text;
}
