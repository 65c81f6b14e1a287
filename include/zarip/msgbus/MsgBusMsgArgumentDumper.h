// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class MsgBusMsg;

/// Shows the arguments of a message as JSON. *One thread at a time.* It keeps what it shows alive.
class ZARIP_EXPORT MsgBusMsgArgumentDumper {
public:
    explicit MsgBusMsgArgumentDumper(const MsgBusMsg& message);
    MsgBusMsgArgumentDumper(const MsgBusMsgArgumentDumper&) = delete;
    MsgBusMsgArgumentDumper& operator=(const MsgBusMsgArgumentDumper&) = delete;
    virtual ~MsgBusMsgArgumentDumper();

    /// One array with an element for each argument: the bare value, or with types an object of "type" and
    /// "value". The "type" of an array is that of its elements. Numbers have double precision, so 64-bit
    /// integers beyond 2^53 are rounded; the value of a type that messages here do not carry is null.
    std::string AsJson(bool withTypes);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::msgbus
