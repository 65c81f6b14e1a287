// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Writes bits in the order in which `BitStreamReader` reads them. *One thread at a time.*
class ZARIP_EXPORT BitStreamWriter {
public:
    /// Writes the low `count` bits of `bits`; `count` is 1 to 64. Throws `osa::Exception` "Invalid parameter"
    /// for another count, and if a higher bit is set. Throws "BitStreamWriter: too many bits" if
    /// `std::size_t` cannot hold the number of bits (at 512 MiB if it has 32 bits).
    void WriteBits(unsigned long long bits, unsigned int count);
    void WriteBit(bool bit) { WriteBits(bit ? 1 : 0, 1); }

    /// These functions write exponential-Golomb codes. Values that `BitStreamReader` cannot read throw
    /// "Invalid parameter".
    void WriteUnsignedGolomb(unsigned int value);
    void WriteSignedGolomb(int value);

    /// Fills the rest of the last byte with this bit. Does nothing if the last byte is full.
    void Align(bool bit = false);
    bool IsAligned() const { return _position % 8 == 0; }

    /// Returns the number of bits written.
    std::size_t GetPosition() const { return _position; }

    /// Returns the bytes written; unused bits of the last byte are 0.
    const std::vector<unsigned char>& GetData() const { return _data; }

    void Clear();

private:
    std::vector<unsigned char> _data;
    std::size_t _position = 0;
};

}  // namespace zarip::core
