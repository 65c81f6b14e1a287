// SPDX-License-Identifier: MIT

#include "zarip/core/JsonUtils.h"

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <cajun/json/writer.h>

#include <cmath>
#include <istream>
#include <limits>
#include <streambuf>

#include "core/JsonCheck.h"
#include "core/TextStream.h"

namespace zarip::core {

namespace {

/// Cuts towards zero, within the range of the type. A plain conversion of a number outside of it would depend
/// on the processor.
template <class Int>
Int Truncate(double value) {
    using Limits = std::numeric_limits<Int>;
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= static_cast<double>(Limits::max())) {
        return Limits::max();
    }
    if (value <= static_cast<double>(Limits::min())) {
        return Limits::min();
    }
    return static_cast<Int>(value);
}

/// A string as a stream buffer, without a copy.
class TextBuffer : public std::streambuf {
public:
    explicit TextBuffer(std::string_view text) {
        char* const begin = const_cast<char*>(text.data());  // reading does not change it
        setg(begin, begin, begin + text.size());
    }
};

template <class Element>
Element Read(std::string_view text) {
    CheckJson(text);
    TextBuffer buffer(text);
    std::istream stream(&buffer);
    Element element;
    json::Reader::Read(element, stream);
    return element;
}

/// Parses a document of one kind, recognised by its first character.
template <class Element>
Element ReadKind(std::string_view text, char first) {
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string_view::npos || text[begin] != first) {
        CheckJson(text);
        throw json::Exception("Bad cast");
    }
    return Read<Element>(text);
}

template <class Plain, class Element>
Plain GetPlain(const json::Object& object, const std::string& name, const Plain& fallback,
               Plain (*convert)(const Element&)) {
    struct NullVisitor : JsonUtils::ConstVisitor {
        using JsonUtils::ConstVisitor::Visit;
        void Visit(const json::Null& /*null*/) override { isNull = true; }
        bool isNull = false;
    } visitor;
    const json::Object::const_iterator member = object.Find(name);
    if (member == object.End()) {
        return fallback;
    }
    member->element.Accept(visitor);
    return visitor.isNull ? fallback : convert(static_cast<const Element&>(member->element));
}

/// Writes an element of any kind, pretty or not. Some element models support only one of the two.
class TextVisitor final : public JsonUtils::ConstVisitor {
public:
    explicit TextVisitor(bool pretty) : _pretty(pretty) {}
    void Visit(const json::Array& array) override { json::Writer::Write(array, _stream, _pretty); }
    void Visit(const json::Object& object) override { json::Writer::Write(object, _stream, _pretty); }
    void Visit(const json::Number& number) override { json::Writer::Write(number, _stream); }
    void Visit(const json::String& text) override { json::Writer::Write(text, _stream); }
    void Visit(const json::Boolean& value) override { json::Writer::Write(value, _stream); }
    void Visit(const json::Null& null) override { json::Writer::Write(null, _stream); }
    std::string GetText() const { return _stream.str(); }

private:
    const bool _pretty;
    OutputText _stream;
};

}  // namespace

int JsonUtils::AsInt(const json::TrivialType_T<double>& number) {
    const double value = number.Value();
    return Truncate<int>(value < 0 ? value - 0.5 : value + 0.5);
}

unsigned JsonUtils::AsUnsigned(const json::TrivialType_T<double>& number) {
    const double value = number.Value() + 0.5;
    return value < 0 ? static_cast<unsigned>(Truncate<int>(value)) : Truncate<unsigned>(value);
}

double JsonUtils::AsDouble(const json::TrivialType_T<double>& number) {
    return number.Value();
}

std::string JsonUtils::AsString(const json::TrivialType_T<std::string>& text) {
    return text.Value();
}

bool JsonUtils::AsBool(const json::TrivialType_T<bool>& value) {
    return value.Value();
}

std::vector<std::string> JsonUtils::AsStringVector(const json::Array& array) {
    std::vector<std::string> texts;
    texts.reserve(array.Size());
    for (auto element = array.Begin(); element != array.End(); ++element) {
        const json::String& text = *element;
        texts.push_back(text.Value());
    }
    return texts;
}

const json::UnknownElement JsonUtils::Parse(std::string_view text) {
    return Read<json::UnknownElement>(text);
}

json::Object JsonUtils::ParseObject(std::string_view text) {
    return ReadKind<json::Object>(text, '{');
}

json::Array JsonUtils::ParseArray(std::string_view text) {
    return ReadKind<json::Array>(text, '[');
}

std::string JsonUtils::ToString(const json::UnknownElement& element, bool pretty) {
    TextVisitor visitor(pretty);
    element.Accept(visitor);
    return visitor.GetText();
}

std::string JsonUtils::Get(const json::Object& object, const std::string& name, const std::string& fallback) {
    return GetPlain(object, name, fallback, AsString);
}

std::string JsonUtils::Get(const json::Object& object, const std::string& name, const char* fallback) {
    return Get(object, name, std::string(fallback));
}

int JsonUtils::Get(const json::Object& object, const std::string& name, int fallback) {
    return GetPlain(object, name, fallback, AsInt);
}

unsigned JsonUtils::Get(const json::Object& object, const std::string& name, unsigned fallback) {
    return GetPlain(object, name, fallback, AsUnsigned);
}

double JsonUtils::Get(const json::Object& object, const std::string& name, double fallback) {
    return GetPlain(object, name, fallback, AsDouble);
}

bool JsonUtils::Get(const json::Object& object, const std::string& name, bool fallback) {
    return GetPlain(object, name, fallback, AsBool);
}

JsonUtils::ConstVisitor::~ConstVisitor() = default;
void JsonUtils::ConstVisitor::Visit(const json::Array& /*array*/) {}
void JsonUtils::ConstVisitor::Visit(const json::Object& /*object*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<double>& /*number*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<std::string>& /*text*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<bool>& /*value*/) {}
void JsonUtils::ConstVisitor::Visit(const json::Null& /*null*/) {}

}  // namespace zarip::core
