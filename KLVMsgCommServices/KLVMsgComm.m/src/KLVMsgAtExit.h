// For the library's own sources: what is to be done at the end of a scope, however that is left.
#pragma once

#include <utility>

// Runs an action, which throws nothing, when it ends.
template <class Action>
class KLVMsgAtExit {
public:
    explicit KLVMsgAtExit(Action action) : m_action(std::move(action)) {}
    ~KLVMsgAtExit() { m_action(); }
    KLVMsgAtExit(const KLVMsgAtExit&) = delete;
    KLVMsgAtExit& operator=(const KLVMsgAtExit&) = delete;

private:
    const Action m_action;
};
