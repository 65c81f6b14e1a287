// SPDX-License-Identifier: MIT

#pragma once

#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "osa/UniqueFd.h"
#include "osa/Wait.h"

namespace zarip::osa {

/// A connection that a server's loop holds.
class HeldConnection {
public:
    HeldConnection() = default;
    HeldConnection(const HeldConnection&) = delete;
    HeldConnection& operator=(const HeldConnection&) = delete;
    virtual ~HeldConnection() = default;

    UniqueFd fd;
    /// The number of the connection in the packet capture.
    unsigned short port = 0;
    /// What the server keeps for the connection: bytes read ahead, or an answer on its way out.
    std::string bytes;

private:
    friend class HeldConnections;
    using Places = std::multimap<MonotonicMs, std::unique_ptr<HeldConnection>>;

    Places::iterator _place;
    std::uint32_t _events = 0;
    std::size_t _counted = 0;
};

/// The connections of a server that wait for their peers. One wait covers all of them, the listening socket
/// and a wake-up. A held connection costs a descriptor and no thread.
///
/// The connections are kept in the order in which their times run out, so the first is the one to end next,
/// by time or to make room. An event leads to its connection without a search. `Open` is called once, before
/// all other functions.
///
/// *One thread at a time.*
class HeldConnections {
public:
    /// Throws SocketException "pipe failed" or "epoll_ctl failed: ...".
    /// @param listener, wakeUp  descriptors, *not owned*.
    void Open(int listener, int wakeUp);

    /// Ends the wait for the listening socket.
    void ForgetListener();

    /// Waits until a descriptor is ready, the time of a connection has run out, or `until`.
    void Wait(MonotonicMs until = kNever);

    enum class Ready { kNothing, kListener, kWakeUp, kConnection };

    /// Takes the next descriptor that the last wait has found ready. `connection` is set with `kConnection`
    /// only.
    Ready Next(HeldConnection*& connection);

    /// Keeps a connection, *takes ownership*, and waits for it.
    /// @param events  of epoll.
    /// Throws SocketException "epoll_ctl failed: ..."; the connection is then closed.
    void Hold(std::unique_ptr<HeldConnection> connection, std::uint32_t events, MonotonicMs until);

    /// Changes the events and the time. Also to be called when the connection's bytes have changed. Throws as
    /// `Hold`; the connection is then still held.
    void Rearm(HeldConnection& connection, std::uint32_t events, MonotonicMs until);

    /// Removes a connection; the *caller owns* it.
    std::unique_ptr<HeldConnection> Release(HeldConnection& connection);

    /// Closes a connection if it is still held. This takes a search.
    void Drop(const HeldConnection* connection);

    /// The connection whose time runs out first, or null. *Not owned.*
    HeldConnection* GetFirst() const;
    /// The same if its time has run out by now.
    HeldConnection* GetExpired(MonotonicMs now) const;
    /// The connection with the most bytes, or null; of several, the one that ends first. *Not owned.*
    HeldConnection* GetLargest() const;

    std::size_t GetCount() const { return _places.size(); }
    /// The bytes of all connections.
    std::size_t GetBytes() const { return _bytes; }
    /// How many connections may be held: 1,000, and no more than half of the descriptors that the process may
    /// open, so that other code gets some.
    std::size_t GetLimit() const { return _limit; }

    /// Calls `function(connection)` for each connection; it may release that one.
    template <class Function>
    void ForEach(Function function) {
        for (auto place = _places.begin(); place != _places.end();) {
            function(*(place++)->second);
        }
    }

    /// Closes all connections.
    void Clear();

private:
    static constexpr int kMaxEvents = 64;

    void Control(int operation, HeldConnection& connection, std::uint32_t events) const;
    void Count(HeldConnection& connection);

    UniqueFd _epoll;
    int _listener = -1;
    std::size_t _limit = 0;
    HeldConnection::Places _places;
    std::size_t _bytes = 0;
    epoll_event _found[kMaxEvents] = {};
    int _foundCount = 0;
    int _next = 0;
};

}  // namespace zarip::osa
