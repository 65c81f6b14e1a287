// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// A call of a service's method.
class ZARIP_EXPORT MsgBusRemoteMethod : public MsgBusMsg {
public:
    /// Throws `osa::Exception` as the setters of `MsgBusMsg` when the bus does not allow one of the names.
    MsgBusRemoteMethod(const MsgBusObjectSelector& selector, const char* member);
};

}  // namespace zarip::msgbus
