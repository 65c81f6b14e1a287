// SPDX-License-Identifier: MIT

#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>

#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/InetBase.h>
#include <zarip/inet/ParserException.h>
#include <zarip/inet/Url.h>

#include "Targets.h"

namespace fuzz {

namespace {

using zarip::inet::Url;

auto PartsOf(const Url& url) {
    return std::make_tuple(url.GetScheme(), url.GetUser(), url.GetPassword(), url.GetHost(), url.GetPort(),
                           url.GetPath(), url.GetQuery());
}

void CheckParts(const Url& url) {
    zarip::inet::_ipaddr_t address{};
    url.GetIpAddr(address);
    Check(std::memchr(address.ipv4, 0, sizeof address.ipv4) != nullptr &&
              std::memchr(address.ipv6, 0, sizeof address.ipv6) != nullptr,
          "the texts of an address end");
    Check(PartsOf(Url(url.ToString())) == PartsOf(url), "a URL that was printed has the same parts");
    zarip::inet::HttpRequest request;
    try {
        request.SetUrl(url);
        Check(request.GetPath() == Url::Decode(url.GetPath()), "the path of a request is the URL's");
    } catch (const zarip::inet::ParserException&) {
    } catch (const char*) {
    }
}

}  // namespace

FUZZ_TARGET(url) {
    using Class = zarip::inet::Url;
    Check(Class::Decode(Class::Encode(input)) == input.c_str(), "what was encoded decodes to the same text");
    try {
        const std::string decoded = Class::Decode(input);
        Check(decoded.size() <= input.size(), "decoding never makes a text longer");
    } catch (const char* text) {
        Check(std::strcmp(text, "url_decode() failed") == 0, "decoding fails with its own text");
    }
    std::string text;
    try {
        text = Class(input).ToString();
    } catch (const std::invalid_argument& e) {
        Check(std::strncmp(e.what(), "Invalid uri: ", 13) == 0, "a URL is refused with its own text");
        return;
    }
    CheckParts(Class(input));
}

}  // namespace fuzz
