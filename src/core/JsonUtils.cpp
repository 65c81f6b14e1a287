#include "zarip/core/JsonUtils.h"

#include <cajun/json/elements.h>

#include <cmath>
#include <limits>

namespace zarip::core {

namespace {

/// Cuts towards zero. Elsewhere than here the result of a number out of range would depend on the processor.
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

JsonUtils::ConstVisitor::~ConstVisitor() = default;
void JsonUtils::ConstVisitor::Visit(const json::Array& /*array*/) {}
void JsonUtils::ConstVisitor::Visit(const json::Object& /*object*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<double>& /*number*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<std::string>& /*text*/) {}
void JsonUtils::ConstVisitor::Visit(const json::TrivialType_T<bool>& /*value*/) {}
void JsonUtils::ConstVisitor::Visit(const json::Null& /*null*/) {}

}  // namespace zarip::core
