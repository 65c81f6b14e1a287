// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// A call of a method of a service.
class ZARIP_EXPORT MsgBusRemoteMethod : public MsgBusMsg {
public:
    /// Throws what the setters of `MsgBusMsg` throw if the bus does not allow one of the names.
    MsgBusRemoteMethod(const MsgBusObjectSelector& selector, const char* member);
};

}  // namespace zarip::msgbus
