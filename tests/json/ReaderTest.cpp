// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <malloc.h>

#include <cmath>
#include <fstream>
#include <streambuf>

#include "JsonText.h"

namespace {

static_assert(std::is_base_of_v<json::Exception, json::Reader::ScanException>);
static_assert(std::is_base_of_v<json::Exception, json::Reader::ParseException>);

std::string ShowLocation(const json::Reader::Location& location) {
    return std::to_string(location.m_nLine) + ":" + std::to_string(location.m_nLineOffset) + ":" +
           std::to_string(location.m_nDocOffset);
}

// "scan" with the place of the error, or "parse" with begin and end of the token, or "read".
template <class Element = UnknownElement>
std::string Outcome(const std::string& text) {
    try {
        Parse<Element>(text);
        return "read";
    } catch (const json::Reader::ScanException& exception) {
        EXPECT_STRNE(exception.what(), "");
        return "scan " + ShowLocation(exception.m_locError);
    } catch (const json::Reader::ParseException& exception) {
        EXPECT_STRNE(exception.what(), "");
        return "parse " + ShowLocation(exception.m_locTokenBegin) + " " +
               ShowLocation(exception.m_locTokenEnd);
    }
}

std::string Repeat(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

TEST(Reader, ReadsEveryType) {
    EXPECT_EQ(Parse<Number>(" -12.5e1\n").Value(), -125.0);
    EXPECT_EQ(Parse<String>("\"a b\"").Value(), "a b");
    EXPECT_TRUE(Parse<Boolean>("true").Value());
    EXPECT_TRUE(Parse<Null>("null") == Null());
    EXPECT_EQ(Parse<Array>("[1,[],{}]").Size(), 3U);

    const UnknownElement document =
        Parse(" {\t\"a\" : [ 1 , \"x\\/\\\"\\u00e4\\uD83D\\uDE00\" ] ,\r\n \"\" : false } ");
    const Object& object = document;
    EXPECT_EQ(object.Begin()->name, "a");
    EXPECT_EQ(static_cast<const String&>(object["a"][1]).Value(), "x/\"\u00e4\U0001f600");
    EXPECT_FALSE(static_cast<const Boolean&>(object[""]).Value());
    EXPECT_EQ(Parse<String>("\"\xc3\xa4 \xf0\x9f\x98\x80 \x7f \\u0000\"").Value(),
              std::string("\xc3\xa4 \xf0\x9f\x98\x80 \x7f \0", 11));
}

TEST(Reader, NumbersAreTheNearestDouble) {
    const std::pair<const char*, double> cases[] = {
        {"0", 0.0},
        {"123456789012345", 123456789012345.0},
        {"9007199254740993", 9007199254740992.0},
        {"18446744073709551616", 18446744073709551616.0},
        {"0.1", 0.1},
        {"1E+2", 100.0},
        {"2.2250738585072011e-308", 2.2250738585072011e-308},
        {"1.7976931348623158e308", 1.7976931348623157e308},
        {"179769313486231570000e288", 1.7976931348623157e308},
        {"1e-400", 0.0},
        {"1e-2147483639", 0.0},
        {"0.000000000000000000001e-2147483639", 0.0},
        {"1e-99999999999999999999", 0.0},
        {"0e400", 0.0},
        {"0.000E+99999999999999999999", 0.0},
    };
    for (const auto& [text, value] : cases) {
        EXPECT_EQ(Parse<Number>(text).Value(), value) << text;
    }
    EXPECT_TRUE(std::signbit(Parse<Number>("-0").Value()));
    EXPECT_TRUE(std::signbit(Parse<Number>("-1e-400").Value()));
    EXPECT_EQ(Parse<Number>("0." + Repeat("0", 400) + "1e401").Value(), 1.0);
    EXPECT_EQ(Parse<Number>("0." + Repeat("0", 400) + "1e10").Value(), 0.0);
    EXPECT_EQ(Parse<Number>("0." + Repeat("3", 5000)).Value(), 1.0 / 3.0);
    EXPECT_TRUE(std::signbit(Parse<Number>("-0e999").Value()));
    EXPECT_EQ(ToText(Parse("[1" + Repeat("0", 400) + "e-400,\"0e400\",-12.5,0e400]"), false),
              "[1,\"0e400\",-12.5,0]");
    EXPECT_EQ(Outcome("[0e400,01]"), "parse 0:8:8 0:9:9");
    EXPECT_EQ(Outcome("[0e400, 1e400]"), "scan 0:8:8");
    EXPECT_NE(Outcome("0e400e40"), "read");
    EXPECT_NE(Outcome("[0e999,1-999]"), "read");

    for (const std::string& tooBig : {std::string("1e400"), std::string("-1e309"), std::string("1.8e308"),
                                      std::string("1e99999999999999999999"), "1" + Repeat("0", 400),
                                      "18" + Repeat("0", 307), "0.1" + Repeat("0", 400) + "e400"}) {
        EXPECT_EQ(Outcome("[" + tooBig + "]"), "scan 0:1:1") << tooBig;
    }
}

void ExpectOutcomes(const std::vector<std::pair<std::string, const char*>>& cases) {
    for (const auto& [text, outcome] : cases) {
        EXPECT_EQ(Outcome(text), outcome) << text;
    }
}

TEST(Reader, BrokenTextIsAScanException) {
    ExpectOutcomes({
        {"@", "scan 0:0:0"},
        {"[1,\n tru]", "scan 1:4:8"},
        {"nul", "scan 0:3:3"},
        {"falsy", "scan 0:4:4"},
        {"truex", "scan 0:4:4"},
        {"[-]", "scan 0:2:2"},
        {"-", "scan 0:1:1"},
        {"+1", "scan 0:0:0"},
        {"[NaN]", "scan 0:1:1"},
        {"[1.]", "scan 0:3:3"},
        {"[1e]", "scan 0:3:3"},
        {".5", "scan 0:0:0"},
        {"0x10", "scan 0:1:1"},
        {"'a'", "scan 0:0:0"},
        {"// text\n1", "scan 0:0:0"},
        {"{a:1}", "scan 0:1:1"},
        {"\n\n[\"abc", "scan 2:5:7"},
        {"\"\\x\"", "scan 0:1:1"},
        {"\"a\\u12g4\"", "scan 0:2:2"},
        {"\"tab\there\"", "scan 0:4:4"},
        {"\"line\nend\"", "scan 0:5:5"},
        {std::string("\"a\0b\"", 5), "scan 0:2:2"},
        {std::string("\0", 1), "scan 0:0:0"},
        {std::string("[1\0]", 4), "scan 0:2:2"},
        {std::string("[1]\0", 4), "scan 0:3:3"},
        {std::string("1 \0 1", 5), "scan 0:2:2"},
    });
}

TEST(Reader, CharactersThatAreNotUtf8AreAScanException) {
    ExpectOutcomes({
        {"[\"\xff\"]", "scan 0:2:2"},
        {"\"\xc0\xaf\"", "scan 0:1:1"},
        {"\"\xe0\x80\xaf\"", "scan 0:1:1"},
        {"\"\xed\xa0\x80\"", "scan 0:1:1"},
        {"\"\xf4\x90\x80\x80\"", "scan 0:1:1"},
        {"\"\x80\"", "scan 0:1:1"},
        {"\"\xe2\x82\"", "scan 0:1:1"},
        {"\"\xf0\x9f\x98", "scan 0:1:1"},
        {"\"\xf0", "scan 0:1:1"},
        {"{\"\xff\":1}", "scan 0:2:2"},
        {"\xef\xbb\xbf[]", "scan 0:0:0"},
        // surrogates that are no pair
        {R"("a\ud83d")", "scan 0:2:2"},
        {R"("a\ud83dx")", "scan 0:2:2"},
        {R"("a\ud83d\u0041")", "scan 0:2:2"},
        {R"(["\\\udc00"])", "scan 0:1:1"},
        {R"({"\ud83d\ude00\udc00":1})", "scan 0:1:1"},
    });
}

TEST(Reader, BrokenStructureIsAParseException) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "parse 0:0:0 0:0:0"},          {" \n ", "parse 1:1:3 1:1:3"},
        {"[", "parse 0:1:1 0:1:1"},         {"[1,\n2", "parse 1:1:5 1:1:5"},
        {"[1,", "parse 0:3:3 0:3:3"},       {"{\"a\"", "parse 0:4:4 0:4:4"},
        {"{\"a\":", "parse 0:5:5 0:5:5"},   {"]", "parse 0:0:0 0:1:1"},
        {",1", "parse 0:0:0 0:1:1"},        {"[,1]", "parse 0:1:1 0:2:2"},
        {"[1,]", "parse 0:3:3 0:4:4"},      {"[1 23.5]", "parse 0:3:3 0:7:7"},
        {"[1}", "parse 0:2:2 0:3:3"},       {"[1:2]", "parse 0:2:2 0:3:3"},
        {"[01]", "parse 0:2:2 0:3:3"},      {"{\"a\":1,}", "parse 0:7:7 0:8:8"},
        {"{\"a\" 1}", "parse 0:5:5 0:6:6"}, {"{\"a\":}", "parse 0:5:5 0:6:6"},
        {"{1:2}", "parse 0:1:1 0:2:2"},     {"{\n\t\"a\" : 1\n\t\"b \\\" c\" : 2\n}", "parse 2:1:12 2:9:20"},
        {"1 2", "parse 0:2:2 0:3:3"},       {"[]\n[]", "parse 1:0:3 1:1:4"},
        {"{} \"abc", "parse 0:3:3 0:7:7"},  {"null null", "parse 0:5:5 0:9:9"},
    };
    for (const auto& [text, outcome] : cases) {
        EXPECT_EQ(Outcome(text), outcome) << text;
    }
}

