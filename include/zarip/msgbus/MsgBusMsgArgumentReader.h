// SPDX-License-Identifier: MIT

#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class MsgBusMsg;

/// Reads the arguments of a message in order, each once. *One thread at a time.*
///
/// The reader may outlive the `MsgBusMsg`. A read that fails throws `osa::Exception` "MsgBusMsg argument
/// missing (expected type 'x')" or "MsgBusMsg argument mismatch (expected type 'x' but found type 'y')" with
/// the bus's type codes. The target and the position then stay as they were.
class ZARIP_EXPORT MsgBusMsgArgumentReader {
public:
    explicit MsgBusMsgArgumentReader(const MsgBusMsg& message);

    /// The copy continues independently from the same position.
    MsgBusMsgArgumentReader(const MsgBusMsgArgumentReader& other);
    MsgBusMsgArgumentReader& operator=(const MsgBusMsgArgumentReader&) = delete;
    ~MsgBusMsgArgumentReader();

    MsgBusMsgArgumentReader& operator>>(bool& value);
    MsgBusMsgArgumentReader& operator>>(unsigned char& value);
    MsgBusMsgArgumentReader& operator>>(short& value);
    MsgBusMsgArgumentReader& operator>>(unsigned short& value);
    MsgBusMsgArgumentReader& operator>>(int& value);
    MsgBusMsgArgumentReader& operator>>(unsigned int& value);
    MsgBusMsgArgumentReader& operator>>(long long& value);
    MsgBusMsgArgumentReader& operator>>(unsigned long long& value);
    MsgBusMsgArgumentReader& operator>>(double& value);
    MsgBusMsgArgumentReader& operator>>(std::string& value);

    /// These operators replace the content of the target.
    MsgBusMsgArgumentReader& operator>>(std::deque<bool>& value);
    MsgBusMsgArgumentReader& operator>>(std::vector<unsigned char>& value);
    MsgBusMsgArgumentReader& operator>>(std::vector<int>& value);
    MsgBusMsgArgumentReader& operator>>(std::vector<unsigned int>& value);
    MsgBusMsgArgumentReader& operator>>(std::vector<double>& value);

    /// Deliberate: the strings are appended to the target, so that callers can collect several lists in one.
    MsgBusMsgArgumentReader& operator>>(std::vector<std::string>& value);

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace zarip::msgbus
