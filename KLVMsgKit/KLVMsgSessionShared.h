// For the kit's own headers: where the application's threads and a session's driver meet.
//
// Invariants:
// - `mutex` guards all of it. It is never held while the driver waits, transfers or calls the
//   library, so that a time limit holds whatever a peer does.
// - A peer is in `peers` as long as its connection is there.
// - Every record that was queued comes to an end: its delivery counts it as sent or as failed.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include "KLVMsgOutcome.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgTimeLimit.h"

class KLVMsgSessionShared {
public:
    using Message = std::shared_ptr<KLVMsgSocketMessage>;

    struct Connection {
        std::string label;
        bool takes = true;  // false: it only has last words, and nothing is sent to it any more
    };

    // What has become of the records of one send.
    struct Delivery {
        int left = 0;
        bool failed = false;
    };

    struct Record {
        // Nobody waits for the delivery of a record that was posted.
        void Ends(bool sent) const {
            if (delivery != nullptr) {
                --delivery->left;
                delivery->failed = delivery->failed || !sent;
            }
        }

        KLVMsgPeer to;
        Message message;
        std::shared_ptr<Delivery> delivery;
    };

    struct Received {
        KLVMsgPeer from;
        std::string label;  // of the connection, when the message came
        std::unique_ptr<KLVMsgSocketMessage> message;
    };

    // A socket that is not yet the library's.
    struct Arrival {
        KLVMsgPeer peer;
        KLVMsgSessionSockets::StreamOwner stream;
        KLVMsgSessionSockets::ServerOwner server;
    };

    static KLVMsgOutcome Late() {
        return {KLVMsgOutcome::kTooLate, ETIMEDOUT, "the time was over"};
    }

    // Requires, as all that follow: the mutex is held.
    KLVMsgOutcome Gone() const {
        return {KLVMsgOutcome::kPeerGone, ENOTCONN, fault.empty() ? "the peer has gone" : fault};
    }

    std::vector<KLVMsgPeer> Find(const KLVMsgPeers& meant) const {
        std::vector<KLVMsgPeer> found;
        for (const auto& [peer, connection] : peers) {
            if (meant.Include(peer, connection.label)) {
                found.push_back(peer);
            }
        }
        return found;
    }

    // A new connection. False when the session has ended.
    bool Add(KLVMsgPeer& peer, const std::string& label) {
        peer.id = ++m_lastPeer;
        if (!ending) {
            peers[peer].label = label;
        }
        return !ending;
    }

    // Hands the driver a socket.
    void Hand(Arrival arrival) {
        arrivals.push_back(std::move(arrival));
        Wake();
    }

    // A record for each of those who are meant.
    KLVMsgOutcome Queue(const KLVMsgPeers& to, const Message& message,
                        const std::shared_ptr<Delivery>& delivery) {
        int count = 0;
        for (const auto& [peer, connection] : peers) {
            if (connection.takes && !ending && to.Include(peer, connection.label)) {
                queue.push_back({peer, message, delivery});
                ++count;
            }
        }
        if (delivery != nullptr) {
            delivery->left = count;
        }
        Wake();
        return count == 0 ? Gone() : KLVMsgOutcome();
    }

    // Takes back what the driver has not taken yet.
    void Withdraw(const Delivery& delivery) {
        const auto isOne = [&](const Record& record) { return record.delivery.get() == &delivery; };
        queue.erase(std::remove_if(queue.begin(), queue.end(), isOne), queue.end());
    }

    // The oldest message of a class, of anybody or of those who are meant; null when there is none.
    std::unique_ptr<KLVMsgSocketMessage> Take(std::type_index type, const KLVMsgPeers* from,
                                              KLVMsgPeer& sender) {
        auto& messages = inbox[type];
        const auto one =
            std::find_if(messages.begin(), messages.end(), [from](const Received& received) {
                return from == nullptr || from->Include(received.from, received.label);
            });
        if (one == messages.end()) {
            return nullptr;
        }
        sender = one->from;
        std::unique_ptr<KLVMsgSocketMessage> message = std::move(one->message);
        messages.erase(one);
        return message;
    }

    // Whether there is, or may be, somebody to receive from.
    bool MayCome(const KLVMsgPeers* from) const {
        if (from != nullptr) {
            return !Find(*from).empty();
        }
        return !peers.empty() || (listens && !ending);
    }

    // Ends the driver's wait, if it waits.
    void Wake() {
        if (asleep) {
            const char none[4] = {};
            asleep = send(wakeUp, none, sizeof none, MSG_DONTWAIT | MSG_NOSIGNAL) == -1;
        }
    }

    std::mutex mutex;
    std::condition_variable changed;  // told of every change of what follows
    std::map<KLVMsgPeer, Connection> peers;
    std::vector<Arrival> arrivals;  // to be given to the library
    std::deque<Record> queue;
    std::unordered_map<std::type_index, std::deque<Received>> inbox;
    bool listens = false;
    bool ending = false;                          // nothing is queued any more
    bool closed = false;                          // by all peers, when the session ended
    std::string fault;                            // why the driver has ended by itself
    KLVMsgTimeLimit::Clock::time_point endLimit;  // how long peers are waited for at the end

    int wakeUp = -1;      // the application's end
    bool asleep = false;  // somebody must wake the driver

private:
    unsigned long long m_lastPeer = 0;
};
