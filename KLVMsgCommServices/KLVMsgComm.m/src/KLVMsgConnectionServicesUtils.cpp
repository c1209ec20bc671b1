#include "KLVMsgConnectionServicesUtils.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include "KLVMsgCommSocket.h"
#include "KLVMsgNotedNumbers.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketHold.h"
#include "KLVMsgSocketInternals.h"
#include "KLVMsgSocketMessage.h"
#include "mem_Allocation.h"

template class KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>;

using RegistryLock = KLVBasAtiGlobalSingletonLock<KLVMsgConnectionServicesUtils>;

// The length that stands before the type name.
using NameLength = unsigned int;
static_assert(sizeof(NameLength) == 4);

namespace {

struct KLVMsgFree {
    void operator()(void* block) const { mem_Free(block); }
};

using HeaderBuffer = std::unique_ptr<char, KLVMsgFree>;

}  // namespace

KLVMsgConnectionServicesUtils::KLVMsgConnectionServicesUtils() = default;

KLVMsgConnectionServicesUtils::~KLVMsgConnectionServicesUtils() = default;

int KLVMsgConnectionServicesUtils::AddConnection(KLVMsgSocket* socket) {
    const RegistryLock lock;
    if (m_connections.IsMember(socket->descriptor)) {
        return 0;
    }
    m_connections.Insert(socket->descriptor, socket);
    return 1;
}

KLVMsgSocket* KLVMsgConnectionServicesUtils::GetSocket(int number) {
    const RegistryLock lock;
    return Find(number);
}

bool KLVMsgConnectionServicesUtils::IsConnectionOpen(int number) {
    const RegistryLock lock;
    const KLVMsgSocket* const socket = Find(number);
    return socket != nullptr && !KLVMsgLoad(socket->closed);
}

void KLVMsgConnectionServicesUtils::RemoveConnection(int number) {
    KLVMsgSocket* const socket = Find(number);
    if (socket != nullptr) {
        // Held: a transfer may find its end and close the descriptor at any moment.
        const KLVMsgHeldSocket<KLVMsgSocket> held = KLVMsgHold(socket);
        socket->Shutdown();
        m_connections.Remove(number);
        KLVMsgSocketHold::Destroy(socket);
    }
}

void KLVMsgConnectionServicesUtils::ShutDownConnection(int number) {
    const RegistryLock lock;
    RemoveConnection(number);
}

KLVMsgServerSocket* KLVMsgConnectionServicesUtils::StartServer(KLVMsgSocketAddress address,
                                                               int backlog) {
    KLVMsgSocketHold::AwaitClosedListeners();  // the port may be that of one
    const RegistryLock lock;
    KLVMsgSocketOwner<KLVMsgServerSocket> socket(new KLVMsgServerSocket(address, backlog));
    if (socket->descriptor == -1) {
        return nullptr;
    }
    Register(socket.get());
    return socket.release();
}

KLVMsgCommSocket* KLVMsgConnectionServicesUtils::ConnectToServer(KLVMsgSocketAddress first,
                                                                 KLVMsgSocketAddress server) {
    int cause = 0;
    {
        const RegistryLock lock;
        KLVMsgSocketOwner<KLVMsgCommSocket> socket(new KLVMsgCommSocket(first));
        socket->Connect(server);
        if (socket->IsConnected()) {
            Register(socket.get());
            return socket.release();
        }
        cause = socket->lastError;
    }
    errno = cause;  // last: what tidies up may change it
    return nullptr;
}

void KLVMsgConnectionServicesUtils::SetName(int number, const KLVString& name) {
    const RegistryLock lock;
    if (!m_names.Insert(number, name)) {
        m_names.Get(number) = name;
    }
}

void KLVMsgConnectionServicesUtils::GetName(int number, KLVString& name) {
    const RegistryLock lock;
    if (m_names.IsMember(number)) {
        name = m_names.Get(number);
    }
}

int KLVMsgConnectionServicesUtils::SendMessageHeader(int number, const KLVString& typeName) {
    const RegistryLock lock;
    return SendMessageHeader_priv(number, typeName);
}

int KLVMsgConnectionServicesUtils::RetrieveMessageTypeFromSocket(int number, KLVString& typeName) {
    const RegistryLock lock;
    return RetrieveMessageTypeFromSocket_priv(number, typeName);
}

void KLVMsgConnectionServicesUtils::ReleaseHeaderBuffers(bool release) {
    const RegistryLock lock;
    m_releaseHeaderBuffers = release;
}

void KLVMsgConnectionServicesUtils::RegisterMessagePrototype(const KLVString& typeName,
                                                             KLVMsgSocketMessage* prototype) {
    const RegistryLock lock;
    m_prototypes.Insert(typeName, prototype);  // leaves the first one in its place
}

KLVMsgSocketMessage* KLVMsgConnectionServicesUtils::GetMsgInstance(const KLVString& typeName) {
    const RegistryLock lock;
    KLVMsgSocketMessage* const prototype = m_prototypes.Get(typeName);
    return prototype == nullptr ? nullptr : prototype->NewInstance();
}

bool KLVMsgConnectionServicesUtils::HasError(int number) {
    const RegistryLock lock;
    const KLVMsgSocket* const socket = Find(number);
    return socket != nullptr && KLVMsgLoad(socket->lastError) != 0;
}

void KLVMsgConnectionServicesUtils::ClearError(int number) {
    const RegistryLock lock;
    KLVMsgSocket* const socket = Find(number);
    if (socket != nullptr) {
        KLVMsgStore(socket->lastError, 0);
    }
}

