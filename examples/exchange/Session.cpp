#include "Session.h"

#include <algorithm>

Session::Session() {
    const auto registerAll = [this](auto&... prototypes) {
        for (KLVMsgSocketMessage* const prototype :
             {static_cast<KLVMsgSocketMessage*>(&prototypes)...}) {
            m_library.Register(*prototype);
        }
    };
    std::apply(registerAll, m_prototypes);
}

void Session::Post(const char* label, std::unique_ptr<KLVMsgSocketMessage> message) {
    unsigned int id = 0;  // stays 0, which is never pending here, when nobody has the label
    Communicator().ISendSocketMessage(label, message.get(), id);
    m_posted.emplace_back(id, std::move(message));
}

void Session::DropWritten() {
    const auto written = [](auto& posted) {
        return !Communicator().QueryPendingStatus(posted.first);
    };
    m_posted.erase(std::remove_if(m_posted.begin(), m_posted.end(), written), m_posted.end());
}