TEST(Reader, RefusesADocumentOfAnotherTypeAndKeepsTheElement) {
    EXPECT_EQ(Outcome<Object>(" [1]"), "parse 0:1:1 0:2:2");
    EXPECT_EQ(Outcome<Array>("{}"), "parse 0:0:0 0:1:1");
    EXPECT_EQ(Outcome<Number>("\"12\""), "parse 0:0:0 0:4:4");
    EXPECT_EQ(Outcome<String>("12"), "parse 0:0:0 0:2:2");
    EXPECT_EQ(Outcome<Boolean>("null"), "parse 0:0:0 0:4:4");
    EXPECT_EQ(Outcome<Null>("true"), "parse 0:0:0 0:4:4");

    Object object = Parse<Object>(R"({"kept":1})");
    for (const char* text : {"[]", "{\"a\":1", "{\"a\":2}x", ""}) {
        std::istringstream stream(text);
        EXPECT_NE(TextOfException([&] { json::Reader::Read(object, stream); }), "no exception");
        EXPECT_EQ(ToText(object), R"({"kept":1})");
    }
}

TEST(Reader, RefusesDuplicateMembers) {
    EXPECT_EQ(Outcome(R"({"a":1,"b":{"a":1},"c":[{"a":2}],"A":3})"), "read");
    EXPECT_EQ(Outcome("{\"a\":1,\n \"\\u0061\" : 2}"), "parse 1:1:9 1:9:17");
    EXPECT_EQ(Outcome(R"({"\\":1,"x":2,"\\":3})"), "parse 0:14:14 0:18:18");
    EXPECT_EQ(TextOfException([] { Parse(R"({"x":{"a\"b":1,"a\"b":1}})"); }),
              "Object member already exists: a\"b");

    // Large objects look names up in another way.
    for (const int count : {2, 63, 64, 65, 66, 1000}) {
        std::string members;
        for (int i = 0; i < count; ++i) {
            members += "\"m" + std::to_string(i) + "\":" + std::to_string(i) + ",";
        }
        const UnknownElement document = Parse("{" + members + "\"last\":{" + members + "\"last\":0}}");
        EXPECT_EQ(static_cast<const Object&>(document).Size(), static_cast<std::size_t>(count) + 1);
        for (const int again : {0, count / 2, count - 1}) {
            const std::string name = "m" + std::to_string(again);
            EXPECT_EQ(TextOfException([&] { Parse("{" + members + "\"" + name + "\":0}"); }),
                      "Object member already exists: " + name);
        }
    }
}

