// SPDX-License-Identifier: MIT

#pragma once

#include <sstream>
#include <string>

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <cajun/json/writer.h>

#include "support/ErrorOf.h"

using json::Array;
using json::Boolean;
using json::Null;
using json::Number;
using json::Object;
using json::String;
using json::UnknownElement;

/// Reads a document of the requested kind.
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
    return zarip::test::ErrorOf<json::Exception>(call);
}
