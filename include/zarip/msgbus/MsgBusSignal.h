// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// A signal, which the bus delivers to every connection that has asked for it.
class ZARIP_EXPORT MsgBusSignal : public MsgBusMsg {
public:
    /// Throws what the setters of `MsgBusMsg` throw if the bus does not allow one of the names.
    MsgBusSignal(const char* path, const char* interface, const char* member);
};

}  // namespace zarip::msgbus
