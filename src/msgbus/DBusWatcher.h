// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>

#include "osa/UniqueFd.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/Runnable.h"

namespace zarip::core {
class Logger;
}

namespace zarip::msgbus {

/// Holds the watches of a connection and decides which thread waits for its descriptor.
///
/// *Reading*: if there is a listen thread, it reads (`GiveAway`), which saves a change of threads for each
/// message. Otherwise, and while a handler takes long, this object's own thread, "DBusWatcher", reads.
/// Neither of them reads while a waiting call reads (`Pause`). *Writing*: always "DBusWatcher", because the
/// listen thread may be busy with a handler.
///
/// Each of the two threads has an epoll set. A change of the roles changes the events in the sets, which
/// wakes no thread. The loss of the connection is reported to both threads in every role.
///
/// `_watchMutex` guards the roles, the list and the sets. libdbus adds, removes and toggles watches with its
/// own lock held, so no function of libdbus except getters is called while `_watchMutex` is held.
class DBusWatcher final : public osa::Runnable {
public:
    /// *Called on DBusWatcher* with no lock held. The argument is a set of DBUS_WATCH_... flags, or 0 after
    /// `Attend`.
    using ReadyHandler = std::function<void(unsigned int flags)>;

    /// Throws "pipe failed".
    DBusWatcher(core::Logger* logger, ReadyHandler ready);

    // The following functions may be called on any thread, with or without the connection's lock.

    void Run() override;
    void Stop() override;

    /// Makes "DBusWatcher" call its handler soon.
    void Attend();

    /// Makes `Wait` return.
    void Wake();

    /// Waits, on the listen thread, until the descriptor is ready and returns DBUS_WATCH_... flags for
    /// `HandleWatches`. Returns 0 after `Wake`.
    unsigned int Wait();

    /// Makes the listen thread the reader until `TakeBack`.
    void GiveAway();
    void TakeBack();

    /// The listen thread calls these before and after a handler. If the handler takes more than 50 to 100 ms,
    /// "DBusWatcher" reads meanwhile, because the bus drops replies to a connection that has more than 127
    /// MiB to read.
    void BeginHandling();
    void EndHandling();

    /// Makes a waiting call the reader until `Resume`. Pauses nest.
    void Pause();
    void Resume();

    /// Returns the connection's descriptor, or -1 if the connection is lost.
    int GetFd();

    // The following functions are called with the connection's lock held.

    void Attach(DBusConnection* connection);
    void Detach(DBusConnection* connection);

    /// Passes the flags to the watches that have asked for them.
    void HandleWatches(unsigned int flags);

private:
    /// An epoll set with the connection's descriptor and the events for which it is watched.
    struct Set {
        osa::UniqueFd epoll;
        int fd = -1;
        std::uint32_t events = 0;
    };

    static dbus_bool_t OnAdd(DBusWatch* watch, void* watcher);
    static void OnRemove(DBusWatch* watch, void* watcher);
    static void OnToggle(DBusWatch* watch, void* watcher);

    bool ReplaceWatch(DBusWatch* old, DBusWatch* replacement);
    void UpdateWanted() ZARIP_REQUIRES(_watchMutex);
    void UpdateSets() ZARIP_REQUIRES(_watchMutex);
    void ChangeEvents(Set& set, std::uint32_t events) ZARIP_REQUIRES(_watchMutex);
    bool HasWatch(DBusWatch* watch);
    char ReadCommand();
    void SendCommand(char command);
    void GuardListener(unsigned int& lastHandled);
    static unsigned int WaitIn(int epoll, int interrupt, int timeoutMs, bool& interrupted);

    core::Logger* _logger;
    ReadyHandler _ready;
    osa::UniqueFd _commandRead;
    osa::UniqueFd _commandWrite;
    /// Wakes the listen thread when there is work. This is not an `osa::Semaphore`, because the thread waits
    /// for this and for the descriptor at once.
    osa::UniqueFd _dispatchAvailable;
    std::atomic<bool> _isStopped{false};

    // The state of `GuardListener`: whether a handler runs, how many handlers have run, whether "DBusWatcher"
    // checks them, and whether it reads in place of the listen thread. It stops checking when no handlers
    // run.
    std::atomic<bool> _isHandling{false};
    std::atomic<unsigned int> _handled{0};
    std::atomic<bool> _isGuarding{false};
    std::atomic<bool> _isHelping{false};

    osa::Mutex _watchMutex{"_watchMutex"};
    /// libdbus has one for reading and one for writing; free places are null.
    std::array<DBusWatch*, 4> _watches ZARIP_GUARDED_BY(_watchMutex){};
    Set _watcherSet;   ///< also contains `_commandRead`
    Set _listenerSet;  ///< also contains `_dispatchAvailable`
    int _fd ZARIP_GUARDED_BY(_watchMutex) = -1;
    bool _wantsToRead ZARIP_GUARDED_BY(_watchMutex) = false;
    bool _wantsToWrite ZARIP_GUARDED_BY(_watchMutex) = false;
    bool _isGivenAway ZARIP_GUARDED_BY(_watchMutex) = false;
    int _pauses ZARIP_GUARDED_BY(_watchMutex) = 0;
};

}  // namespace zarip::msgbus
