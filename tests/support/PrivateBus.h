// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

#include <string>

namespace zarip::test {

/// A private dbus-daemon, which every connection of the test program uses. libdbus reads the address once, so
/// there is one daemon, which is started by the first call of `Get` and ended with the program.
class PrivateBus {
public:
    static PrivateBus& Get();

    /// Replaces the policy, which allows everything, in the configuration of a daemon that is started later.
    /// Returns the policy that it replaces.
    static std::string SetPolicy(const std::string& policy);

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    ~PrivateBus();

    const std::string& GetAddress() const { return _address; }

    /// The folder that holds the socket; only this user may look into it.
    const std::string& GetFolder() const { return _folder; }

    /// Ends the daemon at once, as a crash would, and waits for its end.
    void Kill();

    /// Starts it again at the same address; does nothing while it runs.
    void Start();

    /// Stops and continues the daemon's work.
    void Freeze();
    void Thaw();

private:
    PrivateBus();

    std::string _folder;
    std::string _address;
    pid_t _pid = -1;
};

}  // namespace zarip::test
