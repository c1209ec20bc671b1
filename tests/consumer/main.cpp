// Both ends of one connection in one process: a number goes out as a message and comes back in.
#include <KLVMsgCommModules.h>

#include <cstdio>

class Number : public KLVMsgSocketMessage {
public:
    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(&value, sizeof value, count);
        return 1;
    }
    int ReadMessage(KLVMsgInputStream* stream) override {
        int count = 0;
        stream->read(&value, sizeof value, count);
        return count == sizeof value;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Number; }
    KLVString GetMessageType() const override { return "Number"; }

    int value = 0;
};

int main() {
    int modules = 0;
    KLVMsgCommModules_initialize(modules);
    auto* const registry = KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    auto* const communicator = KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();

    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(4096);
    communicator->SetDefaultInputStream(&input);
    communicator->SetDefaultOutputStream(&output);
    Number prototype;
    communicator->RegisterMessagePrototype("Number", &prototype);

    KLVMsgServerSocket* const server = registry->StartServer(KLVMsgSocketAddress("", 0), 1);
    communicator->AddConnection(KLVMsgChannel(server, "entrance"), true);
    KLVMsgCommSocket* const client = registry->ConnectToServer(
        KLVMsgSocketAddress(), KLVMsgSocketAddress("", server->address.port));
    if (client == nullptr) {
        return 1;
    }
    communicator->AddConnection(KLVMsgChannel(client, "server"), false);

    communicator->PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);

    Number sent;
    sent.value = 4711;
    communicator->SendSocketMessage("server", &sent);
    KLVMsgMessageQueryByType numbers("Number");
    KLVBasVector<KLVMsgSocketMessage*> received;
    communicator->RetrieveMessages(&numbers, received);
    const int value = static_cast<Number*>(received[0])->value;
    delete received[0];

    communicator->ShutdownMessageTask();
    thread.Join();
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
    KLVMsgCommModules_finalize(modules);
    std::printf("received %d, %d modules up\n", value, modules);
    return value == 4711 && modules == 0 ? 0 : 1;
}
