// For the bridge's own sources: small things about texts.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What makes no sense in the options; main prints it and ends with 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The parts between the separators; of an empty text none.
std::vector<std::string> Split(std::string_view text, char separator);

// Each as C functions take it, as long as the texts live.
std::vector<const char*> Pointers(const std::vector<std::string>& texts);

// Without the spaces around it.
std::string_view Trimmed(std::string_view text);

// What stands before the last equals sign, and behind it. Throws UsageError, with the form, where
// one of them is empty.
std::pair<std::string, std::string> SplitAssignment(const std::string& text, const char* form);

// Throws UsageError, with the name, for what is no number up to `most`.
unsigned long ParseNumber(const std::string& text, unsigned long most, const std::string& name);

// All of a file. Throws UsageError.
std::string ReadFile(const std::string& path);
