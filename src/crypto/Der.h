// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

#include "crypto/SecureBytes.h"

namespace zarip::crypto {

/// A view of bytes, *not owned*.
struct ByteView {
    const unsigned char* data;
    std::size_t size;
};

enum DerTag : unsigned char {
    kDerInteger = 0x02,
    kDerBitString = 0x03,
    kDerOctetString = 0x04,
    kDerNull = 0x05,
    kDerObjectId = 0x06,
    kDerSequence = 0x30,
    kDerAttributes = 0xA0,  ///< [0], constructed
};

/// Reads DER strictly: lengths must be definite, and lengths and numbers must have their shortest form. All
/// functions throw `CryptoException` "invalid key encoding". It never recurses, so deep nesting is harmless.
/// *One thread at a time.*
class DerReader {
public:
    explicit DerReader(ByteView bytes) : _bytes(bytes) {}

    bool IsAtEnd() const { return _bytes.size == 0; }
    bool IsNext(DerTag tag) const { return !IsAtEnd() && _bytes.data[0] == tag; }

    /// Reads the next element, which must have this tag, and returns its content.
    ByteView Read(DerTag tag);
    DerReader ReadSequence() { return DerReader(Read(kDerSequence)); }

    /// Reads a number that is not negative. Returns it with the most significant byte first and without a
    /// sign byte.
    ByteView ReadNumber();

    /// Reads a bit string of whole bytes.
    ByteView ReadBits();
    void ExpectEnd() const;

private:
    ByteView _bytes;
};

/// Appends an element.
void AppendDer(SecureBytes& out, DerTag tag, ByteView content);

/// Appends a number; `magnitude` may have leading zeros.
void AppendDerNumber(SecureBytes& out, ByteView magnitude);

}  // namespace zarip::crypto
