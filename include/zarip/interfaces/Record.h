// SPDX-License-Identifier: MIT

#pragma once

#include <tuple>

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>

namespace zarip::interfaces {

/// Several arguments or results as one value. On the bus, each field is an argument. If a member returns a
/// `Record<>`, it has no result, but its caller waits until it has finished.
template <class... Fields>
struct Record : std::tuple<Fields...> {
    using Tuple = std::tuple<Fields...>;
    using Tuple::Tuple;
};

/// Reads the fields in order. Throws what the reader throws.
template <class... Fields>
msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader,
                                            Record<Fields...>& record) {
    std::apply([&reader](Fields&... field) { (void)(reader >> ... >> field); },
               static_cast<std::tuple<Fields...>&>(record));
    return reader;
}

/// Appends the fields in order. Throws what the message throws.
template <class... Fields>
msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const Record<Fields...>& record) {
    std::apply([&message](const Fields&... field) { (void)(message << ... << field); },
               static_cast<const std::tuple<Fields...>&>(record));
    return message;
}

}  // namespace zarip::interfaces
