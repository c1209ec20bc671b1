// For the kit's own headers: the streams of a session, which hand the bodies of its messages to
// their connections' lines.
#pragma once

#include <cstddef>

#include "KLVMsgInputStream.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgSessionLines.h"

class KLVMsgSessionInput final : public KLVMsgInputStream {
public:
    explicit KLVMsgSessionInput(KLVMsgSessionLines& lines) : m_lines(lines) {}
    void read(void* buffer, int length, int& count) override {
        count = m_lines.Read(m_connectionNumber, static_cast<char*>(buffer), length);
    }

private:
    KLVMsgSessionLines& m_lines;
};

class KLVMsgSessionOutput final : public KLVMsgOutputStream {
public:
    explicit KLVMsgSessionOutput(KLVMsgSessionLines& lines) : m_lines(lines) {}
    void write(void* data, int length, int& count) override {
        KLVMsgSessionLine* const line = m_lines.Find(m_connectionNumber);
        if (line == nullptr || line->outputBroken || length < 0) {
            return;
        }
        if (m_lines.Write(m_connectionNumber, static_cast<char*>(data),
                          static_cast<std::size_t>(length))) {
            count += length;
        } else {
            line->outputBroken = true;
        }
    }

private:
    KLVMsgSessionLines& m_lines;
};
