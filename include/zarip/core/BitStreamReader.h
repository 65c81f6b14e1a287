// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Reads bits as video and audio headers are written: the most significant bit of a byte comes first. *One
/// thread at a time.*
///
/// A function that needs more bits than are left throws `osa::IOException` "BitStreamReader: <n> bits wanted,
/// <m> left" and leaves the position unchanged.
class ZARIP_EXPORT BitStreamReader {
public:
    /// @param data  *not owned*, must outlive the reader.
    /// @param length  in bytes. Throws `osa::Exception` "Invalid parameter" if `std::size_t` cannot count the
    ///     bits, which is from 512 MiB on with 32 bits.
    BitStreamReader(const void* data, std::size_t length)
        : _data(static_cast<const unsigned char*>(data)), _bits(length * 8) {
        if (_bits / 8 != length) {
            ThrowParameter();
        }
    }

    /// @param count  1 to 64; anything else throws `osa::Exception` "Invalid parameter".
    unsigned long long ReadBits(unsigned int count);
    bool ReadBit() { return ReadBits(1) != 0; }

    /// Reads the bits without moving the position.
    unsigned long long PeekBits(unsigned int count) const;

    /// Exponential-Golomb codes, ue(v) and se(v) of H.264 and H.265: 0 to 2^32 - 2, and -2^31 + 1 to 2^31 -
    /// 1. A longer code throws `osa::IOException` "BitStreamReader: invalid Golomb code".
    unsigned int ReadUnsignedGolomb();
    int ReadSignedGolomb();

    void SkipBits(std::size_t count);

    /// Moves to the next byte, unless the position is at the beginning of one.
    void Align() { _position = (_position + 7) / 8 * 8; }
    bool IsAligned() const { return _position % 8 == 0; }

    /// In bits, from the beginning and to the end.
    std::size_t GetPosition() const { return _position; }
    std::size_t GetRemaining() const { return _bits - _position; }

private:
    void Require(std::size_t count) const {
        if (__builtin_expect(count > GetRemaining(), 0)) {
            ThrowEnd(count);
        }
    }
    [[noreturn]] void ThrowEnd(std::size_t count) const;
    [[noreturn]] static void ThrowParameter();

    const unsigned char* _data;
    std::size_t _bits;
    std::size_t _position = 0;
};

inline unsigned long long BitStreamReader::PeekBits(unsigned int count) const {
    if (__builtin_expect(count - 1 > 63, 0)) {
        ThrowParameter();
    }
    Require(count);
    const unsigned char* byte = _data + _position / 8;
    unsigned int left = count;
    const auto offset = static_cast<unsigned int>(_position % 8);
    // The rest of the first byte, then whole bytes, then what is missing from the last.
    unsigned long long bits = *byte & (0xFFU >> offset);
    const unsigned int inFirst = 8 - offset;
    if (left <= inFirst) {
        return bits >> (inFirst - left);
    }
    left -= inFirst;
    for (; left >= 8; left -= 8) {
        bits = bits << 8U | *++byte;
    }
    return left == 0 ? bits : bits << left | static_cast<unsigned int>(*++byte >> (8 - left));
}

inline unsigned long long BitStreamReader::ReadBits(unsigned int count) {
    const unsigned long long bits = PeekBits(count);
    _position += count;
    return bits;
}

}  // namespace zarip::core
