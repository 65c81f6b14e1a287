// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include <zarip/stl/DelimitedStreamBuf.h>

namespace zarip::stl {
namespace {

using namespace std::string_literals;

std::string Rest(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(DelimitedStreamBufTest, EndsAtTheDelimiterLine) {
    const std::string x511(511, 'x');
    const struct {
        std::string source;
        std::string delivered;
        std::string rest;
    } rows[] = {
        {"one\ntwo\n--end\nthree\n", "one\ntwo\n", "three\n"},
        {"one\r\n\r\ntwo\r\n--end\r\nthree\r\n", "one\n\ntwo\n", "three\r\n"},
        {"\n\n--end", "\n\n", ""},
        {"--end\n--end\n", "", "--end\n"},
        {"one\n --end\n--end \n--en\nlast", "one\n --end\n--end \n--en\nlast", ""},
        {"last\r", "last", ""},
        {"", "", ""},
        {"a\0b\n--end\0\n--end\nx"s, "a\0b\n--end\0\n"s, "x"},
        {"a\rb\n--end\n", "a\rb\n", ""},
        // Long lines come in pieces, and no character between two pieces is lost.
        {x511 + "\n--end\n", x511 + "\n", ""},
        {x511 + "\r\n--end\n", x511 + "\n", ""},
        {x511 + "\rmore\n--end\n", x511 + "\rmore\n", ""},
        {x511.substr(1) + "\r\n--end\n", x511.substr(1) + "\n", ""},
        {x511.substr(1) + "\rmore\n--end\n", x511.substr(1) + "\rmore\n", ""},
        {x511 + x511 + x511 + "\n--end\nrest", x511 + x511 + x511 + "\n", "rest"},
        {x511 + "x--end\nrest", x511 + "x", "rest"},
        {x511, x511, ""},
        {x511 + "x", x511 + "x", ""},
    };
    for (const auto& row : rows) {
        std::istringstream source(row.source);
        DelimitedStreamBuf buffer(&source, "--end");
        std::istream stream(&buffer);
        EXPECT_EQ(Rest(stream), row.delivered) << row.source;
        EXPECT_EQ(Rest(stream), "") << row.source;  // once ended it stays so
        source.clear();
        EXPECT_EQ(Rest(source), row.rest) << row.source;
    }
}

TEST(DelimitedStreamBufTest, EmptyOrBrokenSources) {
    DelimitedStreamBuf none(nullptr, "--end");
    std::istream noStream(&none);
    EXPECT_EQ(Rest(noStream), "");

    std::istringstream source("one\n\ntwo\n");
    DelimitedStreamBuf untilEmptyLine(&source, "");
    std::istream stream(&untilEmptyLine);
    EXPECT_EQ(Rest(stream), "one\n");
    EXPECT_EQ(Rest(source), "two\n");

    std::istringstream broken("one\n");
    broken.setstate(std::ios_base::badbit);
    DelimitedStreamBuf buffer(&broken, "--end");
    std::istream brokenStream(&buffer);
    EXPECT_EQ(Rest(brokenStream), "");
    EXPECT_TRUE(broken.bad());
}

}  // namespace
}  // namespace zarip::stl
