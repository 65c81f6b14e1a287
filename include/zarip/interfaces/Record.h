// SPDX-License-Identifier: MIT

#pragma once

#include <tuple>

#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>

namespace zarip::interfaces {

/// Several arguments or results that travel as one value, one bus argument for each field. `Record<>` is the
/// result of a member that returns nothing, but whose caller waits until it is done.
template <class... Fields>
struct Record : std::tuple<Fields...> {
    using Tuple = std::tuple<Fields...>;
    using Tuple::Tuple;
};

/// Reads the fields in their order; throws as the reader does.
template <class... Fields>
msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader,
                                            Record<Fields...>& record) {
    std::apply([&reader](Fields&... field) { (void)(reader >> ... >> field); },
               static_cast<std::tuple<Fields...>&>(record));
    return reader;
}

/// Appends the fields in their order; throws as the message does.
template <class... Fields>
msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const Record<Fields...>& record) {
    std::apply([&message](const Fields&... field) { (void)(message << ... << field); },
               static_cast<const std::tuple<Fields...>&>(record));
    return message;
}

}  // namespace zarip::interfaces
