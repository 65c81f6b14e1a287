#include <zarip/core/JsonUtils.h>

#include <cajun/json/elements.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace zarip::core {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinite = std::numeric_limits<double>::infinity();

TEST(JsonUtilsTest, NumbersAreRoundedAndStayInRange) {
    const struct {
        double number;
        int asInt;
        unsigned asUnsigned;
    } cases[] = {
        {0, 0, 0},
        {2.4999, 2, 2},
        {2.5, 3, 3},
        {7.5, 8, 8},
        {-0.4, 0, 0},
        {-1, -1, 0},
        {-2, -2, 0xFFFFFFFF},
        {-2.5, -3, 0xFFFFFFFE},
        {2147483646.5, 2147483647, 2147483647},
        {3e9, 2147483647, 3'000'000'000},
        {4294967295.0, 2147483647, 4294967295},
        {1e300, 2147483647, 4294967295},
        {-1e300, -2147483647 - 1, 0x80000000},
        {kInfinite, 2147483647, 4294967295},
        {kNan, 0, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(JsonUtils::AsInt(c.number), c.asInt) << c.number;
        EXPECT_EQ(JsonUtils::AsUnsigned(c.number), c.asUnsigned) << c.number;
    }
    EXPECT_EQ(JsonUtils::AsDouble(-0.125), -0.125);
    EXPECT_EQ(JsonUtils::AsString(json::String("a\0b")), "a");
    EXPECT_TRUE(JsonUtils::AsBool(true));
}

TEST(JsonUtilsTest, AnArrayOfStringsBecomesAVectorOrNothing) {
    json::Array array;
    EXPECT_TRUE(JsonUtils::AsStringVector(array).empty());
    array.Insert(json::String("one"));
    array.Insert(json::String("two"));
    EXPECT_EQ(JsonUtils::AsStringVector(array), (std::vector<std::string>{"one", "two"}));
    array.Insert(json::Number(3));
    try {
        JsonUtils::AsStringVector(array);
        FAIL();
    } catch (const json::Exception& e) {
        EXPECT_STREQ(e.what(), "Bad cast");
    }
}

TEST(JsonUtilsTest, AVisitorOverridesOnlyWhatItCaresAbout) {
    struct NumberVisitor : JsonUtils::ConstVisitor {
        using JsonUtils::ConstVisitor::Visit;
        void Visit(const json::Number& number) override { sum += number.Value(); }
        double sum = 0;
    } visitor;
    const std::vector<json::UnknownElement> elements = {
        json::Number(1), json::String("2"), json::Boolean(true), json::Null(),
        json::Array(),   json::Object(),    json::Number(2)};
    for (const json::UnknownElement& element : elements) {
        element.Accept(visitor);
    }
    EXPECT_EQ(visitor.sum, 3);
}

}  // namespace
}  // namespace zarip::core
