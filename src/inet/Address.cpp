// SPDX-License-Identifier: MIT

#include "inet/Address.h"

namespace zarip::inet {

namespace {

template <std::size_t size>
void CopyIfItFits(std::string_view text, char (&field)[size]) {
    field[text.size() < size ? text.copy(field, size - 1) : 0] = '\0';
}

}  // namespace

unsigned short ParsePort(std::string_view text) {
    unsigned int port = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        port = (port * 10 + static_cast<unsigned int>(c - '0')) & 0xFFFFU;
    }
    return static_cast<unsigned short>(port);
}

void SetAddressTexts(std::string_view ipv4, std::string_view ipv6, _ipaddr_t& out) {
    CopyIfItFits(ipv4, out.ipv4);
    CopyIfItFits(ipv6, out.ipv6);
}

_ipaddr_t ParseAddress(std::string_view text) {
    _ipaddr_t address{};
    std::size_t separator = text.rfind('/');
    if (separator == std::string_view::npos && text.find(':') == text.rfind(':')) {
        separator = text.find(':');
    }
    if (separator != std::string_view::npos) {
        address.port = ParsePort(text.substr(separator + 1));
        text = text.substr(0, separator);
    }
    const bool isIpv6 = text.find(':') != text.rfind(':');
    SetAddressTexts(isIpv6 ? "" : text, isIpv6 ? text : "", address);
    return address;
}

}  // namespace zarip::inet
