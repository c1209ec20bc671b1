#include "KLVMsgMessageTask.h"

#include "KLVBasUtlsleep.h"
#include "KLVMsgSocketCommunicator.h"

static const int waitMilliseconds = 20;
static const unsigned sleepMilliseconds = 100;

static KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

KLVMsgMessageTask::KLVMsgMessageTask() = default;

KLVMsgMessageTask::~KLVMsgMessageTask() = default;

int KLVMsgMessageTask::Run(int) {
    while (!Communicator().IsOkToShutDownMessageTask()) {
        Communicator().WaitConnectionsAndMessages(nullptr, waitMilliseconds);
        Communicator().TransmitPendingMessage();
        KLVBasUtlsleep(sleepMilliseconds);
    }
    return 1;
}
