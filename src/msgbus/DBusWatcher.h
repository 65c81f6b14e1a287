#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "osa/UniqueFd.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/Runnable.h"

namespace zarip::core {
class Logger;
}

namespace zarip::msgbus {

/// Keeps the watches of a connection and waits for its descriptor: on its own thread, "DBusWatcher", or on
/// the listen thread in its stead, which saves a change of threads for each message that arrives.
///
/// The bus library adds, removes and toggles watches with its own lock held, so `_watchMutex` guards the list
/// alone and nothing is called under it. All functions but those of the first group are called with the
/// connection's `_busMutex` held. What changes in the list takes effect at `Apply`, which the holder calls
/// before it lets go of the connection: a watch that is switched on and off again meanwhile costs no system
/// call.
class DBusWatcher final : public osa::Runnable {
public:
    /// *Called on DBusWatcher*, without any lock, with DBUS_WATCH_... flags or 0, to apply a change.
    using ReadyHandler = std::function<void(unsigned int flags)>;

    /// Throws "pipe failed".
    DBusWatcher(core::Logger* logger, ReadyHandler ready);

    // Without any lock.

    void Run() override;
    void Stop() override;

    /// The listen thread's wait: until the descriptor is ready, which returns DBUS_WATCH_... flags for
    /// `Handle`, or until `Wake`, which returns 0.
    unsigned int Wait();
    void Wake();

    // With `_busMutex`.

    /// Has the listen thread wait from now on; `TakeBack` ends that.
    void GiveAway();
    void TakeBack();

    void Attach(DBusConnection* connection);
    void Detach(DBusConnection* connection);

    void Apply();

    /// False once the bus library has given the descriptor up, with which the connection is lost.
    bool HasDescriptor() const { return _applied.fd >= 0; }

    /// While paused nobody is woken by the descriptor, because a waiting call reads it. Pauses nest.
    void Pause();
    void Resume();

    /// Hands readiness to the watches that asked for it.
    void Handle(unsigned int flags);

    /// Waits until the connection takes more bytes, and writes what it can; false when the time
    /// (milliseconds) ran out.
    bool Write(int timeoutMs);

private:
    static dbus_bool_t OnAdd(DBusWatch* watch, void* watcher);
    static void OnRemove(DBusWatch* watch, void* watcher);
    static void OnToggle(DBusWatch* watch, void* watcher);

    void UpdateWanted() ZARIP_REQUIRES(_watchMutex);
    bool Has(DBusWatch* watch);
    std::vector<DBusWatch*> GetWatches();
    char ReadCommand();
    void SendCommand(char command);
    unsigned int WaitIn(const osa::UniqueFd& set, const osa::UniqueFd& interrupt, bool& interrupted);
    void MoveTo(const osa::UniqueFd& set);

    /// What the descriptor is watched for: a descriptor of -1 for nothing.
    struct Interest {
        int fd;
        std::uint32_t events;
        bool operator==(const Interest& other) const { return fd == other.fd && events == other.events; }
    };
    void Set(const Interest& interest);

    core::Logger* _logger;
    ReadyHandler _ready;
    osa::UniqueFd _commandRead;
    osa::UniqueFd _commandWrite;
    osa::UniqueFd _wake;
    // The epoll sets of the two threads that may wait. The connection's descriptor is in one of them.
    osa::UniqueFd _watcherSet;   ///< with `_commandRead`
    osa::UniqueFd _listenerSet;  ///< with `_wake`
    const osa::UniqueFd* _set = &_watcherSet;
    std::atomic<bool> _stopped{false};
    Interest _applied{-1, 0};
    int _pauses = 0;
    /// What is wanted, since the last `Apply`. Letting go of a message can switch reading on again, on any
    /// thread and without `_busMutex`.
    std::atomic<bool> _isChanged{false};

    osa::Mutex _watchMutex{"_watchMutex"};
    std::vector<DBusWatch*> _watches ZARIP_GUARDED_BY(_watchMutex);
    Interest _wanted ZARIP_GUARDED_BY(_watchMutex){-1, 0};
};

}  // namespace zarip::msgbus
