// SPDX-License-Identifier: MIT

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>

#include "zarip/core/BitStreamReader.h"
#include "zarip/core/BitStreamWriter.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/IOException.h"

namespace zarip::core {

namespace {

constexpr unsigned int kLongestPrefix = 31;

}  // namespace

void BitStreamReader::ThrowEnd(std::size_t count) const {
    throw osa::IOException("BitStreamReader: " + std::to_string(count) + " bits wanted, " +
                           std::to_string(GetRemaining()) + " left");
}

void BitStreamReader::ThrowParameter() {
    throw osa::Exception("Invalid parameter");
}

void BitStreamReader::SkipBits(std::size_t count) {
    Require(count);
    _position += count;
}

/// A code is a number of zeros, a one, and as many bits as there were zeros.
unsigned int BitStreamReader::ReadUnsignedGolomb() {
    BitStreamReader ahead(*this);
    unsigned int zeros = 0;
    while (!ahead.ReadBit()) {
        if (++zeros > kLongestPrefix) {
            throw osa::IOException("BitStreamReader: invalid Golomb code");
        }
    }
    unsigned int value = (1U << zeros) - 1;
    if (zeros != 0) {
        value += static_cast<unsigned int>(ahead.ReadBits(zeros));
    }
    _position = ahead._position;
    return value;
}

int BitStreamReader::ReadSignedGolomb() {
    const unsigned int code = ReadUnsignedGolomb();
    const auto half = static_cast<int>(code / 2);
    return code % 2 != 0 ? half + 1 : -half;
}

void BitStreamWriter::WriteBits(unsigned long long bits, unsigned int count) {
    if (count - 1 > 63 || (count < 64 && bits >> count != 0)) {
        throw osa::Exception("Invalid parameter");
    }
    if (_position > SIZE_MAX - 64 - 7) {
        throw osa::Exception("BitStreamWriter: too many bits");  // 512 MiB, where a size has 32 bits
    }
    _data.resize((_position + count + 7) / 8);
    while (count != 0) {
        const auto room = static_cast<unsigned int>(8 - _position % 8);
        const unsigned int part = std::min(room, count);
        count -= part;
        const auto value = static_cast<unsigned int>(bits >> count) & (0xFFU >> (8 - part));
        _data[_position / 8] = static_cast<unsigned char>(_data[_position / 8] | value << (room - part));
        _position += part;
    }
}

void BitStreamWriter::WriteUnsignedGolomb(unsigned int value) {
    if (value == UINT_MAX) {
        throw osa::Exception("Invalid parameter");
    }
    const unsigned int code = value + 1;
    const auto length = static_cast<unsigned int>(32 - __builtin_clz(code));
    WriteBits(code, 2 * length - 1);
}

void BitStreamWriter::WriteSignedGolomb(int value) {
    if (value == INT_MIN) {
        throw osa::Exception("Invalid parameter");
    }
    WriteUnsignedGolomb(value > 0 ? 2U * static_cast<unsigned int>(value) - 1
                                  : 2U * static_cast<unsigned int>(-value));
}

void BitStreamWriter::Align(bool bit) {
    while (!IsAligned()) {
        WriteBit(bit);
    }
}

void BitStreamWriter::Clear() {
    _data.clear();
    _position = 0;
}

}  // namespace zarip::core
