// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class MsgBus;
class MsgBusMsg;
}  // namespace zarip::msgbus

namespace zarip::interfaces {

/// Publishes video-analytics alerts as the signal "AnalyticsAlert" of interface "com.brelk.analytics".
/// *Thread-safe*.
///
/// There is no proxy. A program that receives alerts registers an `IMessageHandler` for this interface and
/// member, and makes an `AnalyticsAlert` from each message. Any process on the bus may send alerts. The
/// description of the object does not contain the signal, because its signature varies with the number of
/// points.
class ZARIP_EXPORT AnalyticsInterface {
public:
    /// An alert. The publisher defines the meaning of the fields. *One thread at a time.*
    ///
    /// On the bus the fields have another order than here: `alertId`, `deviceId`, `ruleId`, `objectClass`,
    /// `zone`, `track`, `ruleName`, `severity`, `state`, `description`, `startTime`, `endTime`. A list of
    /// points is sent as its length followed by the coordinates of each point.
    class ZARIP_EXPORT AnalyticsAlert {
    public:
        struct Point {
            double x = 0;
            double y = 0;
        };

        AnalyticsAlert();

        /// Reads an alert from a received message. A negative length of a list counts as 0. Throws what
        /// `MsgBusMsgArgumentReader` throws.
        explicit AnalyticsAlert(const msgbus::MsgBusMsg& message);

        /// Appends the alert to a message. A message can hold 121 points, in both lists together. Throws what
        /// `MsgBusMsg::operator<<` throws; the message then contains a part of the alert.
        void Serialize(msgbus::MsgBusMsg& message) const;

        std::string alertId;
        std::string deviceId;
        std::string ruleName;
        std::string description;
        int severity = 0;
        std::string state;
        std::string ruleId;
        std::string objectClass;
        std::vector<Point> zone;
        std::vector<Point> track;
        std::string startTime;
        std::string endTime;
    };

    /// Publishes from the object "/com/brelk/analytics".
    /// @param bus  *not owned*, must outlive this object.
    explicit AnalyticsInterface(msgbus::MsgBus* bus);

    /// Publishes from another object.
    AnalyticsInterface(const char* path, msgbus::MsgBus* bus);
    AnalyticsInterface(const AnalyticsInterface&) = delete;
    AnalyticsInterface& operator=(const AnalyticsInterface&) = delete;
    ~AnalyticsInterface();

    /// Sends an alert. Throws what `MsgBusSignal`, `AnalyticsAlert::Serialize` and `IMsgBus::SendMsg` throw;
    /// then nothing is sent.
    void BroadcastAnalyticsAlert(const AnalyticsAlert& alert);

private:
    class AnalyticsInterfaceImpl;
    std::unique_ptr<AnalyticsInterfaceImpl> _impl;
};

}  // namespace zarip::interfaces
