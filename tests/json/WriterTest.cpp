// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <limits>
#include <locale>

#include "JsonText.h"

namespace {

TEST(Writer, PrettyAndCompactText) {
    const UnknownElement document =
        Parse(R"({"numbers":[1,2.5],"none":[],"nothing":{},"nested":[{"a":null,"b":[[true]]}]})");
    const char* const pretty =
        "{\n"
        "\t\"numbers\" : [\n"
        "\t\t1,\n"
        "\t\t2.5\n"
        "\t],\n"
        "\t\"none\" : [],\n"
        "\t\"nothing\" : {},\n"
        "\t\"nested\" : [\n"
        "\t\t{\n"
        "\t\t\t\"a\" : null,\n"
        "\t\t\t\"b\" : [\n"
        "\t\t\t\t[\n"
        "\t\t\t\t\ttrue\n"
        "\t\t\t\t]\n"
        "\t\t\t]\n"
        "\t\t}\n"
        "\t]\n"
        "}";
    const char* const compact =
        R"({"numbers":[1,2.5],"none":[],"nothing":{},"nested":[{"a":null,"b":[[true]]}]})";
    EXPECT_EQ(ToText(document), pretty);
    EXPECT_EQ(ToText(Object(document), true), pretty);
    EXPECT_EQ(ToText(Object(document), false), compact);
    EXPECT_EQ(ToText(Object(document)), compact);  // objects are compact unless asked for, arrays pretty
    EXPECT_EQ(ToText(Array(document["numbers"])), "[\n\t1,\n\t2.5\n]");
    EXPECT_EQ(ToText(Array(document["numbers"]), false), "[1,2.5]");
    EXPECT_TRUE(Parse(pretty) == document);
    EXPECT_TRUE(Parse(compact) == document);
    EXPECT_EQ(ToText(Array()) + ToText(Array(), false) + ToText(Object()) + ToText(Object(), true),
              "[][]{}{}");
    EXPECT_EQ(ToText(json::Boolean(true)) + ToText(json::Null()) + ToText(Number(1)) + ToText(String("s")),
              "truenull1\"s\"");
}

TEST(Writer, NumbersHaveTwentyDigits) {
    const std::pair<double, const char*> cases[] = {
        {0, "0"},
        {-0.0, "-0"},
        {-17, "-17"},
        {0.5, "0.5"},
        {0.1, "0.10000000000000000555"},
        {1e-5, "1.0000000000000000818e-05"},
        {123456.789, "123456.78900000000431"},
        {9007199254740992, "9007199254740992"},
        {-9007199254740992, "-9007199254740992"},
        {9007199254740994, "9007199254740994"},
        {1e19, "10000000000000000000"},
        {1e20, "1e+20"},
        {1.7976931348623157e308, "1.7976931348623157081e+308"},
        {5e-324, "4.9406564584124654418e-324"},
        {std::numeric_limits<double>::infinity(), "null"},
        {-std::numeric_limits<double>::infinity(), "null"},
        {std::nan(""), "null"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(ToText(Number(value)), text);
        if (std::isfinite(value)) {
            EXPECT_EQ(Parse<Number>(text).Value(), value);
        }
    }
    // What a stream prints, at all magnitudes.
    for (int exponent = -1074; exponent < 1024; ++exponent) {
        const double value = std::ldexp(-1.0 - 1.0 / (exponent + 1080), exponent);
        std::ostringstream expected;
        expected << std::setprecision(20) << value;
        EXPECT_EQ(ToText(Number(value)), expected.str());
    }
}

TEST(Writer, EscapesStrings) {
    const std::pair<std::string, const char*> cases[] = {
        {"plain / 'text' ~", R"("plain / 'text' ~")"},
        {"\" \\ \b \f \n \r \t", R"("\" \\ \b \f \n \r \t")"},
        {std::string("\0\x01\x1f\x7f", 4), R"("\u0000\u0001\u001f\u007f")"},
        {"\u0080\u00e4\u07ff\u0800\u20ac\ud7ff\ue000\uffff",
         R"("\u0080\u00e4\u07ff\u0800\u20ac\ud7ff\ue000\uffff")"},
        {"\U00010000\U0001f600\U0010ffff", R"("\ud800\udc00\ud83d\ude00\udbff\udfff")"},
    };
    for (const auto& [string, text] : cases) {
        EXPECT_EQ(ToText(String(string)), text);
        EXPECT_EQ(Parse<String>(text).Value(), string);
    }
    Object object;
    object["\xc3\xa4\n"];
    EXPECT_EQ(ToText(object), R"({"\u00e4\n":null})");

    // Not UTF-8: overlong, surrogate, beyond the last, lone continuation, broken off, no lead byte.
    for (const char* bytes : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xe2\x82", "\xff"}) {
        std::string expected;
        for (std::size_t i = 0; i < std::string(bytes).size(); ++i) {
            expected += "\\ufffd";
        }
        EXPECT_EQ(ToText(String(bytes)), '"' + expected + '"');
        EXPECT_EQ(ToText(String(bytes + std::string("a\xc3\xa4"))), '"' + expected + "a\\u00e4\"");
    }
}

TEST(Writer, StreamStateHasNoSay) {
    struct Grouping : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::ostringstream stream;
    stream.imbue(std::locale(stream.getloc(), new Grouping));
    stream << std::hex << std::showpos << std::scientific << std::setprecision(3) << std::setfill('*')
           << std::setw(40);
    const std::ios_base::fmtflags flags = stream.flags();
    json::Writer::Write(Parse<Array>("[1234567, 0.5, \"\\u0001\"]"), stream, false);
    EXPECT_EQ(stream.str(), R"([1234567,0.5,"\u0001"])");
    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.precision(), 3);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.width(), 40);
}

TEST(Writer, LongTextComesOutWhole) {
    Array array;
    std::string expected = "[";
    for (int i = 0; i < 3000; ++i) {
        array.Insert(String(std::string(static_cast<std::size_t>(i % 50), 'x')));
        expected += (i == 0 ? "\"" : ",\"") + std::string(static_cast<std::size_t>(i % 50), 'x') + '"';
    }
    EXPECT_EQ(ToText(array, false), expected + "]");

    std::ostringstream failing;
    failing.setstate(std::ios_base::badbit);
    json::Writer::Write(array, failing);
    EXPECT_EQ(failing.str(), "");
}

}  // namespace
