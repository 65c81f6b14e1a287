// SPDX-License-Identifier: MIT

#include "crypto/Der.h"

#include "zarip/crypto/CryptoException.h"

namespace zarip::crypto {

namespace {

void Require(bool holds) {
    if (!holds) {
        throw CryptoException("invalid key encoding");
    }
}

}  // namespace

ByteView DerReader::Read(DerTag tag) {
    const unsigned char* const data = _bytes.data;
    Require(_bytes.size >= 2 && data[0] == tag);
    std::size_t length = data[1];
    std::size_t header = 2;
    if (length >= 0x80) {
        // The length of a key never needs more than two bytes, and the indefinite form (0x80) is not DER.
        const std::size_t count = length - 0x80;
        Require((count == 1 || count == 2) && _bytes.size >= 2 + count);
        length = count == 1 ? data[2] : data[2] * std::size_t{256} + data[3];
        Require(length >= (count == 1 ? 0x80U : 0x100U));
        header += count;
    }
    Require(length <= _bytes.size - header);
    const ByteView content = {data + header, length};
    _bytes = {data + header + length, _bytes.size - header - length};
    return content;
}

ByteView DerReader::ReadNumber() {
    ByteView number = Read(kDerInteger);
    Require(number.size != 0 && number.data[0] < 0x80);
    if (number.size > 1 && number.data[0] == 0) {
        Require(number.data[1] >= 0x80);
        ++number.data;
        --number.size;
    }
    return number;
}

ByteView DerReader::ReadBits() {
    const ByteView bits = Read(kDerBitString);
    Require(bits.size != 0 && bits.data[0] == 0);
    return {bits.data + 1, bits.size - 1};
}

void DerReader::ExpectEnd() const {
    Require(IsAtEnd());
}

namespace {

void AppendHeader(SecureBytes& out, DerTag tag, std::size_t length) {
    out.push_back(tag);
    if (length >= 0x100) {
        out.push_back(0x82);
        out.push_back(static_cast<unsigned char>(length >> 8U));
    } else if (length >= 0x80) {
        out.push_back(0x81);
    }
    out.push_back(static_cast<unsigned char>(length & 0xFFU));
}

}  // namespace

void AppendDer(SecureBytes& out, DerTag tag, ByteView content) {
    AppendHeader(out, tag, content.size);
    out.insert(out.end(), content.data, content.data + content.size);
}

void AppendDerNumber(SecureBytes& out, ByteView magnitude) {
    while (magnitude.size > 0 && magnitude.data[0] == 0) {
        ++magnitude.data;
        --magnitude.size;
    }
    const bool needsSign = magnitude.size == 0 || magnitude.data[0] >= 0x80;
    AppendHeader(out, kDerInteger, magnitude.size + (needsSign ? 1 : 0));
    if (needsSign) {
        out.push_back(0);
    }
    out.insert(out.end(), magnitude.data, magnitude.data + magnitude.size);
}

}  // namespace zarip::crypto
