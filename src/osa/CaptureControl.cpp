// SPDX-License-Identifier: MIT

#include "osa/CaptureControl.h"

#include <sys/socket.h>
#include <unistd.h>

#include "zarip/core/Logger.h"

namespace zarip::osa {

namespace {

constexpr std::string_view kStartCapture = "dump start\n";
constexpr std::string_view kStopCapture = "dump stop\n";

bool BeginsWith(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

}  // namespace

CaptureControl::Command CaptureControl::Find(std::string_view received) {
    if (BeginsWith(received, kStartCapture)) {
        return Command::kStart;
    }
    if (BeginsWith(received, kStopCapture)) {
        return Command::kStop;
    }
    // Without the blank it could as well be the first word of other content.
    const bool isBegun = BeginsWith(received, "dump ") &&
                         (BeginsWith(kStartCapture, received) || BeginsWith(kStopCapture, received));
    return isBegun ? Command::kMaybe : Command::kNone;
}

void CaptureControl::Execute(Command command, int fd, const std::string& address, PacketCapture& capture,
                             core::Logger& logger) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != 0 && peer.uid != ::geteuid())) {
        logger.Warning("packet capture: user %u is not allowed to control it", peer.uid);
    } else if (command == Command::kStop) {
        capture.Close();
    } else {
        const std::string file = PacketCapture::FileFor(address);
        if (!capture.Open(file)) {
            logger.Error("packet capture: cannot write %s", file.c_str());
        }
    }
}

}  // namespace zarip::osa
