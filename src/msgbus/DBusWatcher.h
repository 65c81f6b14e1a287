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

/// Keeps the watches of a connection and waits for its descriptor on the thread "DBusWatcher".
///
/// The bus library adds, removes and toggles watches with its own lock held, so `_watchMutex` guards the list
/// alone and nothing is called under it. All functions but `Run` and `Stop` are called with the connection's
/// `_busMutex` held. What changes in the list takes effect at `Apply`, which the holder calls before it lets
/// go of the connection: a watch that is switched on and off again meanwhile costs no system call.
class DBusWatcher final : public osa::Runnable {
public:
    /// *Called on DBusWatcher*, without any lock, with DBUS_WATCH_... flags.
    using ReadyHandler = std::function<void(unsigned int flags)>;

    /// Throws "pipe failed".
    DBusWatcher(core::Logger* logger, ReadyHandler ready);

    void Run() override;
    void Stop() override;

    void Attach(DBusConnection* connection);
    void Detach(DBusConnection* connection);

    void Apply();

    /// While paused the thread does not wait for the descriptor, because somebody else reads it. Pauses nest.
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
    void ReadCommands();

    /// What the descriptor is watched for: a descriptor of -1 for nothing.
    struct Interest {
        int fd;
        std::uint32_t events;
        bool operator==(const Interest& other) const { return fd == other.fd && events == other.events; }
    };
    void Set(const Interest& interest);

    core::Logger* _logger;
    ReadyHandler _ready;
    osa::UniqueFd _epoll;
    osa::UniqueFd _commandRead;
    osa::UniqueFd _commandWrite;
    std::atomic<bool> _stopped{false};
    Interest _applied{-1, 0};
    int _pauses = 0;

    osa::Mutex _watchMutex{"_watchMutex"};
    std::vector<DBusWatch*> _watches ZARIP_GUARDED_BY(_watchMutex);
    Interest _wanted ZARIP_GUARDED_BY(_watchMutex){-1, 0};
};

}  // namespace zarip::msgbus