TEST(Reader, LimitsTheDepth) {
    EXPECT_EQ(Outcome(Repeat("[", 200) + Repeat("]", 200)), "read");
    EXPECT_EQ(Outcome(Repeat("{\"a\":", 200) + "1" + Repeat("}", 200)), "read");
    EXPECT_EQ(Outcome("[" + Repeat("[],", 300) + "1]"), "read");  // wide is not deep
    EXPECT_EQ(Outcome(Repeat("[", 201) + Repeat("]", 201)), "parse 0:200:200 0:201:201");
    EXPECT_EQ(Outcome(Repeat("[", 100000)), "parse 0:200:200 0:201:201");
    EXPECT_EQ(Outcome(Repeat("{\"a\":[", 100) + "{"), "parse 0:600:600 0:601:601");
    EXPECT_EQ(Outcome(Repeat("{\"a\":", 100000)), "parse 0:1000:1000 0:1001:1001");
}

TEST(Reader, BoundsTheNumberOfElements) {
    EXPECT_EQ(Outcome("[" + Repeat("[],", 999'998) + "0]"), "read");
    EXPECT_EQ(Outcome("[" + Repeat("0,", 1'000'000) + "0]").substr(0, 5), "parse");
}

TEST(Reader, EmptyContainersTakeNoMemoryOfTheirOwn) {
    const auto count = [](const std::string& text) {
        const auto before = ::mallinfo2().uordblks;
        const UnknownElement element = Parse(text);
        return ::mallinfo2().uordblks - before;
    };
    // Few enough that no block is large enough to be mapped by itself.
    const auto nulls = count("[" + Repeat("null,", 1'000) + "0]");
    EXPECT_EQ(count("[" + Repeat("[],", 1'000) + "0]"), nulls);
    EXPECT_EQ(count("[" + Repeat("{},", 1'000) + "0]"), nulls);
    EXPECT_LT(count("[" + Repeat("[0],", 1'000) + "0]"), nulls + 1'000 * 160);
}

TEST(Reader, TakesTheWholeStreamAndNoMore) {
    std::istringstream done("[1] ");
    UnknownElement element;
    json::Reader::Read(element, done);
    EXPECT_TRUE(done.eof());
    EXPECT_FALSE(done.bad());

    std::istringstream failed("[1]");
    failed.setstate(std::ios_base::failbit);
    EXPECT_EQ(TextOfException([&] { json::Reader::Read(element, failed); }), "Unexpected end of document");
    std::ifstream folder("/");
    EXPECT_EQ(TextOfException([&] { json::Reader::Read(element, folder); }), "Reading failed");
    std::ifstream missing("/nonexistent/file");
    EXPECT_EQ(TextOfException([&] { json::Reader::Read(element, missing); }), "Unexpected end of document");

    // A document that takes many reads, from the present position of the stream.
    const std::string text = "[" + Repeat("\"0123456789\", ", 20000) + "null]";
    std::istringstream longText("skipped" + text);
    longText.ignore(7);
    json::Reader::Read(element, longText);
    EXPECT_EQ(static_cast<const Array&>(std::as_const(element)).Size(), 20001U);
    for (const std::size_t size : {4095U, 4096U, 4097U, 8192U}) {  // around the pieces that are read
        const std::string string(size - 2, 's');
        EXPECT_EQ(Parse<String>('"' + string + '"').Value(), string);
    }

    // What a broken source of characters throws goes through.
    struct BrokenBuffer : std::streambuf {
        int_type underflow() override { throw std::runtime_error("connection lost"); }
    } buffer;
    std::istream broken(&buffer);
    EXPECT_THROW(json::Reader::Read(element, broken), std::runtime_error);
    EXPECT_EQ(static_cast<const Array&>(std::as_const(element)).Size(), 20001U);
}

}  // namespace
