// For the bridge's own sources: what goes where.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// From types to subjects and back. A "*" as the type means all that have no route of their own,
// and a "*" in its subject stands for the type's name.
class Routes {
public:
    // A subject of NATS, and the label of those who get what comes there.
    struct Inward {
        std::string subject;
        std::string label;
    };

    // Adds "TYPE=SUBJECT", and "SUBJECT=LABEL". Throws UsageError for what is no subject, and for
    // a type that has a route.
    void AddOutward(const std::string& text);
    void AddInward(const std::string& text);

    // Stands before every subject to which something goes. Throws UsageError.
    void SetPrefix(const std::string& prefix);

    // Where messages of a type go; empty: nowhere.
    const std::string& Subject(const std::string& type);

    // The subjects to which something may go, where need be with wildcards; by type.
    std::map<std::string, std::string> Outwards() const;
    const std::vector<Inward>& Inwards() const { return m_inwards; }

    // The name of a type as one part of a subject: "a.b c" is a_b_c.
    static std::string Token(std::string_view type);

    // The type of a message without a name for it: the last part of its subject.
    static std::string TypeOf(std::string_view subject);

    // Whether all that has the one subject has the other, too, which may have wildcards.
    static bool Covers(std::string_view wide, std::string_view narrow);

private:
    std::string m_prefix;
    std::map<std::string, std::string> m_outwards;  // by type, without the prefix
    std::map<std::string, std::string> m_found;     // by type, of those that were asked for
    std::vector<Inward> m_inwards;
};
