// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::interfaces {
class INetworkingV2Provider;
}

namespace zarip::osa {

/// Recognises addresses, and queries the addresses of this device. *Thread-safe.*
class ZARIP_EXPORT NetworkUtils {
public:
    NetworkUtils() = delete;

    /// `AF_INET`, `AF_INET6`, or 0 for a string that is not an address.
    static int IpAddressFamily(const std::string& address);

    /// Deliberate: of an address only the first group counts, 224 to 239 and ff00 to ffff, as that is what
    /// makes it a multicast address. False for a string that is not an address.
    static bool IsMulticastAddress(const std::string& address);

    /// Sets the networking service to ask, *not owned*; it must outlive the last query. Null restores the
    /// service on the bus.
    static void SetProvider(interfaces::INetworkingV2Provider* provider);

    /// The provider in use, *not owned*. Without one that was set this is a client of the networking service
    /// on a bus connection of its own; both are made by the first call and live until the process ends.
    /// Throws what `msgbus::MsgBus` throws; the next call then tries again.
    static interfaces::INetworkingV2Provider* GetProvider();

    /// The device's current IPv4 address.
    ///
    /// This and the next two ask the networking service and wait for it up to the provider's `_timeout`, 5 s
    /// unless changed; a process that serves it must not call them from its own handlers. Every failure is
    /// thrown as `Exception` "Failed to determine our IP address", or "Failed to determine our hardware
    /// address" for the EUI-64.
    static std::string GetIpAddress();

    /// As the networking service writes the list.
    static std::string GetIpv6Addresses();

    /// The EUI-64 of the interface eth0.
    static std::string GetEui64();
};

}  // namespace zarip::osa
