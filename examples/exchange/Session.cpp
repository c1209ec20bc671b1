#include "Session.h"

#include <algorithm>

Session::Session() {
    KLVMsgCommModules_initialize(m_modules);
    Registry();  // both singletons are made here, before there is a second thread
    Communicator().SetDefaultInputStream(&m_input);
    Communicator().SetDefaultOutputStream(&m_output);
    m_prototypes.emplace_back(new Hello);
    m_prototypes.emplace_back(new Chunk);
    m_prototypes.emplace_back(new Receipt);
    m_prototypes.emplace_back(new Report);
    m_prototypes.emplace_back(new Farewell);
    for (const auto& prototype : m_prototypes) {
        Communicator().RegisterMessagePrototype(prototype->GetMessageType().Text(),
                                                prototype.get());
    }
}

Session::~Session() {
    Communicator().ShutdownMessageTask();
    if (m_thread != nullptr) {
        m_thread->Join();
    }
    Take<Hello>(), Take<Chunk>(), Take<Receipt>(), Take<Report>(), Take<Farewell>();
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
    KLVMsgCommModules_finalize(m_modules);
}

void Session::Start() {
    Communicator().PrepareStartupMessageTask();
    m_thread = std::make_unique<KLVBasAtiThread>(m_task);
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
