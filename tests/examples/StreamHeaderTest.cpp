// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/RunToEnd.h"
#include "zarip/core/BitStreamWriter.h"

namespace zarip {
namespace {

using std::string;

/// A parameter set of the baseline profile, in hexadecimal.
string Header(unsigned int columns, unsigned int rows, const std::vector<unsigned int>& crop) {
    core::BitStreamWriter bits;
    bits.WriteBits(0x6742001E, 32);
    for (const unsigned int value : {0U, 0U, 0U, 0U, 1U}) {
        bits.WriteUnsignedGolomb(value);
    }
    bits.WriteBit(false);
    bits.WriteUnsignedGolomb(columns - 1);
    bits.WriteUnsignedGolomb(rows - 1);
    bits.WriteBits(3, 2);
    bits.WriteBit(!crop.empty());
    for (const unsigned int side : crop) {
        bits.WriteUnsignedGolomb(side);
    }
    bits.WriteBits(1, 2);
    bits.Align();
    string text;
    for (const unsigned char byte : bits.GetData()) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

TEST(StreamHeaderTest, TellsTheSizeOrWhatIsWrong) {
    const string good = "6764001facd9405005bb016c80000003008000001e078c18cb";
    const string failed = "stream-header: ";
    const struct {
        string header;
        string output;
    } rows[] = {
        {good, "profile 100, level 3.1, 1280x720"},
        {Header(40, 30, {}), "profile 66, level 3.0, 640x480"},
        {Header(40, 30, {1, 2, 3, 4}), "profile 66, level 3.0, 634x466"},
        {Header(40, 30, {160, 160, 0, 0}), failed + "nothing is left of 640 lines without 640"},
        {Header(40, 30, {0, 0, 0xFFFFFFFE, 2}), failed + "nothing is left of 480 lines without 8589934592"},
        {Header(4097, 30, {}), failed + "a picture of 65552 lines is too large"},
        {"+1" + good, failed + "'+1' is no byte"},
        {good + " 1", failed + "' 1' is no byte"},
        {good + "a", failed + "'a' is no byte"},
        {"zz", failed + "'zz' is no byte"},
        {"68" + good, failed + "no sequence parameter set"},
    };
    for (const auto& row : rows) {
        const osa::Process::Result result = test::RunToEnd(STREAM_HEADER, {row.header});
        EXPECT_EQ(result.output + result.error, row.output + "\n") << row.header;
        EXPECT_EQ(result.status, row.output.compare(0, failed.size(), failed) == 0 ? 1 : 0);
    }
}

}  // namespace
}  // namespace zarip
