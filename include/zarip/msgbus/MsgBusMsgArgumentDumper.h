// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class MsgBusMsg;

/// Formats the arguments of a message as JSON. It may outlive the `MsgBusMsg`. *One thread at a time.*
class ZARIP_EXPORT MsgBusMsgArgumentDumper {
public:
    explicit MsgBusMsgArgumentDumper(const MsgBusMsg& message);
    MsgBusMsgArgumentDumper(const MsgBusMsgArgumentDumper&) = delete;
    MsgBusMsgArgumentDumper& operator=(const MsgBusMsgArgumentDumper&) = delete;
    virtual ~MsgBusMsgArgumentDumper();

    /// Returns an array with one element for each argument: its value or, with types, an object with "type"
    /// and "value". The "type" of an array is the type of its elements. Numbers have double precision, so
    /// 64-bit integers beyond 2^53 are rounded. A value whose type `MsgBusMsg` cannot hold becomes null.
    std::string AsJson(bool withTypes);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::msgbus
