// SPDX-License-Identifier: MIT

#include "msgbus/DBusWatcher.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

#include "osa/DescribeCaught.h"
#include "osa/Wait.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

constexpr char kQuit = 'q';
constexpr char kAttend = 'a';
constexpr int kGuardMs = 50;

const char* GetDirection(DBusWatch* watch) {
    switch (dbus_watch_get_flags(watch) & (DBUS_WATCH_READABLE | DBUS_WATCH_WRITABLE)) {
        case DBUS_WATCH_READABLE:
            return "reading";
        case DBUS_WATCH_WRITABLE:
            return "writing";
        default:
            return "reading and writing";
    }
}

unsigned int ToFlags(std::uint32_t events) {
    unsigned int flags = 0;
    if ((events & EPOLLIN) != 0) {
        flags |= DBUS_WATCH_READABLE;
    }
    if ((events & EPOLLOUT) != 0) {
        flags |= DBUS_WATCH_WRITABLE;
    }
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        // Without "readable", libdbus would drop the messages that arrived before the end.
        flags |= DBUS_WATCH_HANGUP | DBUS_WATCH_READABLE;
    }
    return flags;
}

bool AddTo(int epoll, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

DBusWatcher::DBusWatcher(core::Logger* logger, ReadyHandler ready)
    : _logger(logger),
      _ready(std::move(ready)),
      _dispatchAvailable(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    _watcherSet.epoll = osa::UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    _listenerSet.epoll = osa::UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    int ends[2] = {-1, -1};
    const int result = ::pipe2(ends, O_CLOEXEC | O_NONBLOCK);
    _commandRead = osa::UniqueFd(ends[0]);
    _commandWrite = osa::UniqueFd(ends[1]);
    if (result != 0 || !AddTo(_watcherSet.epoll.Get(), _commandRead.Get()) ||
        !AddTo(_listenerSet.epoll.Get(), _dispatchAvailable.Get())) {
        throw osa::Exception("pipe failed");
    }
}

void DBusWatcher::Run() {
    _logger->Debug("Run thread started");
    try {
        unsigned int lastHandled = 0;
        osa::MonotonicMs nextLook = osa::NowMs();
        while (!_isStopped) {
            bool isCommanded = false;
            const int timeout =
                _isGuarding
                    ? static_cast<int>(std::clamp<osa::MonotonicMs>(nextLook - osa::NowMs(), 0, kGuardMs))
                    : -1;
            const unsigned int flags =
                WaitIn(_watcherSet.epoll.Get(), _commandRead.Get(), timeout, isCommanded);
            const bool attend = isCommanded && ReadCommand() == kAttend;
            if ((flags != 0 || attend) && !_isStopped) {
                _ready(flags);
            }
            if (_isGuarding && osa::NowMs() >= nextLook) {
                GuardListener(lastHandled);
                nextLook = osa::NowMs() + kGuardMs;
            }
        }
    } catch (...) {
        _logger->Error("%s", osa::DescribeCaught());
    }
    _logger->Debug("Run thread shutting down");
}

/// Checks whether the handler that ran at the last check still runs, and reads in place of the listen thread
/// if so.
void DBusWatcher::GuardListener(unsigned int& lastHandled) {
    const unsigned int handled = _handled;
    if (handled != lastHandled) {
        lastHandled = handled;
    } else if (_isHandling) {
        const osa::MutexAutoLock lock(&_watchMutex);
        _isHelping = true;
        UpdateSets();
    } else {
        _isGuarding = false;
        if (_isHandling || _handled != handled) {
            _isGuarding = true;  // a handler has begun in between and may have found the flag still set
        }
    }
}

void DBusWatcher::BeginHandling() {
    _isHandling = true;
    if (!_isGuarding && !_isGuarding.exchange(true)) {
        Attend();
    }
}

void DBusWatcher::EndHandling() {
    _isHandling = false;
    ++_handled;
    if (_isHelping) {
        const osa::MutexAutoLock lock(&_watchMutex);
        _isHelping = false;
        UpdateSets();
    }
}

void DBusWatcher::Stop() {
    _isStopped = true;
    SendCommand(kQuit);
}

void DBusWatcher::Attend() {
    SendCommand(kAttend);
}

void DBusWatcher::SendCommand(char command) {
    // An error because the pipe is full is ignored: the thread is woken in any case.
    while (::write(_commandWrite.Get(), &command, 1) < 0 && errno == EINTR) {
    }
}

char DBusWatcher::ReadCommand() {
    char command = '\0';
    if (::read(_commandRead.Get(), &command, 1) != 1) {
        _logger->Error("read pipe failed");
    } else if (command != kQuit && command != kAttend) {
        _logger->Error("unknown command %c", command);
    }
    return command;
}

unsigned int DBusWatcher::Wait() {
    bool isWoken = false;
    const unsigned int flags = WaitIn(_listenerSet.epoll.Get(), _dispatchAvailable.Get(), -1, isWoken);
    if (isWoken) {
        eventfd_t ignored = 0;
        ::eventfd_read(_dispatchAvailable.Get(), &ignored);
    }
    return flags;
}

void DBusWatcher::Wake() {
    ::eventfd_write(_dispatchAvailable.Get(), 1);
}

unsigned int DBusWatcher::WaitIn(int epoll, int interrupt, int timeoutMs, bool& interrupted) {
    epoll_event events[2];
    const int count = ::epoll_wait(epoll, events, 2, timeoutMs);
    if (count < 0 && errno != EINTR) {
        throw osa::Exception("select returned -1");
    }
    unsigned int flags = 0;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.fd == interrupt) {
            interrupted = true;
        } else {
            flags |= ToFlags(events[i].events);
        }
    }
    return flags;
}

