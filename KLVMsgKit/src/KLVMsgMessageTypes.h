// For the session's own sources: the message types that a session knows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "KLVMsgSocketMessage.h"

// Filled before the session starts and not changed any more, so that every thread may read it.
class KLVMsgMessageTypes {
public:
    struct Type {
        std::string name;
        const std::type_info* kind;  // of the prototype's class
        std::unique_ptr<KLVMsgSocketMessage> prototype;
        bool framed;              // its body is a length and bytes, which wait for Decode
        std::size_t largestBody;  // of a framed one
        bool isCall = false;      // its body begins with the number of a question or an answer
        bool isAny = false;       // of every other name, which its parcels have too
        std::string header = {};  // on the wire: the name's length and the name; Add makes it
    };

    static constexpr std::uint32_t kNone = 0xffffffff;

    // Throws std::bad_alloc and leaves the table as it was.
    void Add(Type type) {
        m_types.reserve(m_types.size() + 1);
        const auto length = static_cast<std::uint32_t>(type.name.size());
        type.header.assign(reinterpret_cast<const char*>(&length), sizeof length);
        type.header += type.name;
        const auto number = static_cast<std::uint32_t>(m_types.size());
        if (type.isAny) {
            m_any = number;
        } else {
            m_numbers.emplace(type.name, number);
        }
        m_longestName = m_longestName < type.name.size() ? type.name.size() : m_longestName;
        m_types.push_back(std::move(type));
    }

    // The number of a type; kNone when there is none.
    std::uint32_t OfName(std::string_view name) const {
        const auto found = m_numbers.find(name);
        return found == m_numbers.end() ? kNone : found->second;
    }
    std::uint32_t OfClass(const std::type_info& kind) const {
        for (std::uint32_t number = 0; number < m_types.size(); ++number) {
            if (*m_types[number].kind == kind) {
                return number;
            }
        }
        return kNone;
    }

    // What every other name stands for; kNone when those are unknown.
    std::uint32_t Any() const { return m_any; }

    const Type& operator[](std::uint32_t number) const { return m_types[number]; }
    std::size_t Size() const { return m_types.size(); }
    std::size_t LongestName() const { return m_longestName; }

private:
    std::vector<Type> m_types;
    std::map<std::string, std::uint32_t, std::less<>> m_numbers;
    std::size_t m_longestName = 0;
    std::uint32_t m_any = kNone;
};
