// SPDX-License-Identifier: MIT

#include <zarip/core/BitStreamReader.h>
#include <zarip/core/BitStreamWriter.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/ErrorOf.h"

namespace zarip::core {
namespace {

using test::ErrorOf;

TEST(BitStreamTest, BitsOfAllLengthsComeBackAtAllPositions) {
    std::mt19937_64 random(5);
    std::vector<std::pair<unsigned long long, unsigned int>> written;
    BitStreamWriter writer;
    std::size_t bits = 0;
    for (int i = 0; i < 5'000; ++i) {
        const auto count = static_cast<unsigned int>(random() % 64 + 1);
        written.emplace_back(random() >> (64 - count), count);
        writer.WriteBits(written.back().first, count);
        bits += count;
    }
    EXPECT_EQ(writer.GetPosition(), bits);
    ASSERT_EQ(writer.GetData().size(), (bits + 7) / 8);
    BitStreamReader reader(writer.GetData().data(), writer.GetData().size());
    for (const auto& [value, count] : written) {
        ASSERT_EQ(reader.PeekBits(count), value);
        ASSERT_EQ(reader.ReadBits(count), value);
    }
    EXPECT_EQ(reader.GetPosition(), bits);
}

TEST(BitStreamTest, TheMostSignificantBitComesFirst) {
    BitStreamWriter writer;
    writer.WriteBit(true);
    writer.WriteBits(0x0A, 4);
    writer.Align();
    writer.Align(true);
    writer.WriteBit(false);
    writer.Align(true);
    EXPECT_EQ(writer.GetData(), (std::vector<unsigned char>{0xD0, 0x7F}));
    BitStreamReader reader(writer.GetData().data(), 2);
    EXPECT_TRUE(reader.ReadBit());
    EXPECT_EQ(reader.ReadBits(4), 0x0AU);
    EXPECT_FALSE(reader.IsAligned());
    reader.Align();
    reader.Align();
    EXPECT_EQ(reader.GetPosition(), 8U);
    reader.SkipBits(1);
    EXPECT_EQ(reader.ReadBits(7), 0x7FU);
    EXPECT_EQ(reader.GetRemaining(), 0U);
    writer.Clear();
    EXPECT_TRUE(writer.GetData().empty());
}

TEST(BitStreamTest, TheEndAndBadArgumentsAreRefusedAndNothingMoves) {
    const unsigned char data[] = {0xFF, 0x00, 0x00, 0x00, 0x00, 0x80};
    BitStreamReader reader(data, 2);
    reader.ReadBits(3);
    EXPECT_EQ(ErrorOf([&] { reader.ReadBits(14); }), "BitStreamReader: 14 bits wanted, 13 left");
    EXPECT_EQ(ErrorOf([&] { reader.SkipBits(static_cast<std::size_t>(-1)); }).substr(0, 17),
              "BitStreamReader: ");
    EXPECT_EQ(ErrorOf([&] { reader.ReadBits(0); }), "Invalid parameter");
    EXPECT_EQ(ErrorOf([&] { reader.ReadBits(65); }), "Invalid parameter");
    reader.SkipBits(5);
    EXPECT_EQ(ErrorOf([&] { reader.ReadUnsignedGolomb(); }), "BitStreamReader: 1 bits wanted, 0 left");
    EXPECT_EQ(reader.GetPosition(), 8U);
    BitStreamReader zeros(data + 1, 5);
    EXPECT_EQ(ErrorOf([&] { zeros.ReadSignedGolomb(); }), "BitStreamReader: invalid Golomb code");
    EXPECT_EQ(zeros.GetPosition(), 0U);
    EXPECT_EQ(ErrorOf([&] { BitStreamReader(data, SIZE_MAX / 8 + 1); }), "Invalid parameter");
    BitStreamReader empty(nullptr, 0);
    EXPECT_EQ(ErrorOf([&] { empty.ReadBit(); }), "BitStreamReader: 1 bits wanted, 0 left");

    BitStreamWriter writer;
    EXPECT_EQ(ErrorOf([&] { writer.WriteBits(4, 2); }), "Invalid parameter");
    EXPECT_EQ(ErrorOf([&] { writer.WriteBits(0, 0); }), "Invalid parameter");
    EXPECT_EQ(ErrorOf([&] { writer.WriteUnsignedGolomb(UINT_MAX); }), "Invalid parameter");
    EXPECT_EQ(ErrorOf([&] { writer.WriteSignedGolomb(INT_MIN); }), "Invalid parameter");
    EXPECT_EQ(writer.GetPosition(), 0U);
}

TEST(BitStreamTest, GolombCodesAreThoseOfTheVideoStandards) {
    const std::pair<unsigned int, const char*> codes[] = {{0, "1"},     {1, "010"},   {2, "011"},
                                                          {3, "00100"}, {6, "00111"}, {7, "0001000"}};
    for (const auto& [value, text] : codes) {
        BitStreamWriter writer;
        writer.WriteUnsignedGolomb(value);
        BitStreamReader reader(writer.GetData().data(), writer.GetData().size());
        std::string bits;
        while (reader.GetPosition() < writer.GetPosition()) {
            bits += reader.ReadBit() ? '1' : '0';
        }
        EXPECT_EQ(bits, text);
    }
    const int signedOrder[] = {0, 1, -1, 2, -2};  // of the codes 0, 1, 2, ...
    BitStreamWriter writer;
    for (unsigned int code = 0; code < 5; ++code) {
        writer.WriteUnsignedGolomb(code);
    }
    for (const int value : {INT_MAX, -INT_MAX, 12'345, -1}) {
        writer.WriteSignedGolomb(value);
    }
    writer.WriteUnsignedGolomb(UINT_MAX - 1);
    BitStreamReader reader(writer.GetData().data(), writer.GetData().size());
    for (const int value : signedOrder) {
        EXPECT_EQ(reader.ReadSignedGolomb(), value);
    }
    for (const int value : {INT_MAX, -INT_MAX, 12'345, -1}) {
        EXPECT_EQ(reader.ReadSignedGolomb(), value);
    }
    EXPECT_EQ(reader.ReadUnsignedGolomb(), UINT_MAX - 1);
}

}  // namespace
}  // namespace zarip::core
