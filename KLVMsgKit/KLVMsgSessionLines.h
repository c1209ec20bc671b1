// For the kit's own headers: the bytes of a session's connections. No transfer stands still for ever,
// and two processes that write at the same time do not wait for each other.
//
// Used by the session's driver alone, the only thread that closes its connections.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "KLVMsgOutcome.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgTimeLimit.h"

// What the driver knows of one connection.
struct KLVMsgSessionLine {
    KLVMsgPeer peer;            // whose connection it is
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
        short events = KLVMsgSessionSockets::Await(number, POLLOUT, {});
        const auto limit = KLVMsgTimeLimit::Clock::now() + m_stall;
        while (events == 0 && KLVMsgTimeLimit::Clock::now() < limit) {
            events = AwaitRoomOrBytes(number, limit);
        }
        return events == POLLOUT;
    }

    // Bytes of the connection, those first that were read ahead; waits up to the stall for some.
    int Read(int number, char* buffer, int length) {
        KLVMsgSessionLine* const line = Find(number);
        if (line == nullptr || length <= 0) {
            return 0;
        }
        const std::size_t wanted = static_cast<std::size_t>(length);
        if (!line->ahead.empty()) {
            return TakeAhead(*line, buffer, wanted);
        }
        ssize_t count = recv(number, buffer, wanted, MSG_DONTWAIT);
        if (count == -1 && errno == EAGAIN) {
            // The system wakes nobody for fewer bytes than the connection's low water.
            SetLowWater(number, 1);
            KLVMsgSessionSockets::Await(number, POLLIN, KLVMsgTimeLimit::Clock::now() + m_stall);
            count = recv(number, buffer, wanted, MSG_DONTWAIT);
            SetLowWater(number, line->lowWater);
        }
        line->inputBroken = line->inputBroken || count <= 0;
        return static_cast<int>(count);
    }

    // Exactly so many bytes; false when the connection ended, or stood still, before.
    bool ReadAll(int number, void* field, std::size_t length) {
        char* const bytes = static_cast<char*>(field);
        for (std::size_t done = 0; done < length;) {
            const int count = Read(number, bytes + done, static_cast<int>(length - done));
            if (count <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    // True when all bytes were taken. What is written next begins in a segment of its own, so that a
    // peer which reads a header as it comes finds it whole.
    bool Write(int number, const char* data, std::size_t length) {
        while (length != 0) {
            const ssize_t sent = send(number, data, length, MSG_NOSIGNAL | MSG_DONTWAIT | MSG_EOR);
            if (sent == -1 && errno != EINTR &&
                ((errno != EAGAIN && errno != EWOULDBLOCK) || !AwaitRoom(number))) {
                return false;
            }
            data += std::max<ssize_t>(sent, 0);
            length -= static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
        }
        return true;
    }

    // While it is on, header and body gather until a segment is full.
    static void Cork(int number, bool on) {
        const int value = on ? 1 : 0;
        setsockopt(number, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
    }

    // From now on waits find the connection readable when so many bytes have come, or its end.
    void ReadableFrom(int number, int bytes) {
        KLVMsgSessionLine* const line = Find(number);
        if (line != nullptr && line->lowWater != bytes) {
            line->lowWater = bytes;
            SetLowWater(number, bytes);
        }
    }

    std::map<int, KLVMsgSessionLine>& All() { return m_lines; }

private:
    static void SetLowWater(int number, int bytes) {
        setsockopt(number, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
    }

    // The events of the connection, none while it only brings bytes or other ones do.
    short AwaitRoomOrBytes(int number, KLVMsgTimeLimit::Clock::time_point limit) {
        std::vector<pollfd> asked = {{number, POLLOUT, 0}};
        for (const auto& [other, line] : m_lines) {
            if (!line.aheadEnded) {
                asked.push_back({other, POLLIN, 0});
            }
        }
        poll(asked.data(), asked.size(), KLVMsgSessionSockets::Left(limit));
        for (std::size_t i = 1; asked[0].revents == 0 && i < asked.size(); ++i) {
            if (asked[i].revents != 0) {
                ReadAhead(asked[i].fd, m_lines[asked[i].fd]);
            }
        }
        return asked[0].revents;
    }

    static int TakeAhead(KLVMsgSessionLine& line, char* buffer, std::size_t wanted) {
        const std::size_t count = std::min(line.ahead.size() - line.taken, wanted);
        std::memcpy(buffer, line.ahead.data() + line.taken, count);
        line.taken += count;
        if (line.taken == line.ahead.size()) {
            std::string().swap(line.ahead);
            line.taken = 0;
        }
        return static_cast<int>(count);
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
