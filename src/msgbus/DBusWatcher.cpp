#include "msgbus/DBusWatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

constexpr char kQuit = 'q';
constexpr char kApply = 'a';

const char* Describe(DBusWatch* watch) {
    switch (dbus_watch_get_flags(watch) & (DBUS_WATCH_READABLE | DBUS_WATCH_WRITABLE)) {
        case DBUS_WATCH_READABLE:
            return "reading";
        case DBUS_WATCH_WRITABLE:
            return "writing";
        default:
            return "reading and writing";
    }
}

std::uint32_t ToEvents(unsigned int flags) {
    std::uint32_t events = 0;
    if ((flags & DBUS_WATCH_READABLE) != 0) {
        events |= EPOLLIN;
    }
    if ((flags & DBUS_WATCH_WRITABLE) != 0) {
        events |= EPOLLOUT;
    }
    return events;
}

unsigned int ToFlags(std::uint32_t events) {
    unsigned int flags = 0;
    if ((events & EPOLLIN) != 0) {
        flags |= DBUS_WATCH_READABLE;
    }
    if ((events & EPOLLOUT) != 0) {
        flags |= DBUS_WATCH_WRITABLE;
    }
    if ((events & EPOLLHUP) != 0) {
        flags |= DBUS_WATCH_HANGUP;
    }
    if ((events & EPOLLERR) != 0) {
        flags |= DBUS_WATCH_ERROR;
    }
    return flags;
}

bool AddTo(const osa::UniqueFd& set, const osa::UniqueFd& descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor.Get();
    return ::epoll_ctl(set.Get(), EPOLL_CTL_ADD, descriptor.Get(), &event) == 0;
}

}  // namespace

DBusWatcher::DBusWatcher(core::Logger* logger, ReadyHandler ready)
    : _logger(logger),
      _ready(std::move(ready)),
      _wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _watcherSet(::epoll_create1(EPOLL_CLOEXEC)),
      _listenerSet(::epoll_create1(EPOLL_CLOEXEC)) {
    int ends[2] = {-1, -1};
    const int result = ::pipe2(ends, O_CLOEXEC | O_NONBLOCK);
    _commandRead = osa::UniqueFd(ends[0]);
    _commandWrite = osa::UniqueFd(ends[1]);
    if (result != 0 || !AddTo(_watcherSet, _commandRead) || !AddTo(_listenerSet, _wake)) {
        throw osa::Exception("pipe failed");
    }
}

void DBusWatcher::Run() {
    _logger->Debug("Run thread started");
    try {
        while (!_stopped) {
            bool commanded = false;
            const unsigned int flags = WaitIn(_watcherSet, _commandRead, commanded);
            const bool apply = commanded && ReadCommand() == kApply;
            if ((flags != 0 || apply) && !_stopped) {
                _ready(flags);
            }
        }
    } catch (const std::exception& e) {
        _logger->Error("%s", e.what());
    } catch (...) {
        _logger->Error("%s", "unknown");
    }
    _logger->Debug("Run thread shutting down");
}

void DBusWatcher::Stop() {
    _stopped = true;
    SendCommand(kQuit);
}

void DBusWatcher::SendCommand(char command) {
    // A pipe that is full wakes the thread anyway.
    while (::write(_commandWrite.Get(), &command, 1) < 0 && errno == EINTR) {
    }
}

char DBusWatcher::ReadCommand() {
    char command = '\0';
    if (::read(_commandRead.Get(), &command, 1) != 1) {
        _logger->Error("read pipe failed");
    } else if (command != kQuit && command != kApply) {
        _logger->Error("unknown command %c", command);
    }
    return command;
}

unsigned int DBusWatcher::Wait() {
    bool woken = false;
    const unsigned int flags = WaitIn(_listenerSet, _wake, woken);
    if (woken) {
        eventfd_t ignored = 0;
        ::eventfd_read(_wake.Get(), &ignored);
    }
    return flags;
}

void DBusWatcher::Wake() {
    ::eventfd_write(_wake.Get(), 1);
}

unsigned int DBusWatcher::WaitIn(const osa::UniqueFd& set, const osa::UniqueFd& interrupt,
                                 bool& interrupted) {
    epoll_event events[2];
    const int count = ::epoll_wait(set.Get(), events, 2, -1);
    if (count < 0 && errno != EINTR) {
        throw osa::Exception("select returned -1");
    }
    unsigned int flags = 0;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.fd == interrupt.Get()) {
            interrupted = true;
        } else {
            flags |= ToFlags(events[i].events);
        }
    }
    return flags;
}

void DBusWatcher::GiveAway() {
    MoveTo(_listenerSet);
}

void DBusWatcher::TakeBack() {
    MoveTo(_watcherSet);
}

void DBusWatcher::MoveTo(const osa::UniqueFd& set) {
    Set({-1, 0});
    _set = &set;
    _isChanged = true;
    Apply();
}

