// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <cajun/json/elements.h>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Parses and writes JSON, and converts JSON elements to plain values. *Thread-safe.*
class ZARIP_EXPORT JsonUtils {
public:
    JsonUtils() = delete;

    /// Rounds to the nearest integer, halves away from zero. A number outside the range of an int becomes the
    /// nearest limit; NaN becomes 0.
    static int AsInt(const json::TrivialType_T<double>& number);

    /// Rounds to the nearest integer, halves upwards; a number outside the range is treated as by `AsInt`.
    /// Deliberate: a negative number is not refused but converted as a signed one, so -1 gives 0 and -2 gives
    /// all bits set. Existing documents rely on it.
    static unsigned AsUnsigned(const json::TrivialType_T<double>& number);

    static double AsDouble(const json::TrivialType_T<double>& number);
    static std::string AsString(const json::TrivialType_T<std::string>& text);
    static bool AsBool(const json::TrivialType_T<bool>& value);

    /// Throws `json::Exception` "Bad cast" if an element is not a string.
    static std::vector<std::string> AsStringVector(const json::Array& array);

    /// Reads a document from outside: from a file, the bus or the network. It accepts exactly one document of
    /// RFC 8259, in UTF-8, with numbers that fit a double, at most 200 levels, 1,000,000 elements and 10,000
    /// members in an object. This does not depend on the installed element model. Anything else, and also two
    /// members with the same name, throws `json::Exception`, for example "invalid JSON: unexpected end (line
    /// 1, column 2)".
    ///
    /// The result is constant, so that it converts only to its own kind: `json::Object object = Parse(text)`
    /// throws "Bad cast" for an array.
    static const json::UnknownElement Parse(std::string_view text);

    /// These functions do the same for a document that is an object or an array. They throw "Bad cast" for
    /// another kind.
    static json::Object ParseObject(std::string_view text);
    static json::Array ParseArray(std::string_view text);

    /// Writes an element as JSON; with `pretty`, each element is on a line of its own.
    static std::string ToString(const json::UnknownElement& element, bool pretty = false);

    /// Returns the value of a member, or `fallback` if the object has no member of that name or the member is
    /// null. Throws `json::Exception` "Bad cast" if the value has another kind, because the fallback would
    /// hide a mistake in the document. Numbers are rounded as by `AsInt` and `AsUnsigned`.
    static std::string Get(const json::Object& object, const std::string& name, const std::string& fallback);
    static std::string Get(const json::Object& object, const std::string& name, const char* fallback);
    static int Get(const json::Object& object, const std::string& name, int fallback);
    static unsigned Get(const json::Object& object, const std::string& name, unsigned fallback);
    static double Get(const json::Object& object, const std::string& name, double fallback);
    static bool Get(const json::Object& object, const std::string& name, bool fallback);

    class ConstVisitor;
};

/// A visitor whose functions do nothing. A derived class overrides those for the kinds of element that it
/// needs.
class ZARIP_EXPORT JsonUtils::ConstVisitor : public json::ConstVisitor {
public:
    ~ConstVisitor() override;
    void Visit(const json::Array& array) override;
    void Visit(const json::Object& object) override;
    void Visit(const json::TrivialType_T<double>& number) override;
    void Visit(const json::TrivialType_T<std::string>& text) override;
    void Visit(const json::TrivialType_T<bool>& value) override;
    void Visit(const json::Null& null) override;
};

}  // namespace zarip::core
