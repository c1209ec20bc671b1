// For applications: a session's counts as text, for those who watch many programs.
#pragma once

#include <string>
#include <vector>

#include "KLVMsgEvent.h"
#include "KLVMsgKitExport.h"
#include "KLVMsgQuestionCounts.h"

class KLVMsgSession;

// What one session, or some of its connections, have to tell.
struct KLVMsgMetrics {
    std::string name;                // of the session: the label "session"; none where it is empty
    KLVMsgCounts counts;             // as KLVMsgSession::Counts gives them
    KLVMsgQuestionCounts questions;  // as KLVMsgSession::Questions does
};

// In the text form that Prometheus scrapes (version 0.0.4, content type "text/plain"): for each
// metric HELP, TYPE and a line for each session. All sessions of a process go into one text, since
// a metric may stand there only once; their names differ.
KLVMSGKIT_EXPORT std::string KLVMsgMetricsText(const std::vector<KLVMsgMetrics>& sessions);

// The same for one session.
KLVMSGKIT_EXPORT std::string KLVMsgMetricsText(KLVMsgSession& session,
                                               const std::string& name = "");
