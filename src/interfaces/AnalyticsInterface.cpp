// SPDX-License-Identifier: MIT

#include "zarip/interfaces/AnalyticsInterface.h"

#include "com.brelk.analytics.h"
#include "interfaces/CountedList.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/DescribedObject.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/msgbus/MsgBusSignal.h"

namespace zarip::interfaces {

using AnalyticsAlert = AnalyticsInterface::AnalyticsAlert;
using Points = std::vector<AnalyticsAlert::Point>;

// Argument-dependent lookup finds these operators only if they are not in an unnamed namespace.

static msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const Points& points) {
    return AppendList(message, points,
                      [&message](const AnalyticsAlert::Point& point) { message << point.x << point.y; });
}

static msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader, Points& points) {
    return ReadList(reader, points,
                    [&reader](AnalyticsAlert::Point& point) { reader >> point.x >> point.y; });
}

AnalyticsAlert::AnalyticsAlert() = default;

// Deliberate: all publishers and receivers use this order of the fields on the bus.

AnalyticsAlert::AnalyticsAlert(const msgbus::MsgBusMsg& message) {
    msgbus::MsgBusMsgArgumentReader reader(message);
    reader >> alertId >> deviceId >> ruleId >> objectClass >> zone >> track >> ruleName >> severity >>
        state >> description >> startTime >> endTime;
}

void AnalyticsAlert::Serialize(msgbus::MsgBusMsg& message) const {
    message << alertId << deviceId << ruleId << objectClass << zone << track << ruleName << severity << state
            << description << startTime << endTime;
}

namespace {

constexpr const ServiceDescription& kService = descriptions::com_brelk_analytics;
constexpr const char* kName = kService.name;

}  // namespace

class ZARIP_HIDDEN AnalyticsInterface::AnalyticsInterfaceImpl {
public:
    AnalyticsInterfaceImpl(const char* path, msgbus::MsgBus* bus)
        : _logger(core::Logger::GetLogger("AnalyticsInterface")),
          _bus(bus),
          _path(path != nullptr ? path : ""),
          _description(bus, _path, kName, kService.xml) {}

    void BroadcastAnalyticsAlert(const AnalyticsAlert& alert) {
        _logger->Information("BroadcastAnalyticsAlert");
        msgbus::MsgBusSignal signal(_path.c_str(), kName, "AnalyticsAlert");
        alert.Serialize(signal);
        _logger->Debug("send BroadcastAnalyticsAlert Dbus signal...");
        _bus->SendMsg(signal);
        _logger->Debug("BroadcastAnalyticsAlert Dbus signal msg sent.");
    }

private:
    core::Logger* _logger;
    msgbus::MsgBus* _bus;
    std::string _path;
    msgbus::DescribedObject _description;
};

AnalyticsInterface::AnalyticsInterface(msgbus::MsgBus* bus) : AnalyticsInterface(kService.path, bus) {}

AnalyticsInterface::AnalyticsInterface(const char* path, msgbus::MsgBus* bus)
    : _impl(std::make_unique<AnalyticsInterfaceImpl>(path, bus)) {}

AnalyticsInterface::~AnalyticsInterface() = default;

void AnalyticsInterface::BroadcastAnalyticsAlert(const AnalyticsAlert& alert) {
    _impl->BroadcastAnalyticsAlert(alert);
}

}  // namespace zarip::interfaces
