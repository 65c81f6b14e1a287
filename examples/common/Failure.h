// SPDX-License-Identifier: MIT

#pragma once

#include <cajun/json/elements.h>

#include <string>

#include <zarip/core/JsonUtils.h>
#include <zarip/inet/HttpResponse.h>

/// Thrown by a handler of requests to answer with an error.
struct Failure {
    int code;
    std::string reason;
};

inline std::string Quote(const std::string& text) {
    return zarip::core::JsonUtils::ToString(json::String(text));
}

inline void Answer(zarip::inet::HttpResponse& response, int code, const std::string& json) {
    response.SetCode(code);
    response.SetHeader("Content-Type", "application/json");
    response.SetBody(json);
}

inline void Answer(zarip::inet::HttpResponse& response, const Failure& failure) {
    Answer(response, failure.code, "{\"error\":" + Quote(failure.reason) + "}");
}