void DBusWatcher::Attach(DBusConnection* connection) {
    if (dbus_connection_set_watch_functions(connection, &OnAdd, &OnRemove, &OnToggle, this, nullptr) ==
        FALSE) {
        throw osa::Exception("dbus_connection_set_watch_functions failed");
    }
    Apply();
}

void DBusWatcher::Detach(DBusConnection* connection) {
    dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
}

dbus_bool_t DBusWatcher::OnAdd(DBusWatch* watch, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    try {
        self->_logger->Trace("watching for %s on fd %d", Describe(watch), dbus_watch_get_unix_fd(watch));
        const osa::MutexAutoLock lock(&self->_watchMutex);
        self->_watches.push_back(watch);
        self->UpdateWanted();
        return TRUE;
    } catch (...) {
        return FALSE;
    }
}

void DBusWatcher::OnRemove(DBusWatch* watch, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    self->_logger->Trace("cancelling watch for %s on fd %d", Describe(watch), dbus_watch_get_unix_fd(watch));
    const osa::MutexAutoLock lock(&self->_watchMutex);
    self->_watches.erase(std::remove(self->_watches.begin(), self->_watches.end(), watch),
                         self->_watches.end());
    self->UpdateWanted();
    if (self->_wanted.fd < 0) {
        // Not later: the bus library closes the descriptor now, and another thread may get its number.
        self->Set(self->_wanted);
    }
}

void DBusWatcher::OnToggle(DBusWatch* /*watch*/, void* watcher) {
    auto* const self = static_cast<DBusWatcher*>(watcher);
    const osa::MutexAutoLock lock(&self->_watchMutex);
    const bool wasReading = (self->_wanted.events & EPOLLIN) != 0;
    self->UpdateWanted();
    if (!wasReading && (self->_wanted.events & EPOLLIN) != 0) {
        // Nobody may hold the connection, to apply this: whoever waits for the descriptor does.
        self->Wake();
        self->SendCommand(kApply);
    }
}

void DBusWatcher::UpdateWanted() {
    _isChanged = true;
    _wanted = {-1, 0};
    for (DBusWatch* const watch : _watches) {
        _wanted.fd = dbus_watch_get_unix_fd(watch);
        if (dbus_watch_get_enabled(watch) != FALSE) {
            _wanted.events |= ToEvents(dbus_watch_get_flags(watch));
        }
    }
}

bool DBusWatcher::Has(DBusWatch* watch) {
    const osa::MutexAutoLock lock(&_watchMutex);
    return std::find(_watches.begin(), _watches.end(), watch) != _watches.end();
}

std::vector<DBusWatch*> DBusWatcher::GetWatches() {
    const osa::MutexAutoLock lock(&_watchMutex);
    return _watches;
}

void DBusWatcher::Set(const Interest& interest) {
    if (interest == _applied) {
        return;
    }
    epoll_event event{};
    event.events = interest.events;
    event.data.fd = interest.fd;
    if (interest.fd == _applied.fd) {
        ::epoll_ctl(_set->Get(), EPOLL_CTL_MOD, interest.fd, &event);
    } else {
        if (_applied.fd >= 0) {
            ::epoll_ctl(_set->Get(), EPOLL_CTL_DEL, _applied.fd, &event);
        }
        if (interest.fd >= 0) {
            ::epoll_ctl(_set->Get(), EPOLL_CTL_ADD, interest.fd, &event);
        }
    }
    _applied = interest;
}

void DBusWatcher::Apply() {
    if (!_isChanged.load(std::memory_order_relaxed)) {
        return;
    }
    _isChanged = false;
    Interest interest{};
    {
        const osa::MutexAutoLock lock(&_watchMutex);
        interest = _wanted;
    }
    if (_pauses > 0) {
        interest.events = 0;
    }
    Set(interest);
}

void DBusWatcher::Pause() {
    if (_pauses++ == 0) {
        Set({_applied.fd, 0});
    }
}

void DBusWatcher::Resume() {
    if (--_pauses == 0) {
        _isChanged = true;
        Apply();
    }
}

void DBusWatcher::Handle(unsigned int flags) {
    for (DBusWatch* const watch : GetWatches()) {
        // The one before may have taken this one with it.
        if (!Has(watch) || dbus_watch_get_enabled(watch) == FALSE) {
            continue;
        }
        const unsigned int wanted = dbus_watch_get_flags(watch) | DBUS_WATCH_HANGUP | DBUS_WATCH_ERROR;
        if ((flags & wanted) != 0) {
            dbus_watch_handle(watch, flags & wanted);
        }
    }
}

bool DBusWatcher::Write(int timeoutMs) {
    pollfd descriptor{};
    {
        const osa::MutexAutoLock lock(&_watchMutex);
        descriptor.fd = _wanted.fd;
    }
    descriptor.events = POLLOUT;
    if (::poll(&descriptor, 1, timeoutMs) != 1) {
        return false;
    }
    Handle(DBUS_WATCH_WRITABLE);
    return true;
}

}  // namespace zarip::msgbus