void DBusWatcher::GiveAway() {
    const osa::MutexAutoLock lock(&_watchMutex);
    _isGivenAway = true;
    UpdateSets();
}

void DBusWatcher::TakeBack() {
    const osa::MutexAutoLock lock(&_watchMutex);
    _isGivenAway = false;
    UpdateSets();
}

void DBusWatcher::Pause() {
    const osa::MutexAutoLock lock(&_watchMutex);
    ++_pauses;
    UpdateSets();
}

void DBusWatcher::Resume() {
    const osa::MutexAutoLock lock(&_watchMutex);
    --_pauses;
    UpdateSets();
}

int DBusWatcher::GetFd() {
    const osa::MutexAutoLock lock(&_watchMutex);
    return _fd;
}

void DBusWatcher::Attach(DBusConnection* connection) {
    if (dbus_connection_set_watch_functions(connection, &OnAdd, &OnRemove, &OnToggle, this, nullptr) ==
        FALSE) {
        throw osa::Exception("dbus_connection_set_watch_functions failed");
    }
}

void DBusWatcher::Detach(DBusConnection* connection) {
    dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
}

dbus_bool_t DBusWatcher::OnAdd(DBusWatch* watch, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    self->_logger->Trace("watching for %s on fd %d", GetDirection(watch), dbus_watch_get_unix_fd(watch));
    return self->ReplaceWatch(nullptr, watch) ? TRUE : FALSE;
}

void DBusWatcher::OnRemove(DBusWatch* watch, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    self->_logger->Trace("cancelling watch for %s on fd %d", GetDirection(watch),
                         dbus_watch_get_unix_fd(watch));
    self->ReplaceWatch(watch, nullptr);
}

/// Replaces a watch by another; either may be null, which is a free place. Returns false if `old` is not
/// found.
bool DBusWatcher::ReplaceWatch(DBusWatch* old, DBusWatch* replacement) {
    const osa::MutexAutoLock lock(&_watchMutex);
    const auto place = std::find(_watches.begin(), _watches.end(), old);
    if (place == _watches.end()) {
        return false;
    }
    *place = replacement;
    UpdateWanted();
    return true;
}

void DBusWatcher::OnToggle(DBusWatch* /*watch*/, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    const osa::MutexAutoLock lock(&self->_watchMutex);
    self->UpdateWanted();
}

void DBusWatcher::UpdateWanted() {
    _fd = -1;
    _wantsToRead = false;
    _wantsToWrite = false;
    for (DBusWatch* const watch : _watches) {
        if (watch == nullptr) {
            continue;
        }
        _fd = dbus_watch_get_unix_fd(watch);
        if (dbus_watch_get_enabled(watch) != FALSE) {
            const unsigned int flags = dbus_watch_get_flags(watch);
            _wantsToRead = _wantsToRead || (flags & DBUS_WATCH_READABLE) != 0;
            _wantsToWrite = _wantsToWrite || (flags & DBUS_WATCH_WRITABLE) != 0;
        }
    }
    UpdateSets();
}

void DBusWatcher::UpdateSets() {
    const bool mayRead = _wantsToRead && _pauses == 0;
    const bool isListenersTurn = _isGivenAway && !_isHelping;
    ChangeEvents(_listenerSet, mayRead && isListenersTurn ? std::uint32_t{EPOLLIN} : 0);
    ChangeEvents(_watcherSet, (mayRead && !isListenersTurn ? std::uint32_t{EPOLLIN} : 0) |
                                  (_wantsToWrite ? std::uint32_t{EPOLLOUT} : 0));
}

void DBusWatcher::ChangeEvents(Set& set, std::uint32_t events) {
    if (set.fd == _fd && set.events == events) {
        return;
    }
    epoll_event event{};
    event.events = events;
    event.data.fd = _fd;
    if (set.fd == _fd) {
        ::epoll_ctl(set.epoll.Get(), EPOLL_CTL_MOD, _fd, &event);
    } else {
        // The descriptor is removed at once, because libdbus closes it now and another thread may get its
        // number.
        if (set.fd >= 0) {
            ::epoll_ctl(set.epoll.Get(), EPOLL_CTL_DEL, set.fd, &event);
        }
        if (_fd >= 0) {
            ::epoll_ctl(set.epoll.Get(), EPOLL_CTL_ADD, _fd, &event);
        }
    }
    set.fd = _fd;
    set.events = events;
}

bool DBusWatcher::HasWatch(DBusWatch* watch) {
    const osa::MutexAutoLock lock(&_watchMutex);
    return std::find(_watches.begin(), _watches.end(), watch) != _watches.end();
}

void DBusWatcher::HandleWatches(unsigned int flags) {
    std::array<DBusWatch*, 4> watches{};
    {
        const osa::MutexAutoLock lock(&_watchMutex);
        watches = _watches;
    }
    for (DBusWatch* const watch : watches) {
        // The previous watch may have removed this one.
        if (watch == nullptr || !HasWatch(watch) || dbus_watch_get_enabled(watch) == FALSE) {
            continue;
        }
        const unsigned int wanted = dbus_watch_get_flags(watch) | DBUS_WATCH_HANGUP | DBUS_WATCH_ERROR;
        if ((flags & wanted) != 0) {
            dbus_watch_handle(watch, flags & wanted);
        }
    }
}

}  // namespace zarip::msgbus
