// SPDX-License-Identifier: MIT

#include <zarip/core/JsonUtils.h>

#include <cajun/json/elements.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/ErrorOf.h"

namespace zarip::core {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinite = std::numeric_limits<double>::infinity();

template <class Action>
std::string ErrorOf(Action action) {
    return test::ErrorOf<json::Exception>(action);
}

std::string Repeat(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

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
    EXPECT_EQ(ErrorOf([&] { JsonUtils::AsStringVector(array); }), "Bad cast");
}

void ExpectRefused(const std::vector<std::pair<std::string, std::string>>& rows) {
    for (const auto& row : rows) {
        EXPECT_EQ(ErrorOf([&] { JsonUtils::Parse(row.first); }), "invalid JSON: " + row.second)
            << row.first.substr(0, 20);
    }
}

// The same whichever element model is installed: this file is also built with one that trusts its text.
TEST(JsonUtilsTest, SyntaxFromOutsideIsCheckedStrictly) {
    ExpectRefused({
        {"", "unexpected end (line 1, column 1)"},
        {" \n ", "unexpected end (line 2, column 2)"},
        {"[1,\n2", "unexpected end (line 2, column 2)"},
        {"{\"a\"", "unexpected end (line 1, column 5)"},
        {"{\"a\":", "unexpected end (line 1, column 6)"},
        {"[1,]", "unexpected character (line 1, column 4)"},
        {"[,1]", "unexpected character (line 1, column 2)"},
        {"{\"a\":1,}", "unexpected character (line 1, column 8)"},
        {"{a:1}", "unexpected character (line 1, column 2)"},
        {"{\"a\" 1}", "unexpected character (line 1, column 6)"},
        {"[1 2]", "unexpected character (line 1, column 4)"},
        {"[1}", "unexpected character (line 1, column 3)"},
        {"1 2", "unexpected character (line 1, column 3)"},
        {"[]]", "unexpected character (line 1, column 3)"},
        {"'a'", "unexpected character (line 1, column 1)"},
        {"tru", "unexpected character (line 1, column 1)"},
        {"truex", "unexpected character (line 1, column 5)"},
        {"NaN", "unexpected character (line 1, column 1)"},
        {"01", "unexpected character (line 1, column 2)"},
        {"+1", "unexpected character (line 1, column 1)"},
        {"1.", "unexpected end (line 1, column 3)"},
        {"[.5]", "unexpected character (line 1, column 2)"},
        {"[1e]", "unexpected character (line 1, column 4)"},
        {"0x10", "unexpected character (line 1, column 2)"},
        {"[1] // text", "unexpected character (line 1, column 5)"},
        {std::string("[1]\0", 4), "unexpected character (line 1, column 4)"},
        {"\xEF\xBB\xBF[]", "unexpected character (line 1, column 1)"},
    });
    EXPECT_NE(ErrorOf([] { JsonUtils::Parse("{\"a\":1,\"a\":2}"); }), "no exception");
}

TEST(JsonUtilsTest, StringsAndSizesFromOutsideAreCheckedStrictly) {
    ExpectRefused({
        {std::string("\"a\0\"", 4), "control character in a string (line 1, column 3)"},
        {"\"a\nb\"", "control character in a string (line 1, column 3)"},
        {"\"abc", "unexpected end (line 1, column 5)"},
        {"\"\\", "invalid escape (line 1, column 2)"},
        {"\"\\x\"", "invalid escape (line 1, column 2)"},
        {"\"\\u12g4\"", "invalid escape (line 1, column 2)"},
        {"\"\\ud83d\"", "invalid escape (line 1, column 2)"},
        {"\"\\ud83d\\u0041\"", "invalid escape (line 1, column 2)"},
        {"\"a\\udc00\"", "invalid escape (line 1, column 3)"},
        {"\"\xFF\"", "not UTF-8 (line 1, column 2)"},
        {"\"\xC0\xAF\"", "not UTF-8 (line 1, column 2)"},
        {"\"\xED\xA0\x80\"", "not UTF-8 (line 1, column 2)"},
        {"\"\xE2\x82", "not UTF-8 (line 1, column 2)"},
        {"[1e400]", "number too large (line 1, column 2)"},
        {"-1" + Repeat("0", 400), "number too large (line 1, column 1)"},
        {Repeat("[", 100'000), "nested too deep (line 1, column 201)"},
        {Repeat("{\"a\":", 100'000), "nested too deep (line 1, column 1001)"},
        {"[" + Repeat("0,", 1'000'000) + "0]", "too many elements (line 1, column 2000000)"},
        {"{" + Repeat("\"a\":0,", 10'001), "too many members (line 1, column 60002)"},
    });
    for (const std::string& text :
         {std::string("0e400"), std::string("-0e999"), "1" + Repeat("0", 400) + "e-400",
          std::string("1e-400"),
          std::string(
              " [ 1 , -0.5E+2 , {\"\\u00e4\\ud83d\\ude00\" : [ ] , \"b\":{}} , null, true,\r\n\tfalse, "
              "\"\xC3\xA4\" ] "),
          Repeat("[", 200) + Repeat("]", 200), "[" + Repeat("0,", 999'998) + "0]"}) {
        EXPECT_EQ(ErrorOf([&] { JsonUtils::Parse(text); }), "no exception") << text.substr(0, 20);
    }
}

TEST(JsonUtilsTest, DocumentsOfAKindAndMembersWithAFallback) {
    EXPECT_EQ(ErrorOf([] { JsonUtils::ParseObject("[1]"); }), "Bad cast");
    EXPECT_EQ(ErrorOf([] { JsonUtils::ParseArray("{}"); }), "Bad cast");
    EXPECT_EQ(ErrorOf([] { json::Object object = JsonUtils::Parse("[1]"); }), "Bad cast");
    EXPECT_EQ(JsonUtils::ToString(JsonUtils::ParseArray(" [1, {\"a\": []}]")), "[1,{\"a\":[]}]");
    EXPECT_EQ(JsonUtils::ToString(JsonUtils::Parse("[1]"), true), "[\n\t1\n]");
    EXPECT_EQ(JsonUtils::ToString(json::String("a")), "\"a\"");

    const json::Object object =
        JsonUtils::ParseObject(R"({"s":"text","i":-2.5,"u":3e9,"d":0.5,"b":true,"n":null})");
    EXPECT_EQ(JsonUtils::Get(object, "s", "-"), "text");
    EXPECT_EQ(JsonUtils::Get(object, "i", 0), -3);
    EXPECT_EQ(JsonUtils::Get(object, "u", 0U), 3'000'000'000U);
    EXPECT_EQ(JsonUtils::Get(object, "d", 0.0), 0.5);
    EXPECT_TRUE(JsonUtils::Get(object, "b", false));
    for (const char* const name : {"n", "none"}) {
        EXPECT_EQ(JsonUtils::Get(object, name, "-"), "-");
        EXPECT_EQ(JsonUtils::Get(object, name, std::string("=")), "=");
        EXPECT_EQ(JsonUtils::Get(object, name, -1), -1);
        EXPECT_EQ(JsonUtils::Get(object, name, 7U), 7U);
        EXPECT_EQ(JsonUtils::Get(object, name, 1.5), 1.5);
        EXPECT_TRUE(JsonUtils::Get(object, name, true));
    }
    EXPECT_EQ(ErrorOf([&] { JsonUtils::Get(object, "s", 1); }), "Bad cast");
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
