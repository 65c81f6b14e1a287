// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

#include "crypto/SecureBytes.h"

namespace zarip::crypto {

/// Bytes that belong to somebody else.
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

/// Reads DER, and nothing but DER: definite lengths in their shortest form, numbers in theirs. All throw
/// `CryptoException` "invalid key encoding". It never recurses, so nesting costs nothing. *One thread at a
/// time.*
class DerReader {
public:
    explicit DerReader(ByteView bytes) : _bytes(bytes) {}

    bool IsAtEnd() const { return _bytes.size == 0; }
    bool IsNext(DerTag tag) const { return !IsAtEnd() && _bytes.data[0] == tag; }

    /// The content of the next element, which has this tag.
    ByteView Read(DerTag tag);
    DerReader ReadSequence() { return DerReader(Read(kDerSequence)); }

    /// A number that is not negative, most significant byte first, without a sign byte.
    ByteView ReadNumber();

    /// Of whole bytes.
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
