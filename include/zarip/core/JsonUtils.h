// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <cajun/json/elements.h>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// From text to JSON elements, and from them to plain values. *Thread-safe.*
class ZARIP_EXPORT JsonUtils {
public:
    JsonUtils() = delete;

    /// Rounded, halves away from zero. What an int cannot hold becomes the nearest that it can, what is not a
    /// number 0.
    static int AsInt(const json::TrivialType_T<double>& number);

    /// Rounded, halves upwards; beyond the range as in `AsInt`. Deliberate: a negative number is not refused
    /// but converted as a signed one, so -1 gives 0 and -2 all bits set, as documents have always been read.
    static unsigned AsUnsigned(const json::TrivialType_T<double>& number);

    static double AsDouble(const json::TrivialType_T<double>& number);
    static std::string AsString(const json::TrivialType_T<std::string>& text);
    static bool AsBool(const json::TrivialType_T<bool>& value);

    /// Throws `json::Exception` "Bad cast" when an element is not a string.
    static std::vector<std::string> AsStringVector(const json::Array& array);

    /// Reads a text from outside: from a file, the bus or the network. Whichever element model is installed,
    /// the text is one document exactly as RFC 8259 has it, in UTF-8, with numbers that fit a double, at most
    /// 200 levels, 1,000,000 elements and 10,000 members in an object. Anything else throws
    /// `json::Exception`, "invalid JSON: unexpected end (line 1, column 2)" for example, and so do two
    /// members of one name.
    ///
    /// The element is constant, so that it converts to its own kind only: `json::Object object = Parse(text)`
    /// throws "Bad cast" for an array.
    static const json::UnknownElement Parse(std::string_view text);

    /// The same for a document of that kind; throw "Bad cast" for another.
    static json::Object ParseObject(std::string_view text);
    static json::Array ParseArray(std::string_view text);

    /// The text of an element. @param pretty  an element a line.
    static std::string ToString(const json::UnknownElement& element, bool pretty = false);

    /// The value of a member, or `fallback` if the object has no member of that name, or null. Throws
    /// `json::Exception` "Bad cast" for a value of another kind: that is a fault of the document, which a
    /// fallback would hide. Numbers are rounded as by `AsInt` and `AsUnsigned`.
    static std::string Get(const json::Object& object, const std::string& name, const std::string& fallback);
    static std::string Get(const json::Object& object, const std::string& name, const char* fallback);
    static int Get(const json::Object& object, const std::string& name, int fallback);
    static unsigned Get(const json::Object& object, const std::string& name, unsigned fallback);
    static double Get(const json::Object& object, const std::string& name, double fallback);
    static bool Get(const json::Object& object, const std::string& name, bool fallback);

    class ConstVisitor;
};

/// A visitor that does nothing, for those that care about some kinds of element only.
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
