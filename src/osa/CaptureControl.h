// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>

#include "osa/PacketCapture.h"

namespace zarip::core {
class Logger;
}

namespace zarip::osa {

/// The control commands of a unix-domain server, "dump start\n" and "dump stop\n", with which a connection
/// begins instead of what the server serves.
class CaptureControl {
public:
    enum class Command {
        kNone,   ///< the connection says something else
        kMaybe,  ///< the beginning of a command
        kStart,
        kStop,
    };

    /// No command is longer.
    static constexpr std::size_t kMaxLength = 15;

    static Command Find(std::string_view said);

    /// Carries out `kStart` or `kStop` if the peer is root or this process's user; logs it if that fails.
    /// @param fd  the connection that has said it.
    /// @param address  of the listening socket; names the file.
    static void Execute(Command command, int fd, const std::string& address, PacketCapture& capture,
                        core::Logger& logger);
};

}  // namespace zarip::osa
