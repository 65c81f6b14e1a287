// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Reads bits in the order of video and audio headers: the most significant bit of a byte comes first. *One
/// thread at a time.*
///
/// A function that needs more bits than are left throws `osa::IOException` "BitStreamReader: <n> bits wanted,
/// <m> left" and leaves the position unchanged.
class ZARIP_EXPORT BitStreamReader {
public:
    /// @param data  *not owned*, must outlive the reader.
    /// @param length  in bytes. If `std::size_t` cannot hold the number of bits (from 512 MiB on if it has 32
    ///     bits), the constructor throws `osa::Exception` "Invalid parameter".
    BitStreamReader(const void* data, std::size_t length)
        : _data(static_cast<const unsigned char*>(data)), _bits(length * 8) {
        if (_bits / 8 != length) {
            ThrowParameter();
        }
    }

    /// Reads a number of `count` bits.
    /// @param count  1 to 64; anything else throws `osa::Exception` "Invalid parameter".
    unsigned long long ReadBits(unsigned int count);
    bool ReadBit() { return ReadBits(1) != 0; }

    /// Reads the bits without moving the position.
    unsigned long long PeekBits(unsigned int count) const;

    /// These functions read the exponential-Golomb codes ue(v) and se(v) of H.264 and H.265. The values are
    /// `0 to 2^32 - 2` and `-2^31 + 1 to 2^31 - 1`. A longer code throws `osa::IOException` "BitStreamReader:
    /// invalid Golomb code".
    unsigned int ReadUnsignedGolomb();
    int ReadSignedGolomb();

    void SkipBits(std::size_t count);

    /// Moves to the next byte, unless the position is at the beginning of one.
    void Align() { _position = (_position + 7) / 8 * 8; }
    bool IsAligned() const { return _position % 8 == 0; }

    /// These functions return the number of bits before and after the position.
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
