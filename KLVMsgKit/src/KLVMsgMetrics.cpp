#include "KLVMsgMetrics.h"

#include <cstdint>

#include "KLVMsgSession.h"

namespace {

struct Metric {
    const char* name;
    const char* help;
    std::uint64_t (*value)(const KLVMsgMetrics& of);
};

template <std::uint64_t KLVMsgCounts::*Member>
std::uint64_t Count(const KLVMsgMetrics& of) {
    return of.counts.*Member;
}
template <std::uint64_t KLVMsgQuestionCounts::*Member>
std::uint64_t Question(const KLVMsgMetrics& of) {
    return of.questions.*Member;
}

using Counts = KLVMsgCounts;
using Questions = KLVMsgQuestionCounts;

// Those whose names end with "_total" only grow.
const Metric kMetrics[] = {
    {"klvmsg_connections", "Connections that are there.", Count<&Counts::connections>},
    {"klvmsg_messages_sent_total", "Messages whose last byte was taken by the system.",
     Count<&Counts::messagesSent>},
    {"klvmsg_bytes_sent_total", "Bytes taken by the system.", Count<&Counts::bytesSent>},
    {"klvmsg_messages_received_total", "Messages that came whole.",
     Count<&Counts::messagesReceived>},
    {"klvmsg_bytes_received_total", "Bytes received.", Count<&Counts::bytesReceived>},
    {"klvmsg_messages_queued", "Messages not yet taken by the system.",
     Count<&Counts::messagesQueued>},
    {"klvmsg_bytes_queued", "Bytes not yet taken by the system.", Count<&Counts::bytesQueued>},
    {"klvmsg_messages_in_inbox", "Messages not yet asked for.", Count<&Counts::messagesInInbox>},
    {"klvmsg_bytes_in_inbox", "Bytes of messages not yet asked for.", Count<&Counts::bytesInInbox>},
    {"klvmsg_connections_stalled", "Connections on which no byte moves, though one is due.",
     Count<&Counts::stalled>},
    {"klvmsg_questions_total", "Questions taken for sending.", Question<&Questions::asked>},
    {"klvmsg_questions_answered_total", "Questions whose answer was handed over.",
     Question<&Questions::answered>},
    {"klvmsg_questions_too_late_total", "Questions not answered in time.",
     Question<&Questions::tooLate>},
    {"klvmsg_questions_failed_total", "Questions whose peer went, or sent too much.",
     Question<&Questions::failed>},
    {"klvmsg_questions_waiting", "Questions that wait for an answer.",
     Question<&Questions::waiting>},
    {"klvmsg_answers_dropped_total", "Answers for which nobody waited.",
     Question<&Questions::dropped>},
};

// A label's value stands in quotes.
std::string Escaped(const std::string& value) {
    std::string text;
    for (const char character : value) {
        if (character == '\\' || character == '"') {
            text += '\\';
        }
        text += character == '\n' ? std::string("\\n") : std::string(1, character);
    }
    return text;
}

}  // namespace

std::string KLVMsgMetricsText(const std::vector<KLVMsgMetrics>& sessions) {
    std::string text;
    for (const Metric& metric : kMetrics) {
        const std::string name = metric.name;
        const std::string end = "_total";
        const bool grows = name.size() > end.size() &&
                           name.compare(name.size() - end.size(), end.size(), end) == 0;
        text += "# HELP " + name + " " + metric.help + "\n";
        text += "# TYPE " + name + (grows ? " counter\n" : " gauge\n");
        for (const KLVMsgMetrics& one : sessions) {
            const std::string label =
                one.name.empty() ? "" : "{session=\"" + Escaped(one.name) + "\"}";
            text += name + label + " " + std::to_string(metric.value(one)) + "\n";
        }
    }
    return text;
}

std::string KLVMsgMetricsText(KLVMsgSession& session, const std::string& name) {
    return KLVMsgMetricsText({{name, session.Counts(), session.Questions()}});
}
