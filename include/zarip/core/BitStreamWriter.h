// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Writes bits as `BitStreamReader` reads them. *One thread at a time.*
class ZARIP_EXPORT BitStreamWriter {
public:
    /// Writes the low `count` bits of `bits`; `count` is 1 to 64. Throws `osa::Exception` "Invalid parameter"
    /// for another count, and if a bit above them is set. Throws "BitStreamWriter: too many bits" if
    /// `std::size_t` cannot count the bits, which is at 512 MiB with 32 bits.
    void WriteBits(unsigned long long bits, unsigned int count);
    void WriteBit(bool bit) { WriteBits(bit ? 1 : 0, 1); }

    /// Write the exponential-Golomb codes that the reader reads. Other values throw "Invalid parameter".
    void WriteUnsignedGolomb(unsigned int value);
    void WriteSignedGolomb(int value);

    /// Fills the last byte with that bit, unless it is full.
    void Align(bool bit = false);
    bool IsAligned() const { return _position % 8 == 0; }

    /// In bits.
    std::size_t GetPosition() const { return _position; }

    /// What was written; the rest of the last byte is 0.
    const std::vector<unsigned char>& GetData() const { return _data; }

    void Clear();

private:
    std::vector<unsigned char> _data;
    std::size_t _position = 0;
};

}  // namespace zarip::core
