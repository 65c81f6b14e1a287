// SPDX-License-Identifier: MIT

#include "inet/UrlText.h"

#include <cstring>

#include "cutil/url.h"

namespace zarip::inet {

void ThrowUndecodable() {
    throw "url_decode() failed";
}

void DecodeUrl(std::string& text) {
    // Decoding never makes a string longer, so the string is its own buffer.
    if (cutil::url_decode(text.data(), text.size(), text.data(), text.size() + 1) < 0) {
        ThrowUndecodable();
    }
    text.resize(std::strlen(text.c_str()));
}

}  // namespace zarip::inet
