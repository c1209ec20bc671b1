#include "KLVMsgModuleUse.h"

#include <mutex>

#include "KLVMsgCommModules_IF.h"

namespace {

struct Users {
    std::mutex mutex;
    int count = 0;
    int modules = 0;  // that are up, as the module itself counts them
};

// Never destroyed: a session may outlive other objects of static duration.
Users& TheUsers() {
    static auto* const users = new Users;
    return *users;
}

}  // namespace

KLVMsgModuleUse::KLVMsgModuleUse() {
    Users& users = TheUsers();
    const std::lock_guard<std::mutex> lock(users.mutex);
    if (users.count++ == 0) {
        KLVMsgCommModules_initialize(users.modules);
    }
}

KLVMsgModuleUse::~KLVMsgModuleUse() {
    Users& users = TheUsers();
    const std::lock_guard<std::mutex> lock(users.mutex);
    if (--users.count == 0) {
        KLVMsgCommModules_finalize(users.modules);
    }
}
