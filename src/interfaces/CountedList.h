// SPDX-License-Identifier: MIT

#pragma once

// Lists of records, which are sent as their length followed by the fields of each record.

#include <utility>
#include <vector>

#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"

namespace zarip::interfaces {

template <class T, class Append>
msgbus::MsgBusMsg& AppendList(msgbus::MsgBusMsg& message, const std::vector<T>& list, Append append) {
    // A list whose length exceeds an int does not fit into a message either.
    message << static_cast<int>(list.size());
    for (const T& element : list) {
        append(element);
    }
    return message;
}

/// Deliberate: this reserves no memory for the announced length, which the sender chooses. If the message has
/// fewer records, reading throws. A negative length counts as 0.
template <class T, class Read>
msgbus::MsgBusMsgArgumentReader& ReadList(msgbus::MsgBusMsgArgumentReader& reader, std::vector<T>& list,
                                          Read read) {
    int count = 0;
    reader >> count;
    std::vector<T> elements;
    for (int i = 0; i < count; ++i) {
        read(elements.emplace_back());
    }
    list = std::move(elements);
    return reader;
}

}  // namespace zarip::interfaces
