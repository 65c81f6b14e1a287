// SPDX-License-Identifier: MIT

#include <sstream>
#include <string>

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <cajun/json/writer.h>
#include <zarip/core/JsonUtils.h>

#include "Targets.h"

namespace fuzz {

namespace {

std::string ToText(const json::UnknownElement& element) {
    std::ostringstream stream;
    json::Writer::Write(element, stream);
    return stream.str();
}

/// Whether the check for text from outside lets it through, and the model reads it then.
bool IsParsed(const std::string& input) {
    try {
        zarip::core::JsonUtils::Parse(input);
        return true;
    } catch (const json::Exception&) {
        return false;
    }
}

}  // namespace

FUZZ_TARGET(json) {
    const bool isParsed = IsParsed(input);
    json::UnknownElement element;
    try {
        std::istringstream stream(input);
        json::Reader::Read(element, stream);
    } catch (const json::Exception&) {
        Check(!isParsed, "what the check lets through is read");
        return;
    }
    Check(isParsed, "what is read is let through by the check");
    const std::string text = ToText(element);
    json::UnknownElement again;
    std::istringstream stream(text);
    json::Reader::Read(again, stream);
    Check(again == element, "what was written reads as the same elements");
    Check(ToText(again) == text, "what was written and read is the same");
}

}  // namespace fuzz
