// For the kit's own headers: the bytes of a session's connections. No transfer stands still for
// ever, and two processes that write at the same time do not wait for each other.
//
// Whatever comes is taken from the system at once and waits here until it makes a header: pieces of
// a header do no harm then. A low-water mark on the socket would have them wait in the system,
// which has been seen to close its window behind them, so that the rest never came.
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
    std::size_t Ahead() const { return ahead.size() - taken; }
    const char* Next() const { return ahead.data() + taken; }

    void Take(std::size_t bytes) {
        taken += bytes;
        if (taken == ahead.size()) {
            std::string().swap(ahead);
            taken = 0;
        }
    }

    KLVMsgPeer peer;            // whose connection it is
    std::string ahead;          // what has come and was not yet asked for, behind what was
    std::size_t taken = 0;      // how much of it has been asked for
    std::size_t segment = 0;    // what one of its segments holds, in bytes
    std::size_t inSegment = 0;  // how much the latest segment holds at most, as far as it is small
    bool ended = false;         // nothing more will come
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

    std::map<int, KLVMsgSessionLine>& All() { return m_lines; }

    // Takes what has come, if anything has.
    static void Fill(int number, KLVMsgSessionLine& line) {
        char piece[16384];
        const ssize_t count = recv(number, piece, sizeof piece, MSG_DONTWAIT);
        if (count > 0) {
            line.ahead.erase(0, line.taken);
            line.taken = 0;
            line.ahead.append(piece, static_cast<std::size_t>(count));
        } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            line.ended = true;
        }
    }

    // Up to `length` bytes of a body; waits up to the stall for some. 0 when none have come.
    int Read(int number, char* buffer, int length) {
        KLVMsgSessionLine* const line = Find(number);
        if (line == nullptr || length <= 0) {
            return 0;
        }
        const std::size_t wanted = static_cast<std::size_t>(length);
        if (const std::size_t count = std::min(line->Ahead(), wanted); count != 0) {
            std::memcpy(buffer, line->Next(), count);
            line->Take(count);
            return static_cast<int>(count);
        }
        ssize_t count = recv(number, buffer, wanted, MSG_DONTWAIT);
        if (count == -1 && errno == EAGAIN) {
            KLVMsgSessionSockets::Await(number, POLLIN, KLVMsgTimeLimit::Clock::now() + m_stall);
            count = recv(number, buffer, wanted, MSG_DONTWAIT);
        }
        line->inputBroken = line->inputBroken || count <= 0;
        return static_cast<int>(std::max<ssize_t>(count, 0));
    }

    // Waits until the connection takes bytes, and reads meanwhile what comes on any: the peer may
    // be waiting for just that. False when it has failed or stood still for too long.
    bool AwaitRoom(int number) {
        short events = KLVMsgSessionSockets::Await(number, POLLOUT, {});
        const auto limit = KLVMsgTimeLimit::Clock::now() + m_stall;
        while (events == 0 && KLVMsgTimeLimit::Clock::now() < limit) {
            events = AwaitRoomOrBytes(number, limit);
        }
        return events == POLLOUT;
    }

    // True when all bytes were taken. So that a peer which reads a header as it comes finds it
    // whole, what follows begins a segment of its own when this one might have no room for a
    // header.
    bool Write(int number, const char* data, std::size_t length) {
        KLVMsgSessionLine& line = m_lines[number];
        line.inSegment += length;
        const int boundary = line.inSegment < line.segment / 2 ? 0 : MSG_EOR;
        line.inSegment = boundary == 0 ? line.inSegment : 0;
        while (length != 0) {
            const ssize_t sent = send(number, data, length, MSG_NOSIGNAL | MSG_DONTWAIT | boundary);
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

private:
    // The events of the connection, none while only bytes come.
    short AwaitRoomOrBytes(int number, KLVMsgTimeLimit::Clock::time_point limit) {
        std::vector<pollfd> asked = {{number, POLLOUT, 0}};
        for (const auto& [other, line] : m_lines) {
            if (!line.ended) {
                asked.push_back({other, POLLIN, 0});
            }
        }
        poll(asked.data(), asked.size(), KLVMsgSessionSockets::Left(limit));
        for (std::size_t i = 1; asked[0].revents == 0 && i < asked.size(); ++i) {
            if (asked[i].revents != 0) {
                Fill(asked[i].fd, m_lines[asked[i].fd]);
            }
        }
        return asked[0].revents;
    }

    std::map<int, KLVMsgSessionLine> m_lines;
    std::chrono::milliseconds m_stall;
};
