// SPDX-License-Identifier: MIT

#pragma once

#include <sstream>
#include <string>

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <cajun/json/writer.h>

/// Reads a document of the kind asked for.
template <class Element = json::UnknownElement>
Element Parse(const std::string& text) {
    std::istringstream stream(text);
    Element element;
    json::Reader::Read(element, stream);
    return element;
}

template <class Element, class... Pretty>
std::string ToText(const Element& element, Pretty... pretty) {
    std::ostringstream stream;
    json::Writer::Write(element, stream, pretty...);
    return stream.str();
}

template <class Call>
std::string TextOfException(Call call) {
    try {
        call();
    } catch (const json::Exception& exception) {
        return exception.what();
    }
    return "nothing thrown";
}
