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

    /// Returns `AF_INET` or `AF_INET6`, or 0 for a string that is not an address.
    static int IpAddressFamily(const std::string& address);

    /// Returns whether the string is a multicast address. Returns false for a string that is not an address.
    /// Deliberate: only the first group of the address is checked (224 to 239, or ff00 to ffff), because it
    /// alone makes an address a multicast address.
    static bool IsMulticastAddress(const std::string& address);

    /// Sets the networking service that is asked, *not owned*; it must outlive the last query. Null restores
    /// the service on the bus.
    static void SetProvider(interfaces::INetworkingV2Provider* provider);

    /// Returns the provider in use, *not owned*. If none was set, it is a client of the networking service on
    /// a bus connection of its own. The first call makes both, and they exist until the process ends. Throws
    /// what `msgbus::MsgBus` throws; the next call then tries again.
    static interfaces::INetworkingV2Provider* GetProvider();

    /// Returns the current IPv4 address of the device.
    ///
    /// This function and the next two ask the networking service. They wait for up to the `_timeout` of the
    /// provider, which is 5 seconds unless it was changed. The process that serves the networking service
    /// must not call them from its own handlers. Every failure throws `Exception` "Failed to determine our IP
    /// address", or "Failed to determine our hardware address" for the EUI-64.
    static std::string GetIpAddress();

    /// Returns the list of IPv6 addresses in the notation of the networking service.
    static std::string GetIpv6Addresses();

    /// Returns the EUI-64 of the interface eth0.
    static std::string GetEui64();
};

}  // namespace zarip::osa
