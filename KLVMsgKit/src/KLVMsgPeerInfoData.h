// For the session's own sources: what stands behind KLVMsgPeerInfo. It may grow.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "KLVMsgEvent.h"
#include "KLVMsgPeer.h"

struct KLVMsgPeerInfoData {
    std::string host;
    int port = 0;
    std::string servedHost;
    int servedPort = 0;
    KLVMsgPeer peer;
    std::string label;
    std::vector<std::string> names;
    std::chrono::system_clock::time_point since;
    KLVMsgCounts counts;
};
