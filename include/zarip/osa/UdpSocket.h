// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A bound datagram socket. If it is bound to an IPv6 address, it also receives IPv4 datagrams on the same
/// port, on every IPv4 address of the machine.
///
/// *Thread-safe*, except for `OpenAndBindSocket`, `Close` and destruction, which no other operation may
/// overlap. Time-outs are in whole seconds; `kWaitForEver` waits without limit and 0 does not wait. Failures
/// throw `SocketException`, with `SocketGeneralError` unless stated otherwise. Signals do not end an
/// operation. Programs that the process starts do not inherit the descriptors.
///
/// If a port is reused, another local program can bind the same port, as far as the system allows it. The
/// system then decides which of the two sockets receives a datagram that is not multicast, and both programs
/// can send from the port. So the port of a datagram does not prove which program has sent it.
class ZARIP_EXPORT UdpSocket {
public:
    /// The destination and the sender of a datagram. The strings are zero-terminated. Those of the address
    /// family that the datagram does not use are empty.
    struct Info {
        char localIpv4[16];        ///< the destination: the group's address for a multicast datagram
        char localIpv6[46];        ///< as above
        unsigned short localPort;  ///< the port of the socket
        char remoteIpv4[16];
        char remoteIpv6[46];
        unsigned short remotePort;
    };

    /// Binds the socket. Port 0 selects a free port, which `GetLocalPort` returns. "::" falls back to
    /// "0.0.0.0" on a machine without IPv6. Throws "Invalid Address" (`SocketConfigError`), "Failed to create
    /// pipe" and what `OpenAndBindSocket` throws.
    /// @param address  numeric, IPv4 or IPv6.
    /// @param reuse  whether other sockets may bind the same port; for IPv6 they always may.
    UdpSocket(const char* address, unsigned short port, signed char reuse);
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    virtual ~UdpSocket();

    /// Opens a socket of the family of the address, binds it to the port of this object, and closes the
    /// socket that was open. The constructor calls it. Throws "Invalid Socket" and "Invalid Address". Throws
    /// "setting SO_REUSEADDR", "setting IP_PKTINFO", "setting V6ONLY", "setting IPV6_PKTINFO" and "Unable to
    /// bind socket" with `SocketConfigError`.
    void OpenAndBindSocket(const char* address, bool reuse);

    /// Sends one datagram. Throws "Invalid Address" for a host that is not numeric, "Invalid Socket" if there
    /// is no socket of its family, and "Socket Error" if sending fails.
    void SendTo(const unsigned char* data, unsigned int length, const char* host, unsigned short port) const;

    /// Receives one datagram and returns its length, which is 0 for an empty one. The rest of a datagram that
    /// is longer than the buffer is lost. Buffer and `info` change only on success. Throws "Timeout"
    /// (`SocketTimeout`), "Socket was closed" after `CancelRecv`, "Invalid Socket", "Socket Error", "unknown
    /// family".
    unsigned int RecvFrom(unsigned char* buffer, unsigned int length, Info& info,
                          unsigned int timeoutSeconds) const;

    /// Ends a `RecvFrom` that waits on another thread, and lets every later one fail.
    void CancelRecv();

    /// Closes the socket. May be called twice.
    void Close();

    /// Returns the port that the socket is bound to.
    unsigned short GetLocalPort() const;

    /// These functions join and leave a group. The routes of the system determine the network interface,
    /// unless an IPv6 group names it as its scope ("ff02::c%eth0"). The socket receives only datagrams of
    /// groups that it has joined itself, whatever other programs have joined. The forms with a source are for
    /// IPv4 only and accept the datagrams of that source alone.
    ///
    /// They throw "UdpSocket::AddMembership(<group>): ", with the name of the function called, followed by
    /// "invalid address", "IPv6 address on IPv4 socket", "IPv6 does not support source-specific multicast",
    /// or the failed socket option, for example "IP_ADD_MEMBERSHIP failed with errno: <number>". They also
    /// throw "Invalid Socket".
    void AddMembership(const char* group) const;
    void DropMembership(const char* group) const;
    void AddSourceMembership(const char* group, const char* source) const;
    void DropSourceMembership(const char* group, const char* source) const;

    /// Does the same as one of the four functions above.
    /// @param add  true to join, false to leave.
    /// @param source  null for the functions without a source.
    void AddDropMembership(const char* group, bool add, const char* source) const;

private:
    friend class UdpServer;
    struct Impl;

    bool PauseAfterFailure() const;
    bool ReceiveWaiting(unsigned char* buffer, unsigned int length, Info& info, unsigned int& received) const;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
