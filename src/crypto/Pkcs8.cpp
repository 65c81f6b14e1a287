// SPDX-License-Identifier: MIT

#include "crypto/Pkcs8.h"

#include <gcrypt.h>

#include <cstring>
#include <iterator>

#include "zarip/crypto/Ciphers.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptException.h"

namespace zarip::crypto {

namespace {

constexpr unsigned int kIterations = 200'000;
/// The number of iterations comes from the file and determines how long the device is busy. This many take
/// seconds.
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
constexpr unsigned int kMaxIterations = 100;  // keeps fuzzing fast
#else
constexpr unsigned int kMaxIterations = 5'000'000;
#endif
constexpr unsigned int kSaltSize = 16;
constexpr unsigned int kVectorSize = 16;

constexpr unsigned char kPbes2[] = {0x2A, 0x86, 0x48, 0x86, 0xF7,
                                    0x0D, 0x01, 0x05, 0x0D};  // 1.2.840.113549.1.5.13
constexpr unsigned char kPbkdf2[] = {0x2A, 0x86, 0x48, 0x86, 0xF7,
                                     0x0D, 0x01, 0x05, 0x0C};                       // 1.2.840.113549.1.5.12
constexpr unsigned char kHmac[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02};       // 1.2.840.113549.2
constexpr unsigned char kAes[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01};  // 2.16.840.1.101.3.4.1

/// Returns the last number of an identifier that begins with one of the prefixes above.
struct Row {
    unsigned char last;
    unsigned int value;
};

constexpr Row kHashes[] = {
    {7, GCRY_MD_SHA1}, {8, GCRY_MD_SHA224}, {9, GCRY_MD_SHA256}, {10, GCRY_MD_SHA384}, {11, GCRY_MD_SHA512}};
constexpr Row kKeySizes[] = {{2, 16}, {22, 24}, {42, 32}};

void RequireSupported(bool holds) {
    if (!holds) {
        throw CryptoException("unsupported key");
    }
}

template <std::size_t Size>
void ExpectId(ByteView id, const unsigned char (&expected)[Size]) {
    RequireSupported(id.size == Size && std::memcmp(id.data, expected, Size) == 0);
}

template <std::size_t Size, std::size_t Rows>
unsigned int FindId(ByteView id, const unsigned char (&beginning)[Size], const Row (&rows)[Rows]) {
    RequireSupported(id.size == Size + 1 && std::memcmp(id.data, beginning, Size) == 0);
    for (const Row& row : rows) {
        if (id.data[Size] == row.last) {
            return row.value;
        }
    }
    RequireSupported(false);
    return 0;
}

unsigned int ReadSmall(DerReader& reader) {
    const ByteView number = reader.ReadNumber();
    RequireSupported(number.size <= 4);
    unsigned int value = 0;
    for (std::size_t i = 0; i < number.size; ++i) {
        value = value << 8U | number.data[i];
    }
    return value;
}

struct Scheme {
    ByteView salt{};
    unsigned int iterations = 0;
    unsigned int hash = GCRY_MD_SHA1;
    unsigned int keySize = 0;
    ByteView vector{};
};

Scheme ReadScheme(DerReader algorithm) {
    Scheme scheme;
    ExpectId(algorithm.Read(kDerObjectId), kPbes2);
    DerReader parameters = algorithm.ReadSequence();
    algorithm.ExpectEnd();
    DerReader derivation = parameters.ReadSequence();
    DerReader cipher = parameters.ReadSequence();
    parameters.ExpectEnd();

    ExpectId(derivation.Read(kDerObjectId), kPbkdf2);
    DerReader values = derivation.ReadSequence();
    derivation.ExpectEnd();
    scheme.salt = values.Read(kDerOctetString);
    scheme.iterations = ReadSmall(values);
    const unsigned int keySize = values.IsNext(kDerInteger) ? ReadSmall(values) : 0;
    if (values.IsNext(kDerSequence)) {
        DerReader hash = values.ReadSequence();
        scheme.hash = FindId(hash.Read(kDerObjectId), kHmac, kHashes);
    }
    values.ExpectEnd();

    scheme.keySize = FindId(cipher.Read(kDerObjectId), kAes, kKeySizes);
    scheme.vector = cipher.Read(kDerOctetString);
    cipher.ExpectEnd();
    RequireSupported(scheme.iterations > 0 && scheme.iterations <= kMaxIterations && scheme.salt.size > 0 &&
                     scheme.vector.size == kVectorSize && (keySize == 0 || keySize == scheme.keySize));
    return scheme;
}

SecureBuffer MakeKey(const Scheme& scheme, const SecureBuffer& passPhrase) {
    if (passPhrase.GetSize() == 0) {
        throw CryptoException("empty pass phrase");
    }
    SecureBuffer key(scheme.keySize);
    const gcry_error_t error = ::gcry_kdf_derive(
        passPhrase.GetData(), passPhrase.GetSize(), GCRY_KDF_PBKDF2, static_cast<int>(scheme.hash),
        scheme.salt.data, scheme.salt.size, scheme.iterations, key.GetSize(), key.GetData());
    if (error != 0) {
        throw GCryptException("gcry_kdf_derive", error);
    }
    return key;
}

SecureBytes Crypt(Cipher::Direction direction, const SecureBuffer& key, ByteView vector, ByteView data) {
    AES aes(Cipher::kCBC, Cipher::kPKCS7Padding);
    aes.Init(direction, key.GetData(), key.GetSize(), vector.data, kVectorSize);
    SecureBytes out(data.size + kVectorSize);
    const auto size = static_cast<unsigned int>(out.size());
    unsigned int written = aes.Update(data.data, static_cast<unsigned int>(data.size), out.data(), size);
    written += aes.DoFinal(out.data() + written, size - written);
    out.resize(written);
    return out;
}

template <std::size_t Size>
void AppendId(SecureBytes& out, const unsigned char (&beginning)[Size], int last = -1) {
    SecureBytes id(std::begin(beginning), std::end(beginning));
    if (last >= 0) {
        id.push_back(static_cast<unsigned char>(last));
    }
    AppendDer(out, kDerObjectId, {id.data(), id.size()});
}

void AppendSequence(SecureBytes& out, const SecureBytes& content) {
    AppendDer(out, kDerSequence, {content.data(), content.size()});
}

SecureBytes EncodeScheme(const Scheme& scheme) {
    const unsigned char iterations[] = {static_cast<unsigned char>(scheme.iterations >> 16U & 0xFFU),
                                        static_cast<unsigned char>(scheme.iterations >> 8U & 0xFFU),
                                        static_cast<unsigned char>(scheme.iterations & 0xFFU)};
    SecureBytes hash;
    AppendId(hash, kHmac, 9);
    AppendDer(hash, kDerNull, {nullptr, 0});
    SecureBytes values;
    AppendDer(values, kDerOctetString, scheme.salt);
    AppendDerNumber(values, {iterations, sizeof iterations});
    AppendSequence(values, hash);
    SecureBytes derivation;
    AppendId(derivation, kPbkdf2);
    AppendSequence(derivation, values);
    SecureBytes cipher;
    AppendId(cipher, kAes, 42);
    AppendDer(cipher, kDerOctetString, scheme.vector);
    SecureBytes parameters;
    AppendSequence(parameters, derivation);
    AppendSequence(parameters, cipher);
    SecureBytes algorithm;
    AppendId(algorithm, kPbes2);
    AppendSequence(algorithm, parameters);
    return algorithm;
}

}  // namespace

SecureBytes DecryptPkcs8(ByteView der, const SecureBuffer& passPhrase) {
    DerReader outer(der);
    DerReader info = outer.ReadSequence();
    outer.ExpectEnd();
    const Scheme scheme = ReadScheme(info.ReadSequence());
    const ByteView encrypted = info.Read(kDerOctetString);
    info.ExpectEnd();
    RequireSupported(encrypted.size > 0 && encrypted.size % kVectorSize == 0);
    SecureBytes plain;
    const SecureBuffer key = MakeKey(scheme, passPhrase);
    try {
        plain = Crypt(Cipher::kDecrypt, key, scheme.vector, encrypted);
        // The padding may be valid by chance, so this also checks that the key is one sequence.
        DerReader decrypted({plain.data(), plain.size()});
        decrypted.ReadSequence();
        decrypted.ExpectEnd();
    } catch (const CryptoException&) {
        throw CryptoException("wrong pass phrase");
    }
    return plain;
}

SecureBytes EncryptPkcs8(ByteView info, const SecureBuffer& passPhrase) {
    unsigned char salt[kSaltSize];
    unsigned char vector[kVectorSize];
    CryptoUtils::Randomize(salt, sizeof salt);
    CryptoUtils::Randomize(vector, sizeof vector);
    const Scheme scheme = {{salt, sizeof salt}, kIterations, GCRY_MD_SHA256, 32, {vector, sizeof vector}};
    const SecureBytes encrypted = Crypt(Cipher::kEncrypt, MakeKey(scheme, passPhrase), scheme.vector, info);
    SecureBytes content;
    AppendSequence(content, EncodeScheme(scheme));
    AppendDer(content, kDerOctetString, {encrypted.data(), encrypted.size()});
    SecureBytes out;
    AppendSequence(out, content);
    return out;
}

}  // namespace zarip::crypto
