#pragma once

#include <string>
#include <vector>

#include <cajun/json/visitor.h>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// From JSON elements to plain values. *Thread-safe.*
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
