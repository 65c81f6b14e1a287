// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>

#include "osa/PacketCapture.h"

namespace zarip::core {
class Logger;
}

namespace zarip::osa {

/// The control commands of a unix-domain server, "dump start\n" and "dump stop\n". A connection that begins
/// with one is not served but controls the packet capture.
class CaptureControl {
public:
    enum class Command {
        kNone,   ///< the connection has sent something else
        kMaybe,  ///< the beginning of a command
        kStart,
        kStop,
    };

    /// No command is longer.
    static constexpr std::size_t kMaxLength = 15;

    /// @param received  what the connection has sent so far.
    static Command Find(std::string_view received);

    /// Carries out `kStart` or `kStop` if the peer is root or this process's user; a failure is logged.
    /// @param fd  the connection that has sent the command.
    /// @param address  of the listening socket; names the file.
    static void Execute(Command command, int fd, const std::string& address, PacketCapture& capture,
                        core::Logger& logger);
};

}  // namespace zarip::osa
