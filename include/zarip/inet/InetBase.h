// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An IPv4 address, an IPv6 address and a port. The addresses are zero-terminated strings, which are empty if
/// there is no such address.
struct _ipaddr_t {
    char ipv4[16];
    char ipv6[68];
    unsigned short port;
};

/// A time since 1970-01-01 00:00:00 UTC.
struct _timeval_t {
    unsigned int seconds;
    unsigned int microseconds;
};

/// The time stamp, destination and source of a message. A new message has the current time, and the address
/// 0.0.0.0 and port 0 for both ends. *One thread at a time*.
class ZARIP_EXPORT InetBase {
public:
    InetBase();
    InetBase(const InetBase& other);
    InetBase& operator=(const InetBase& other);

    virtual const _timeval_t& GetTimeStamp() const;
    virtual void SetTimeStamp(const _timeval_t& timeStamp);
    virtual const _ipaddr_t& GetDest() const;
    virtual void SetDest(const _ipaddr_t& dest);
    virtual const _ipaddr_t& GetSource() const;
    virtual void SetSource(const _ipaddr_t& source);
    virtual ~InetBase();

private:
    _timeval_t _timeStamp;
    _ipaddr_t _dest;
    _ipaddr_t _source;
};

}  // namespace zarip::inet
