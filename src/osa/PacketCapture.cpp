// SPDX-License-Identifier: MIT

#include "osa/PacketCapture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "zarip/core/Logger.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

namespace {

constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kPrefixSize = 78;
constexpr std::uint32_t kPacketOverhead = 62;  // the bytes before the payload within a packet
constexpr std::uint32_t kSnapLength = 65'535;
constexpr std::size_t kMaxPayload = kSnapLength - kPacketOverhead;
constexpr unsigned int kUdp = 17;
/// The limit matters because most devices have this folder in memory.
constexpr std::size_t kMaxFile = std::size_t{64} * 1024 * 1024;

template <class T>
void PutLittle(unsigned char* at, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        at[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

void PutBig16(unsigned char* at, std::uint32_t value) {
    at[0] = static_cast<unsigned char>(value >> 8);
    at[1] = static_cast<unsigned char>(value);
}

std::uint32_t Checksum(const unsigned char* data, std::size_t length, std::uint32_t sourcePort,
                       std::uint32_t destinationPort) {
    std::uint32_t sum = sourcePort + destinationPort + kUdp + 2 * static_cast<std::uint32_t>(length + 8);
    for (std::size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
    }
    if (length % 2 != 0) {
        sum += static_cast<std::uint32_t>(data[length - 1] << 8);
    }
    sum += sum >> 16;
    const std::uint32_t checksum = ~sum & 0xFFFFU;
    return checksum != 0 ? checksum : 0xFFFFU;
}

}  // namespace

std::string PacketCapture::FileFor(const std::string& address) {
    const std::size_t slash = address.rfind('/');
    return slash == std::string::npos ? "/tmp/tcpdump.pcap" : "/tmp" + address.substr(slash) + ".pcap";
}

bool PacketCapture::Open(const std::string& path) {
    const MutexAutoLock lock(&_mutex);
    CloseFile();
    // The file is not truncated before its owner is checked, because any user may put a link or a file into
    // /tmp.
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0666));
    struct stat status {};
    if (!file.IsValid() || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != ::geteuid() || status.st_nlink != 1 || ::ftruncate(file.Get(), 0) != 0) {
        return false;
    }
    unsigned char header[kHeaderSize] = {};
    PutLittle<std::uint32_t>(header, 0xA1B2C3D4U);
    PutLittle<std::uint16_t>(header + 4, 2);
    PutLittle<std::uint16_t>(header + 6, 4);
    PutLittle<std::uint32_t>(header + 16, kSnapLength);
    PutLittle<std::uint32_t>(header + 20, 1);
    if (::write(file.Get(), header, sizeof(header)) != static_cast<ssize_t>(sizeof(header))) {
        return false;
    }
    _file = std::move(file);
    _written = sizeof(header);
    _isOpen = true;
    return true;
}

void PacketCapture::Close() {
    const MutexAutoLock lock(&_mutex);
    CloseFile();
}

void PacketCapture::Dump(unsigned short sourcePort, unsigned short destinationPort, const void* data,
                         std::size_t length) {
    if (!_isOpen) {
        return;
    }
    bool isFull = false;
    {
        const MutexAutoLock lock(&_mutex);
        const auto* bytes = static_cast<const unsigned char*>(data);
        while (length > 0 && _file.IsValid()) {
            const std::size_t part = std::min(length, kMaxPayload);
            isFull = kPrefixSize + part > kMaxFile - _written;
            if (isFull) {
                CloseFile();
                break;
            }
            DumpRecord(sourcePort, destinationPort, bytes, part);
            bytes += part;
            length -= part;
        }
    }
    if (isFull) {
        core::Logger::GetLogger("TcpServer")->Warning("packet capture: stopped, the file has reached 64 MiB");
    }
}

void PacketCapture::CloseFile() {
    _file = UniqueFd();
    _isOpen = false;
}

void PacketCapture::DumpRecord(unsigned short sourcePort, unsigned short destinationPort,
                               const unsigned char* data, std::size_t length) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto payload = static_cast<std::uint32_t>(length);
    unsigned char prefix[kPrefixSize] = {};
    PutLittle(prefix, static_cast<std::uint32_t>(now.tv_sec));
    PutLittle(prefix + 4, static_cast<std::uint32_t>(now.tv_nsec / 1000));
    PutLittle(prefix + 8, payload + kPacketOverhead);
    PutLittle(prefix + 12, payload + kPacketOverhead);
    // Deliberate: the type of an IPv4 packet before a header of the shape of IPv6. The tools that read the
    // device's captures take the payload from its fixed place and have always seen these bytes.
    prefix[28] = 0x08;
    prefix[30] = 0x60;
    PutBig16(prefix + 34, payload + 8);
    prefix[36] = kUdp;
    prefix[37] = 64;
    PutBig16(prefix + 70, sourcePort);
    PutBig16(prefix + 72, destinationPort);
    PutBig16(prefix + 74, payload + 8);
    PutBig16(prefix + 76, Checksum(data, length, sourcePort, destinationPort));
    const iovec parts[] = {{prefix, sizeof(prefix)}, {const_cast<unsigned char*>(data), length}};
    if (::writev(_file.Get(), parts, 2) != static_cast<ssize_t>(sizeof(prefix) + length)) {
        // The disk is full. Half a record would make the rest of the file unreadable.
        CloseFile();
    }
    _written += sizeof(prefix) + length;
}

}  // namespace zarip::osa
