// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "osa/UniqueFd.h"
#include "zarip/osa/Mutex.h"

namespace zarip::osa {

/// The packet capture of a server, shared by its connections, which may outlive it. *Thread-safe*: a mutex
/// guards the file, and each packet is written at once.
class PacketCapture {
public:
    /// The file that a server with this address captures to.
    static std::string FileFor(const std::string& address);

    /// Opens the file and writes the header; only a regular file of this process's own user is written to.
    /// Closes an open capture first. False if the file cannot be used.
    bool Open(const std::string& path);
    void Close();

    /// Appends a packet if a capture is open. A payload that is too long for one record is split into
    /// several. The capture ends, with a record in the log, before its file exceeds 64 MiB.
    void Dump(unsigned short sourcePort, unsigned short destinationPort, const void* data,
              std::size_t length);

private:
    void CloseFile() ZARIP_REQUIRES(_mutex);
    void DumpRecord(unsigned short sourcePort, unsigned short destinationPort, const unsigned char* data,
                    std::size_t length) ZARIP_REQUIRES(_mutex);

    std::atomic<bool> _isOpen{false};
    Mutex _mutex{"PacketCapture"};
    UniqueFd _file ZARIP_GUARDED_BY(_mutex);
    std::size_t _written ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::osa
