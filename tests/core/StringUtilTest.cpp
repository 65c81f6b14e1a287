// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <locale>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <zarip/core/StringBuilder.h>
#include <zarip/core/StringUtil.h>
#include <zarip/osa/Exception.h>

#include "support/ErrorOf.h"
#include "support/TempDir.h"

namespace zarip::core {
namespace {

using test::ErrorOf;

using namespace std::string_literals;
using Texts = std::vector<std::string>;
using TextSet = std::set<std::string>;

/// The text after an operation that changes it in place.
template <class Operation, class... Arguments>
std::string After(Operation operation, std::string text, const Arguments&... arguments) {
    operation(text, arguments...);
    return text;
}

TEST(StringUtilTest, StartsAndEnds) {
    EXPECT_TRUE(StringUtil::StartsWith("abc", "ab"));
    EXPECT_TRUE(StringUtil::StartsWith("abc", ""));
    EXPECT_TRUE(StringUtil::StartsWith("", ""));
    EXPECT_FALSE(StringUtil::StartsWith("ab", "abc"));
    EXPECT_FALSE(StringUtil::StartsWith("abc", "b"));
    EXPECT_TRUE(StringUtil::EndsWith("abc", "bc"));
    EXPECT_TRUE(StringUtil::EndsWith("abc", ""));
    EXPECT_FALSE(StringUtil::EndsWith("bc", "abc"));
    EXPECT_FALSE(StringUtil::EndsWith("abc", "b"));
}

TEST(StringUtilTest, StripCutsWhiteSpace) {
    EXPECT_EQ(StringUtil::Strip(" \t\n\v\f\r", 0, 6), "");
    EXPECT_EQ(StringUtil::Strip("key = a b \r\n", 5, 100), "a b");
    EXPECT_EQ(StringUtil::Strip("key = a b", 0, 4), "key");
    EXPECT_EQ(StringUtil::Strip(" a \0 b"s, 0, UINT_MAX), "a");
    EXPECT_EQ(StringUtil::Strip("four", 4, 1), "");
    EXPECT_EQ(StringUtil::Strip("\xA0x\x85", 0, 3), "\xA0x\x85");  // no white space, and no negative index
    EXPECT_EQ(ErrorOf([] { StringUtil::Strip("four", 5, 1); }), "StringUtil::Strip: pos out of range");

    EXPECT_EQ(StringUtil::Strip("<a> x <b> y </a>", "<a>", "</a>"), "x <b> y");
    EXPECT_EQ(StringUtil::Strip("end x start y end z", "start", "end"), "y");
    EXPECT_EQ(StringUtil::Strip(" x ; y", "", ";"), "x");
    EXPECT_EQ(StringUtil::Strip("x ; y ; z ", ";", ""), "y ; z");
    EXPECT_EQ(StringUtil::Strip(" x ", "", ""), "x");
    EXPECT_EQ(StringUtil::Strip("x ; y", "!", ""), "");
    EXPECT_EQ(StringUtil::Strip("x ; y", ";", ";"), "");
}

TEST(StringUtilTest, LettersAndPlaces) {
    EXPECT_EQ(After(StringUtil::ToLower, "AbC-\xC3\x84\xFF"), "abc-\xC3\x84\xFF");
    EXPECT_EQ(After(StringUtil::ToUpper, "AbC-\xC3\xA4\xFF"), "ABC-\xC3\xA4\xFF");
    EXPECT_STREQ(StringUtil::ToCStr("text", "unused"), "text");
    EXPECT_STREQ(StringUtil::ToCStr("", "unused"), "");
    EXPECT_EQ(After(StringUtil::Replace, "aXbXX", "X", "<X>"), "a<X>b<X><X>");
    EXPECT_EQ(After(StringUtil::Replace, "aaaa", "aa", "a"), "aa");
    EXPECT_EQ(After(StringUtil::Replace, "abc", "", "x"), "abc");
    EXPECT_EQ(After(StringUtil::Replace, "abc", "abc", ""), "");
}

TEST(StringUtilTest, Escapes) {
    std::string text = "a<b & \"c\" 'd'>";
    StringUtil::EscapeForXml(text);
    EXPECT_EQ(text, "a&lt;b &amp; &quot;c&quot; &apos;d&apos;&gt;");
    text = "a;b\0"s;
    StringUtil::Escape(text, {{';', "\\;"}, {'\0', "NUL"}, {'a', ""}, {'\\', "no"}});
    EXPECT_EQ(text, "\\;bNUL");
    StringUtil::Escape(text, 'b', "bb");
    EXPECT_EQ(text, "\\;bbNUL");

    const char* const rows[][2] = {
        {"a%20b%2Fc", "a b/c"}, {"%C3%a4", "\xC3\xA4"}, {"100%", "100%"},
        {"%zz%4", "%zz%4"},     {"a+b", "a+b"},         {"", ""},
        {"%2541", "%41"},       {"%00x", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(After(StringUtil::UrlDecode, row[0]), row[1]) << row[0];
    }
}

TEST(StringUtilTest, Patterns) {
    const struct {
        const char* pattern;
        const char* text;
        bool matches;
    } rows[] = {
        {"/api/*", "/api/a/b", true}, {"/api/*", "/api/", true}, {"/api/*", "/api", false},
        {"*", ".hidden", true},       {"a?c", "a/c", true},      {"a?c", "ac", false},
        {"[a-c]x", "bx", true},       {"[!a-c]x", "bx", false},  {"\\*", "*", true},
        {"\\*", "x", false},          {"A", "a", false},         {"", "", true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(StringUtil::MatchesPattern(row.pattern, row.text), row.matches)
            << row.pattern << " " << row.text;
    }
}

TEST(StringUtilTest, SplitsAndJoins) {
    EXPECT_EQ(StringUtil::Split("a,,b", ','), (Texts{"a", "", "b"}));
    EXPECT_EQ(StringUtil::Split("a,,b", ",", 2), (Texts{"a", ",b"}));
    EXPECT_EQ(StringUtil::Split(",a;b,", ",;"), (Texts{"", "a", "b", ""}));
    EXPECT_EQ(StringUtil::Split("a,b", ",", 1), (Texts{"a,b"}));
    EXPECT_EQ(StringUtil::Split("a,b", ",", 0), Texts{});
    EXPECT_EQ(StringUtil::Split("", ','), Texts{""});
    EXPECT_EQ(StringUtil::Split("a,b", ""), Texts{"a,b"});
    EXPECT_EQ(StringUtil::Split("a\0b"s, '\0'), (Texts{"a", "b"}));
    Texts out{"kept"};
    StringUtil::Split(out, "a b c", " ", 2);
    EXPECT_EQ(out, (Texts{"kept", "a", "b c"}));

    EXPECT_EQ(StringUtil::SetSplit("b,a,b,", ','), (TextSet{"", "a", "b"}));
    EXPECT_EQ(StringUtil::SetSplit("b;a,b", ",;"), (TextSet{"a", "b"}));
    EXPECT_EQ(StringUtil::SetSplit("b,a,b", ",", 2), (TextSet{"a,b", "b"}));
    TextSet set{"kept"};
    StringUtil::SetSplit(set, "x,y", ",", 0);
    StringUtil::SetSplit(set, "x,y", ",", 9);
    EXPECT_EQ(set, (TextSet{"kept", "x", "y"}));

    EXPECT_EQ(StringUtil::Join(Texts{"b", "", "a"}, ','), "b,,a");
    EXPECT_EQ(StringUtil::Join(Texts{"b", "a"}, ", "), "b, a");
    EXPECT_EQ(StringUtil::Join(TextSet{"b", "a"}, '/'), "a/b");
    EXPECT_EQ(StringUtil::Join(TextSet{"b", "a"}, ""), "ab");
    EXPECT_EQ(StringUtil::Join(Texts{}, ','), "");
    EXPECT_EQ(StringUtil::Join(Texts{"one"}, ','), "one");
}

template <class Value, class Expected>
void ExpectParsed(const std::string& text, Value out, const std::optional<Expected>& expected) {
    const Value before = out;
    EXPECT_EQ(StringUtil::TryParse(text, out), expected.has_value()) << '"' << text << '"';
    EXPECT_EQ(out, expected ? static_cast<Value>(*expected) : before) << '"' << text << '"';
}

TEST(StringUtilTest, ParsesIntegersWhole) {
    const struct {
        std::string text;
        std::optional<int> asInt, asSigned8;
        std::optional<unsigned> asUnsigned, asUnsigned8;
    } rows[] = {
        {" 12 ", 12, 12, 12U, 12U},
        {"\t-128\n", -128, -128, {}, {}},
        {"-129", -129, {}, {}, {}},
        {"+127", 127, 127, {}, {}},
        {"255", 255, {}, 255U, 255U},
        {"256", 256, {}, 256U, {}},
        {"0x1F", {}, {}, 31U, 31U},
        {" 0Xff ", {}, {}, 255U, 255U},
        {"0x100", {}, {}, 256U, {}},
        {"0xFFFFFFFF", {}, {}, UINT_MAX, {}},
        {"0x100000000", {}, {}, {}, {}},
        {"4294967295", {}, {}, UINT_MAX, {}},
        {"4294967296", {}, {}, {}, {}},
        {"-2147483648", INT_MIN, {}, {}, {}},
        {"-2147483649", {}, {}, {}, {}},
        {"007", 7, 7, 7U, 7U},
        {"1F", {}, {}, {}, {}},
        {"0x", {}, {}, {}, {}},
        {"0x-1", {}, {}, {}, {}},
        {"0x0x1", {}, {}, {}, {}},
        {"12abc", {}, {}, {}, {}},
        {"1 2", {}, {}, {}, {}},
        {"1\0"s, {}, {}, {}, {}},
        {"-", {}, {}, {}, {}},
        {"+", {}, {}, {}, {}},
        {" ", {}, {}, {}, {}},
        {"", {}, {}, {}, {}},
    };
    for (const auto& row : rows) {
        ExpectParsed(row.text, int{77}, row.asInt);
        ExpectParsed(row.text, static_cast<signed char>(77), row.asSigned8);
        ExpectParsed(row.text, 77U, row.asUnsigned);
        ExpectParsed(row.text, static_cast<unsigned char>(77), row.asUnsigned8);
    }
}

TEST(StringUtilTest, ParsesFractionsAndTruthWhole) {
    using D = std::optional<double>;
    for (const auto& [text, expected] : std::vector<std::pair<std::string, D>>{{" 1.5 ", 1.5},
                                                                               {"-2e3", -2000.0},
                                                                               {"+.5", .5},
                                                                               {"1.", 1.0},
                                                                               {"1.5x", {}},
                                                                               {"1,5", {}},
                                                                               {"", {}},
                                                                               {".", {}},
                                                                               {"-inf", {}},
                                                                               {"1e999", {}},
                                                                               {"-1e-999", -0.0},
                                                                               {"+-1", {}},
                                                                               {"-+1", {}},
                                                                               {"0x10", {}},
                                                                               {"nan", {}},
                                                                               {"1e", {}}}) {
        ExpectParsed(text, 7.5, expected);
    }
    using B = std::optional<bool>;
    for (const auto& [text, expected] : std::vector<std::pair<std::string, B>>{{" TRUE\t", true},
                                                                               {"1", true},
                                                                               {"False", false},
                                                                               {"0", false},
                                                                               {"yes", {}},
                                                                               {"01", {}},
                                                                               {"", {}}}) {
        ExpectParsed(text, true, expected);
        ExpectParsed(text, false, expected);
    }
}

TEST(StringUtilTest, ReadsStreamsAndFiles) {
    const test::TempDir folder;
    const std::string content = std::string(10'000, 'x') + "\0\r\n end"s;
    EXPECT_EQ(StringUtil::ReadTextFile(folder.Write("file", content)), content);
    EXPECT_EQ(StringUtil::ReadTextFile(folder.Write("empty", "")), "");
    for (const std::string& path : {folder.File("missing"), folder.Path()}) {
        EXPECT_EQ(ErrorOf([&] { StringUtil::ReadTextFile(path); }), "File '" + path + "' does not exist");
    }
    std::istringstream stream("first line\n" + content);
    std::string line;
    std::getline(stream, line);
    std::string out = "kept ";
    StringUtil::ReadToEnd(stream, out);
    EXPECT_EQ(out, "kept " + content);
}

void AppendV(StringBuilder& builder, const char* format, ...) ZARIP_PRINTF(2, 3);
void AppendV(StringBuilder& builder, const char* format, ...) {
    va_list args;
    va_start(args, format);
    builder.vprintf(format, args).vprintf(format, args);  // each use has a copy of its own
    va_end(args);
}

TEST(StringBuilderTest, CollectsText) {
    StringBuilder builder("initial ");
    builder.printf("%s-%d", "a", 1).printf(";").printf("%s", "");
    EXPECT_EQ(builder.ToString(), "initial a-1;");
    builder.printf("<%lc>", static_cast<wint_t>(0x20AC));  // cannot be formatted in the C locale
    EXPECT_EQ(builder.ToString(), "initial a-1;");

    for (const std::size_t length : {126U, 127U, 128U, 129U, 5000U}) {
        const std::string text(length, 'x');
        StringBuilder grown;
        grown.printf("%s", text.c_str());
        EXPECT_EQ(grown.ToString(), text);
        AppendV(grown, "%s,%d,", text.c_str(), 7);
        EXPECT_EQ(grown.ToString(), text + text + ",7," + text + ",7,");
    }
    EXPECT_EQ(StringBuilder().ToString(), "");
}

}  // namespace
}  // namespace zarip::core
