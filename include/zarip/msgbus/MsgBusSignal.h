// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// A signal to everybody who listens.
class ZARIP_EXPORT MsgBusSignal : public MsgBusMsg {
public:
    /// Throws `osa::Exception` as the setters of `MsgBusMsg` when the bus does not allow one of the names.
    MsgBusSignal(const char* path, const char* interface, const char* member);
};

}  // namespace zarip::msgbus