void KLVMsgConnectionServicesUtils::GetLastErrorCode(int number, int& code) {
    const RegistryLock lock;
    const KLVMsgSocket* const socket = Find(number);
    if (socket != nullptr) {
        code = KLVMsgLoad(socket->lastError);
    }
}

// Requires, as everything below does: the lock is held.
KLVMsgSocket* KLVMsgConnectionServicesUtils::Find(int number) const {
    return static_cast<KLVMsgSocket*>(m_connections.Lookup(number));
}

// The system has given the number to this socket. So a socket that still stands there is gone for
// good, and with it what is known elsewhere under the number.
void KLVMsgConnectionServicesUtils::Register(KLVMsgSocket* socket) {
    KLVMsgNoteNumber(socket->descriptor);
    KLVMsgSocket* const replaced = Find(socket->descriptor);
    m_connections.Insert(socket->descriptor, socket);
    if (replaced != nullptr) {
        if (replaced->descriptor != socket->descriptor) {
            replaced->Shutdown();  // it was connected anew since, and has another one now
        }
        KLVMsgSocketHold::Destroy(replaced);
    }
}

bool KLVMsgConnectionServicesUtils::AddAccepted(KLVMsgCommSocket* socket) {
    if (const KLVMsgSocket* const entry = Find(socket->descriptor)) {
        if (!KLVMsgLoad(entry->closed)) {
            KLVMsgNoteNumber(socket->descriptor);
            return false;
        }
    }
    Register(socket);
    return true;
}

// The header of a message -------------------------------------------------------------------------

// Held: a transfer of another thread may find the connection's end and close the descriptor.
int KLVMsgConnectionServicesUtils::SendMessageHeader_priv(int number, const KLVString& typeName) {
    const auto socket = KLVMsgHold(KLVMsgAsStreamSocket(Find(number)));
    return socket == nullptr ? 0 : WriteHeader(*socket, typeName);
}

int KLVMsgConnectionServicesUtils::RetrieveMessageTypeFromSocket_priv(int number,
                                                                      KLVString& typeName) {
    const auto socket = KLVMsgHold(KLVMsgAsStreamSocket(Find(number)));
    return socket == nullptr ? 0 : ReadHeader(*socket, number, typeName);
}

int KLVMsgConnectionServicesUtils::WriteHeader(KLVMsgCommSocket& socket,
                                               const KLVString& typeName) {
    if (!KLVMsgLoad(socket.outputOpen)) {
        return 0;
    }
    const char* const text = typeName.Text();
    const int length = typeName.Length();
    char scratch[sizeof(NameLength)];
    std::memcpy(scratch, &length, sizeof scratch);

    KLVMsgStore(socket.lastError, 0);
    if (socket.write(scratch, sizeof scratch) != sizeof scratch) {
        return 0;
    }
    return socket.write(text, length) == length ? 1 : 0;
}

int KLVMsgConnectionServicesUtils::ReadHeader(KLVMsgCommSocket& socket, int number,
                                              KLVString& typeName) {
    if (!KLVMsgLoad(socket.inputOpen)) {
        return 0;
    }
    KLVMsgStore(socket.lastError, 0);
    const int length = ReadNameLength(socket, number);
    return length == 0 ? 0 : ReadName(socket, length, typeName);
}

// 0 when the length has not come whole, or is none that a name can have. A connection that is found
// lost here is removed.
// Keeps its buffer, unless these are to be released, when the length has not come whole.
int KLVMsgConnectionServicesUtils::ReadNameLength(KLVMsgCommSocket& socket, int number) {
    NameLength length = 0;
    HeaderBuffer scratch(static_cast<char*>(mem_OperatorNewThrowBuiltin(sizeof length)));
    const int count = socket.read(scratch.get(), sizeof length);
    if (count != sizeof length) {
        if (!m_releaseHeaderBuffers) {
            static_cast<void>(scratch.release());
        }
        if (count == -1 && !socket.IsConnected()) {
            RemoveConnection(number);
        }
        return 0;
    }
    std::memcpy(&length, scratch.get(), sizeof length);
    return length < INT_MAX ? static_cast<int>(length) : 0;  // with its zero byte it must be an int
}

// Keeps its buffer, unless these are to be released, when the name has come whole.
int KLVMsgConnectionServicesUtils::ReadName(KLVMsgCommSocket& socket, int length,
                                            KLVString& typeName) {
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    HeaderBuffer name(static_cast<char*>(mem_Malloc(size)));
    if (name == nullptr) {
        return 0;
    }
    name.get()[length] = '\0';
    if (socket.read(name.get(), length) != length) {
        return 0;
    }
    typeName = SharedTypeName(name.get());
    if (!m_releaseHeaderBuffers) {
        static_cast<void>(name.release());
    }
    return 1;
}

// A text that is no KLVString, and a key of m_prototypes, in the order of that map: negative when
// the text sorts first. A key with a zero byte in it sorts after the text before that byte.
static int Compare(const char* text, const KLVString& key) {
    const int order = std::strcmp(text, key.Text());
    return order != 0 ? order : static_cast<int>(std::strlen(text)) - key.Length();
}

// The text of a registered name is shared with its entry: receiving such a message copies none.
KLVString KLVMsgConnectionServicesUtils::SharedTypeName(const char* text) const {
    auto* type = m_prototypes.m_root;
    while (type != nullptr) {
        const int order = Compare(text, type->ConstGetKey());
        if (order == 0) {
            return type->ConstGetKey();
        }
        type = type->Slot(order);
    }
    return KLVString(text);
}
