// SPDX-License-Identifier: MIT

#include "osa/HeldConnections.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>

#include "osa/Errors.h"

namespace zarip::osa {

namespace {

constexpr std::size_t kMaxHeld = 1'000;
constexpr MonotonicMs kLongestWaitMs = 60'000;

std::size_t ReadLimit() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur / 2 < kMaxHeld
               ? static_cast<std::size_t>(limit.rlim_cur / 2)
               : kMaxHeld;
}

/// The data of the events for the two descriptors that are not connections.
HeldConnection* const kNoConnection = nullptr;
char s_wakeUp;

}  // namespace

void HeldConnections::Open(int listener, int wakeUp) {
    _epoll = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    if (!_epoll.IsValid() || wakeUp < 0) {
        throw SocketException("pipe failed", SocketException::SocketGeneralError);
    }
    _listener = listener;
    _limit = ReadLimit();
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = kNoConnection;
    epoll_event wake = event;
    wake.data.ptr = &s_wakeUp;
    if (::epoll_ctl(_epoll.Get(), EPOLL_CTL_ADD, listener, &event) != 0 ||
        ::epoll_ctl(_epoll.Get(), EPOLL_CTL_ADD, wakeUp, &wake) != 0) {
        ThrowErrno("epoll_ctl failed");
    }
}

void HeldConnections::ForgetListener() {
    if (_listener >= 0) {
        ::epoll_ctl(_epoll.Get(), EPOLL_CTL_DEL, _listener, nullptr);
        _listener = -1;
    }
}

void HeldConnections::Wait(MonotonicMs until) {
    until = _places.empty() ? until : std::min(until, _places.begin()->first);
    const MonotonicMs wait =
        until == kNever ? -1 : std::clamp<MonotonicMs>(until - NowMs(), 0, kLongestWaitMs);
    const int count = ::epoll_wait(_epoll.Get(), _found, kMaxEvents, static_cast<int>(wait));
    _foundCount = std::max(count, 0);
    _next = 0;
}

HeldConnections::Ready HeldConnections::Next(HeldConnection*& connection) {
    if (_next >= _foundCount) {
        return Ready::kNothing;
    }
    const epoll_event& found = _found[_next++];
    if (found.data.ptr == &s_wakeUp) {
        return Ready::kWakeUp;
    }
    if (found.data.ptr == kNoConnection) {
        // An event without flags belonged to a connection that was released meanwhile.
        return found.events != 0 ? Ready::kListener : Next(connection);
    }
    connection = static_cast<HeldConnection*>(found.data.ptr);
    return Ready::kConnection;
}

void HeldConnections::Control(int operation, HeldConnection& connection, std::uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.ptr = &connection;
    if (::epoll_ctl(_epoll.Get(), operation, connection.fd.Get(), &event) != 0) {
        ThrowErrno("epoll_ctl failed");
    }
    connection._events = events;
}

void HeldConnections::Count(HeldConnection& connection) {
    _bytes += connection.bytes.size() - connection._counted;
    connection._counted = connection.bytes.size();
}

void HeldConnections::Hold(std::unique_ptr<HeldConnection> connection, std::uint32_t events,
                           MonotonicMs until) {
    HeldConnection& held = *connection;
    Control(EPOLL_CTL_ADD, held, events);
    held._place = _places.emplace(until, std::move(connection));
    Count(held);
}

void HeldConnections::Rearm(HeldConnection& connection, std::uint32_t events, MonotonicMs until) {
    Count(connection);
    if (until != connection._place->first) {
        auto node = _places.extract(connection._place);
        node.key() = until;
        connection._place = _places.insert(std::move(node));
    }
    if (events != connection._events) {
        Control(EPOLL_CTL_MOD, connection, events);
    }
}

std::unique_ptr<HeldConnection> HeldConnections::Release(HeldConnection& connection) {
    ::epoll_ctl(_epoll.Get(), EPOLL_CTL_DEL, connection.fd.Get(), nullptr);
    for (int i = _next; i < _foundCount; ++i) {
        if (_found[i].data.ptr == &connection) {
            _found[i] = {};
        }
    }
    _bytes -= connection._counted;
    connection._counted = 0;
    return std::move(_places.extract(connection._place).mapped());
}

void HeldConnections::Drop(const HeldConnection* connection) {
    const auto place = std::find_if(_places.begin(), _places.end(),
                                    [connection](const auto& p) { return p.second.get() == connection; });
    if (place != _places.end()) {
        Release(*place->second);
    }
}

HeldConnection* HeldConnections::GetFirst() const {
    return _places.empty() ? nullptr : _places.begin()->second.get();
}

HeldConnection* HeldConnections::GetExpired(MonotonicMs now) const {
    return _places.empty() || _places.begin()->first > now ? nullptr : _places.begin()->second.get();
}

HeldConnection* HeldConnections::GetLargest() const {
    const auto largest = std::max_element(
        _places.begin(), _places.end(),
        [](const auto& left, const auto& right) { return left.second->_counted < right.second->_counted; });
    return largest == _places.end() ? nullptr : largest->second.get();
}

void HeldConnections::Clear() {
    _places.clear();
    _bytes = 0;
    _foundCount = 0;
}

}  // namespace zarip::osa
