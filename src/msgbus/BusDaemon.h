// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "msgbus/BusConnection.h"
#include "msgbus/ListenState.h"

namespace zarip::msgbus {

/// The calls of a connection to the bus daemon, for names and match rules. *Thread-safe*; it holds no lock.
///
/// Every call has a time limit. After a time-out, requests for rules and releases are sent without waiting
/// until the bus has sent something. So destroying many objects on a stopped bus takes no longer than
/// destroying one.
class BusDaemon {
public:
    /// All arguments are *not owned* and must outlive this object.
    BusDaemon(core::Logger* logger, ListenState* state, BusConnection* connection)
        : _logger(logger), _state(state), _connection(connection) {}

    /// Throws "dbus_bus_request_name failed for <name><reason>" and "error requesting name or not primary
    /// owner".
    void RequestName(const std::string& name);

    // The following functions log failures.

    void ReleaseName(const std::string& name);
    void AddMatch(const std::string& rule);
    void RemoveMatch(const std::string& rule);

private:
    MessageRef Call(MessageRef call, int limitMs, bool mustAsk, DBusErrorRecord& error);

    core::Logger* _logger;
    ListenState* _state;
    BusConnection* _connection;
};

}  // namespace zarip::msgbus
