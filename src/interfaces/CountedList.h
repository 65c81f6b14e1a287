// SPDX-License-Identifier: MIT

#pragma once

// Lists of records, which travel as their length and then the fields of each.

#include <utility>
#include <vector>

#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"

namespace zarip::interfaces {

template <class T, class Append>
msgbus::MsgBusMsg& AppendList(msgbus::MsgBusMsg& message, const std::vector<T>& list, Append append) {
    // A longer list than an int can count does not fit into a message either.
    message << static_cast<int>(list.size());
    for (const T& element : list) {
        append(element);
    }
    return message;
}

/// Deliberately reserves nothing and takes a negative length for 0: the length is the sender's word, and
/// reading ends with an exception where the message does.
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
