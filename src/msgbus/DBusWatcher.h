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

/// Keeps the watches of a connection and decides which thread waits for its descriptor.
///
/// *Reading*: the listen thread while there is one (`GiveAway`), which saves a change of threads for each
/// message; otherwise, and while a handler takes long, this object's own thread, "DBusWatcher"; nobody of the
/// two while a waiting call reads for itself (`Pause`). *Writing*: always "DBusWatcher", because the listen
/// thread may be busy with a handler.
///
/// Each of the two threads has an epoll set. A change of the roles changes the events in the sets, which
/// wakes nobody. The loss of the connection is reported to both threads in every role.
///
/// The bus library adds, removes and toggles watches with its own lock held, so `_watchMutex` guards the
/// roles, the list and the sets, and no function of libdbus is called under it except for getters.
class DBusWatcher final : public osa::Runnable {
public:
    /// *Called on DBusWatcher*, without any lock, with DBUS_WATCH_... flags, or 0 after `Attend`.
    using ReadyHandler = std::function<void(unsigned int flags)>;

    /// Throws "pipe failed".
    DBusWatcher(core::Logger* logger, ReadyHandler ready);

    // On any thread, without the connection's lock or with it.

    void Run() override;
    void Stop() override;

    /// Has "DBusWatcher" call its handler soon.
    void Attend();

    /// Ends `Wait`.
    void Wake();

    /// The listen thread's wait: until the descriptor is ready, which returns DBUS_WATCH_... flags for
    /// `Handle`, or until `Wake`, which returns 0.
    unsigned int Wait();

    /// Has the listen thread read from now on; `TakeBack` ends that.
    void GiveAway();
    void TakeBack();

    /// By the listen thread, around a handler. If that takes more than 50 to 100 ms, "DBusWatcher" reads
    /// meanwhile: the bus drops replies to a connection that leaves 127 MiB unread.
    void BeginHandling();
    void EndHandling();

    /// A waiting call reads until `Resume`. Pauses nest.
    void Pause();
    void Resume();

    /// The connection's descriptor; -1 once the connection is lost.
    int GetFd();

    // With the connection's lock.

    void Attach(DBusConnection* connection);
    void Detach(DBusConnection* connection);

    /// Hands readiness to the watches that asked for it.
    void Handle(unsigned int flags);

private:
    /// An epoll set with the connection's descriptor, and what that is watched for.
    struct Set {
        osa::UniqueFd epoll;
        int fd = -1;
        std::uint32_t events = 0;
    };

    static dbus_bool_t OnAdd(DBusWatch* watch, void* watcher);
    static void OnRemove(DBusWatch* watch, void* watcher);
    static void OnToggle(DBusWatch* watch, void* watcher);

    bool Replace(DBusWatch* old, DBusWatch* replacement);
    void UpdateWanted() ZARIP_REQUIRES(_watchMutex);
    void UpdateSets() ZARIP_REQUIRES(_watchMutex);
    void Change(Set& set, std::uint32_t events) ZARIP_REQUIRES(_watchMutex);
    bool Has(DBusWatch* watch);
    char ReadCommand();
    void SendCommand(char command);
    void Guard(unsigned int& lastHandled);
    static unsigned int WaitIn(int epoll, int interrupt, int timeoutMs, bool& interrupted);

    core::Logger* _logger;
    ReadyHandler _ready;
    osa::UniqueFd _commandRead;
    osa::UniqueFd _commandWrite;
    /// A counting event, released when the listen thread has something to do. Not an `osa::Semaphore`,
    /// because the thread waits for this and for the descriptor.
    osa::UniqueFd _dispatchAvailable;
    std::atomic<bool> _isStopped{false};

    // For `Guard`: whether a handler runs, how many have run, whether "DBusWatcher" looks after them, which
    // it stops doing when there is nothing to handle, and whether it reads in place of the listen thread.
    std::atomic<bool> _isHandling{false};
    std::atomic<unsigned int> _handled{0};
    std::atomic<bool> _isGuarding{false};
    std::atomic<bool> _isHelping{false};

    osa::Mutex _watchMutex{"_watchMutex"};
    /// libdbus has two, for reading and for writing; free places are null.
    std::array<DBusWatch*, 4> _watches ZARIP_GUARDED_BY(_watchMutex){};
    Set _watcherSet;   ///< also has `_commandRead`
    Set _listenerSet;  ///< also has `_dispatchAvailable`
    int _fd ZARIP_GUARDED_BY(_watchMutex) = -1;
    bool _wantsToRead ZARIP_GUARDED_BY(_watchMutex) = false;
    bool _wantsToWrite ZARIP_GUARDED_BY(_watchMutex) = false;
    bool _isGivenAway ZARIP_GUARDED_BY(_watchMutex) = false;
    int _pauses ZARIP_GUARDED_BY(_watchMutex) = 0;
};

}  // namespace zarip::msgbus
