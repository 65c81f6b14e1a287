// SPDX-License-Identifier: MIT

#include <algorithm>
#include <map>
#include <string>

#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/ParserException.h>
#include <zarip/inet/Url.h>

#include "Targets.h"

namespace fuzz {

namespace {

using namespace zarip::inet;
using Values = std::map<std::string, std::string>;

std::string Decode(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    return Url::Decode(text);
}

/// The rules once more, one step after the other; what is thrown.
std::string ReadQuery(const std::string& query, Values& values) {
    std::size_t next = 0;
    while (next < query.size()) {
        const std::size_t end = std::min(query.find_first_of("&;", next), query.size());
        const std::string pair = query.substr(next, end - next);
        next = end + 1;
        const std::size_t equals = pair.find('=');
        if (equals == std::string::npos) {
            return "BadRequest";
        }
        try {
            std::string name = Decode(pair.substr(0, equals));
            const std::string value = Decode(pair.substr(equals + 1));
            zarip::core::StringUtil::ToUpper(name);
            values[name] = value;
        } catch (const char* text) {
            return text;
        }
    }
    return "";
}

void ReadCookies(const std::string& text, Values& values) {
    for (std::string piece : zarip::core::StringUtil::Split(text, ';')) {
        piece.erase(0, piece.find_first_not_of(" \t"));
        const std::size_t equals = piece.find('=');
        if (equals == std::string::npos || equals == 0) {
            continue;
        }
        values.erase(piece.substr(0, equals));
        if (equals + 1 < piece.size()) {
            values[piece.substr(0, equals)] = piece.substr(equals + 1);
        }
    }
}

void CheckQuery(const std::string& query, bool isForm) {
    Values expected;
    const std::string expectedError = ReadQuery(query, expected);
    HttpRequest request;
    std::string error;
    try {
        HttpParser::ParseQuery(request, query, isForm);
    } catch (const ParserException& e) {
        error = e.what();
    } catch (const char* text) {
        error = text;
    }
    Check(error == expectedError, "a query throws what its first wrong pair says");
    for (const auto& [name, value] : expected) {
        const std::string* const found =
            isForm ? request.GetFormParameter(name) : request.GetQueryParameter(name);
        Check(found != nullptr && *found == value, "a query holds its pairs");
    }
}

}  // namespace

/// A query up to the first line feed, a cookie header behind it.
FUZZ_TARGET(query) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    CheckQuery(input.substr(0, end), false);
    CheckQuery(input.substr(0, end), true);

    const std::string cookies = input.substr(std::min(end + 1, input.size()));
    HttpRequest request;
    try {
        request.SetHeader("cookie", cookies);
    } catch (const ParserException&) {
        Check(request.GetHeader("Cookie") == nullptr, "a refused header changes nothing");
        return;
    }
    Values expected;
    ReadCookies(cookies, expected);
    for (const auto& [name, value] : expected) {
        const std::string* const found = request.GetCookie(name);
        Check(found != nullptr && *found == value, "a header holds its cookies");
    }
}

}  // namespace fuzz
