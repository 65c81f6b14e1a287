// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// A bound datagram socket. One that is bound to an IPv6 address receives IPv4 on the same port too, on every
/// IPv4 address of the machine.
///
/// *Thread-safe*, except `OpenAndBindSocket`, `Close` and destruction, which no other operation may overlap.
/// Time-outs are in whole seconds, 0xFFFFFFFF waits without limit and 0 does not wait. Failures throw
/// `SocketException`; with `SocketGeneralError` where nothing else is said. Signals end no operation, and no
/// descriptor is inherited by programs that the process starts.
///
/// A reused port is no secret: where the system allows it another local program can bind it as well, and the
/// system then decides who gets a datagram that is not multicast. Trust no datagram for its port.
class ZARIP_EXPORT UdpSocket {
public:
    /// Where a datagram came in and where it comes from. Texts are zero-terminated, and empty for the family
    /// that the datagram is not of.
    struct Info {
        char localIpv4[16];        ///< the destination: the group's address for a multicast datagram
        char localIpv6[46];        ///< as above
        unsigned short localPort;  ///< the socket's
        char remoteIpv4[16];
        char remoteIpv6[46];
        unsigned short remotePort;
    };

    /// Binds; port 0 takes a free one, see `GetLocalPort`. "::" falls back to "0.0.0.0" on a machine
    /// without IPv6. Throws "Invalid Address" (`SocketConfigError`), "Failed to create pipe" and what
    /// `OpenAndBindSocket` throws.
    /// @param address  numeric, IPv4 or IPv6.
    /// @param reuse  whether others may bind the same port; for IPv6 they always may.
    UdpSocket(const char* address, unsigned short port, signed char reuse);
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    virtual ~UdpSocket();

    /// Opens the socket of the address's family and binds it to the object's port, in place of the one that
    /// was open; the constructor calls it. Throws "Invalid Socket", "setting SO_REUSEADDR", "setting
    /// IP_PKTINFO", "setting V6ONLY", "setting IPV6_PKTINFO" and "Unable to bind socket", all but the first
    /// with `SocketConfigError`, and "Invalid Address".
    void OpenAndBindSocket(const char* address, bool reuse);

    /// Sends one datagram. Throws "Invalid Address" for a host that is not numeric, "Socket Error", "Invalid
    /// Socket" when there is no socket of its family.
    void SendTo(const unsigned char* data, unsigned int length, const char* host, unsigned short port) const;

    /// Receives one datagram and returns its length, 0 for an empty one. What is longer than the buffer is
    /// cut. Buffer and `info` change only on success. Throws "Timeout" (`SocketTimeout`), "Socket was closed"
    /// once it was cancelled, "Invalid Socket", "Socket Error", "unknown family".
    unsigned int RecvFrom(unsigned char* buffer, unsigned int length, Info& info,
                          unsigned int timeoutSeconds) const;

    /// Ends receiving for good: a `RecvFrom` that waits, and every later one.
    void CancelRecv();

    /// May be called twice.
    void Close();

    /// The port bound to.
    unsigned short GetLocalPort() const;

    /// Join and leave a group. The interface is the one that the system's routes name for the group, or that
    /// of an IPv6 group with a scope ("ff02::c%eth0"). Only datagrams of groups that this socket has joined
    /// arrive, whatever other programs have joined. The forms with a source, for IPv4 only, let in the
    /// datagrams of that source alone.
    ///
    /// Throw "UdpSocket::AddMembership(<group>): " (for the others Drop, AddSource, DropSource) followed by
    /// "invalid address", "IPv6 address on IPv4 socket", "IPv6 does not support source-specific multicast" or
    /// "IP_ADD_MEMBERSHIP failed with errno: <number>" and its like; and "Invalid Socket".
    void AddMembership(const char* group) const;
    void DropMembership(const char* group) const;
    void AddSourceMembership(const char* group, const char* source) const;
    void DropSourceMembership(const char* group, const char* source) const;

    /// All of the four above.
    /// @param source  null for the forms without a source.
    void AddDropMembership(const char* group, bool add, const char* source) const;

private:
    friend class UdpServer;
    struct Impl;

    bool PauseAfterFailure() const;
    bool ReceiveWaiting(unsigned char* buffer, unsigned int length, Info& info, unsigned int& received) const;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
