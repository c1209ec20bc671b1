// For the kit's own headers: the streams of a session, on which no transfer stands still for ever, and
// two processes that write at the same time do not wait for each other.
//
// They are used by the session's driver alone, the only thread that closes its connections.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "KLVMsgInputStream.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgSessionSockets.h"

// What the driver knows of one connection's bytes.
struct KLVMsgSessionLine {
    std::string ahead;          // what was read while a write stood still
    std::size_t taken = 0;      // how much of it the messages have had
    int lowWater = 1;           // how many bytes must have come for a wait to find it readable
    bool aheadEnded = false;    // there is no more to read ahead
    bool inputBroken = false;   // a body did not come to its end
    bool outputBroken = false;  // something was not taken whole: what follows would be out of step
};

// The lines by connection number.
class KLVMsgSessionLines {
public:
    explicit KLVMsgSessionLines(std::chrono::milliseconds stall) : m_stall(stall) {}

    KLVMsgSessionLine* Find(int number) {
        const auto found = m_lines.find(number);
        return found == m_lines.end() ? nullptr : &found->second;
    }

    // Waits until the connection takes bytes, and reads meanwhile what comes on any: the peer may be
    // waiting for just that. False when it has failed or stood still for too long.
    bool AwaitRoom(int number) {
        pollfd one = {number, POLLOUT, 0};
        if (poll(&one, 1, 0) == 1) {
            return (one.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
        }
        const auto limit = KLVMsgSessionSockets::Clock::now() + m_stall;
        while (KLVMsgSessionSockets::Clock::now() < limit) {
            std::vector<pollfd> asked = {{number, POLLOUT, 0}};
            for (const auto& [other, line] : m_lines) {
                if (!line.aheadEnded) {
                    asked.push_back({other, POLLIN, 0});
                }
            }
            poll(asked.data(), asked.size(), KLVMsgSessionSockets::Left(limit));
            if (asked[0].revents != 0) {
                return (asked[0].revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
            }
            for (std::size_t i = 1; i < asked.size(); ++i) {
                if (asked[i].revents != 0) {
                    ReadAhead(asked[i].fd, m_lines[asked[i].fd]);
                }
            }
        }
        return false;
    }

    // Bytes of the connection, those first that were read ahead; waits up to the stall for some.
    int Read(int number, char* buffer, int length) {
        KLVMsgSessionLine& line = m_lines[number];
        const std::size_t left = line.ahead.size() - line.taken;
        if (left != 0 && length > 0) {
            const std::size_t count = std::min(left, static_cast<std::size_t>(length));
            std::memcpy(buffer, line.ahead.data() + line.taken, count);
            line.taken += count;
            if (line.taken == line.ahead.size()) {
                std::string().swap(line.ahead);
                line.taken = 0;
            }
            return static_cast<int>(count);
        }
        const std::size_t wanted = static_cast<std::size_t>(std::max(length, 0));
        ssize_t count = recv(number, buffer, wanted, MSG_DONTWAIT);
        if (count == -1 && errno == EAGAIN) {
            // The system wakes nobody for fewer bytes than the connection's low water.
            SetLowWater(number, 1);
            KLVMsgSessionSockets::Await(number, POLLIN,
                                        KLVMsgSessionSockets::Clock::now() + m_stall);
            count = recv(number, buffer, wanted, MSG_DONTWAIT);
            SetLowWater(number, line.lowWater);
        }
        line.inputBroken = line.inputBroken || (count <= 0 && length > 0);
        return static_cast<int>(count);
    }

    // True when all bytes were taken.
    bool Write(int number, const char* data, std::size_t length) {
        while (length != 0) {
            const ssize_t sent = send(number, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent == -1 && errno != EINTR &&
                ((errno != EAGAIN && errno != EWOULDBLOCK) || !AwaitRoom(number))) {
                return false;
            }
            data += std::max<ssize_t>(sent, 0);
            length -= static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
        }
        return true;
    }

    // From now on waits find the connection readable when so many bytes have come, or its end.
    void ReadableFrom(int number, int bytes) {
        KLVMsgSessionLine& line = m_lines[number];
        if (line.lowWater != bytes) {
            line.lowWater = bytes;
            SetLowWater(number, bytes);
        }
    }

    std::map<int, KLVMsgSessionLine>& All() { return m_lines; }

private:
    static void SetLowWater(int number, int bytes) {
        setsockopt(number, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
    }

    // The end of the stream, and an error, are left for the next ordinary read to find.
    static void ReadAhead(int number, KLVMsgSessionLine& line) {
        char piece[65536];
        const ssize_t count = recv(number, piece, sizeof piece, MSG_DONTWAIT);
        if (count > 0) {
            line.ahead.append(piece, static_cast<std::size_t>(count));
        } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            line.aheadEnded = true;
        }
    }

    std::map<int, KLVMsgSessionLine> m_lines;
    std::chrono::milliseconds m_stall;
};

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
