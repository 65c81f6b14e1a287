// SPDX-License-Identifier: MIT

#include "zarip/crypto/RsaKeys.h"

#include <cstring>
#include <string>

#include "crypto/RsaKeyImpl.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptException.h"

namespace zarip::crypto {

namespace {

struct HashRow {
    const char* name;
    int algorithm;
    unsigned int size;
};

constexpr HashRow kHashes[] = {
    {"sha1", GCRY_MD_SHA1, 20},
    {"sha256", GCRY_MD_SHA256, 32},
    {"sha384", GCRY_MD_SHA384, 48},
    {"sha512", GCRY_MD_SHA512, 64},
};
constexpr unsigned int kMaxDigest = 64;

const HashRow& RowOf(RsaHash hash) {
    return kHashes[static_cast<unsigned int>(hash)];
}

const HashRow& HashOf(RsaEncryption encryption) {
    return RowOf(encryption == RsaEncryption::kOAEPSHA1 ? RsaHash::kSHA1 : RsaHash::kSHA256);
}

void Check(gcry_error_t error, const char* operation) {
    if (error != 0) {
        throw GCryptException(operation, error);
    }
}

/// Returns whether the bytes have the size of the key and are a number below its modulus. libgcrypt would
/// reduce a larger number, so each signature would have a second form.
bool IsInRange(const RsaKeyImpl& key, const unsigned char* data, unsigned int length) {
    return data != nullptr && length == key.GetSize() && std::memcmp(data, key._modulus.data(), length) < 0;
}

/// Extracts the number under `name`, padded to the size of the key.
std::vector<unsigned char> GetNumber(const Sexp& list, const char* name, unsigned int size) {
    const Sexp item(::gcry_sexp_find_token(list.Get(), name, 0));
    const Mpi number(item.Get() != nullptr ? ::gcry_sexp_nth_mpi(item.Get(), 1, GCRYMPI_FMT_USG) : nullptr);
    const unsigned int length = number.Get() != nullptr ? (number.GetBits() + 7) / 8 : 0;
    if (number.Get() == nullptr || length > size) {
        throw CryptoException("unexpected result of libgcrypt");
    }
    std::vector<unsigned char> bytes(size, 0);
    Check(::gcry_mpi_print(GCRYMPI_FMT_USG, bytes.data() + (size - length), length, nullptr, number.Get()),
          "gcry_mpi_print");
    return bytes;
}

void CheckDigest(RsaHash hash, const unsigned char* digest, unsigned int length) {
    if (digest == nullptr || length != RowOf(hash).size) {
        throw CryptoException("invalid digest length");
    }
}

/// Returns whether a signature with this digest fits the key.
bool HasRoom(const RsaKeyImpl& key, RsaSignature kind, RsaHash hash) {
    const unsigned int size = RowOf(hash).size;
    // PKCS #1 adds a prefix of at most 19 bytes and at least 11 bytes of padding to the digest.
    return key._bits >= (kind == RsaSignature::kPSS ? 8 * (2 * size + 2) + 1 : 8 * (size + 19 + 11));
}

/// Builds the data to be signed.
Sexp BuildDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest, unsigned int length,
                 unsigned int saltLength) {
    const HashRow& row = RowOf(hash);
    Sexp data;
    Check(kind == RsaSignature::kPSS
              ? ::gcry_sexp_build(data.Address(), nullptr, "(data (flags pss)(salt-length %d)(hash %s %b))",
                                  static_cast<int>(saltLength), row.name, static_cast<int>(length), digest)
              : ::gcry_sexp_build(data.Address(), nullptr, "(data (flags pkcs1)(hash %s %b))", row.name,
                                  static_cast<int>(length), digest),
          "gcry_sexp_build");
    return data;
}

/// Removes the mask that PSS derives from a seed with MGF1.
void Unmask(const HashRow& row, std::vector<unsigned char> seed, unsigned char* data, unsigned int length) {
    const std::size_t size = seed.size();
    seed.resize(size + 4);
    for (unsigned int counter = 0; counter * row.size < length; ++counter) {
        for (unsigned int i = 0; i < 4; ++i) {
            seed[size + i] = static_cast<unsigned char>(counter >> (24 - 8 * i) & 0xFFU);
        }
        unsigned char mask[kMaxDigest];
        ::gcry_md_hash_buffer(row.algorithm, mask, seed.data(), seed.size());
        for (unsigned int i = 0; i < row.size && counter * row.size + i < length; ++i) {
            data[counter * row.size + i] ^= mask[i];
        }
    }
}

/// Finds the length of the salt of a PSS signature; returns false if it is not such a signature. Other
/// programs choose other lengths than ours, and libgcrypt needs to know the length. libgcrypt itself then
/// verifies the signature.
bool FindSaltLength(const RsaKeyImpl& key, RsaHash hash, const unsigned char* signature, unsigned int length,
                    unsigned int& saltLength) {
    Sexp value;
    Check(::gcry_sexp_build(value.Address(), nullptr, "(data (flags raw)(value %b))",
                            static_cast<int>(length), signature),
          "gcry_sexp_build");
    Sexp result;
    Check(::gcry_pk_encrypt(result.Address(), value.Get(), key._key.Get()), "gcry_pk_encrypt");
    std::vector<unsigned char> message = GetNumber(result, "a", length);
    if ((key._bits - 1) % 8 == 0) {
        message.erase(message.begin());  // the encoded message is one bit shorter than the modulus
    }
    // The message consists of a masked block with the salt at its end, a digest, and a mark.
    const HashRow& row = RowOf(hash);
    if (message.size() < row.size + 2 || message.back() != 0xBC) {
        return false;
    }
    const auto block = static_cast<unsigned int>(message.size()) - row.size - 1;
    Unmask(row, {message.begin() + block, message.end() - 1}, message.data(), block);
    message[0] &= static_cast<unsigned char>(0xFFU >> (8 * (block + row.size + 1) - (key._bits - 1)));
    unsigned int at = 0;
    while (at < block && message[at] == 0) {
        ++at;
    }
    if (at == block || message[at] != 1) {
        return false;
    }
    saltLength = block - at - 1;
    return true;
}

/// Calls `then` with the digest of the data.
template <class Then>
auto WithDigest(RsaHash hash, const void* data, unsigned int length, Then then) {
    const HashRow& row = RowOf(hash);
    unsigned char digest[kMaxDigest];
    ::gcry_md_hash_buffer(row.algorithm, digest, data, length);
    return then(digest, row.size);
}

[[noreturn]] void FailDecryption() {
    throw CryptoException("decryption failed");
}

/// Returns all bits set if a is 0, otherwise 0, without a branch. `a` must be below 2^31.
unsigned int MaskZero(unsigned int a) {
    return 0U - ((a - 1) >> 31U);
}

/// Finds the beginning of the message after `00 02 random 00`, or returns 0 if that prefix is wrong. The time
/// does not depend on the data, so an attacker cannot learn how much of the prefix was right.
unsigned int FindMessage(const unsigned char* block, unsigned int size) {
    unsigned int bad = block[0] | (block[1] ^ 2U);
    unsigned int begin = 0;
    unsigned int looking = ~0U;
    for (unsigned int i = 2; i < size; ++i) {
        const unsigned int here = looking & MaskZero(block[i]);
        begin |= here & (i + 1);
        looking &= ~here;
    }
    bad |= looking & 1U;
    bad |= (begin - 11) >> 31U;  // fewer than eight random bytes
    return begin & MaskZero(bad & 0xFFFFU);
}

// libgcrypt's own function is not used, because its time depends on the position of the first fault.
SecureBuffer RemovePKCS1Padding(const Sexp& plain, unsigned int size) {
    const Mpi number(::gcry_sexp_nth_mpi(plain.Get(), 1, GCRYMPI_FMT_USG));
    if (number.Get() == nullptr || (number.GetBits() + 7) / 8 > size) {
        FailDecryption();
    }
    SecureBuffer block(size);
    const unsigned int length = (number.GetBits() + 7) / 8;
    if (::gcry_mpi_print(GCRYMPI_FMT_USG, block.GetData() + (size - length), length, nullptr, number.Get()) !=
        0) {
        FailDecryption();
    }
    const unsigned int begin = FindMessage(block.GetData(), size);
    if (begin == 0) {
        FailDecryption();
    }
    return SecureBuffer(block.GetData() + begin, size - begin);
}

}  // namespace

RsaPublicKey::RsaPublicKey(std::shared_ptr<const RsaKeyImpl> impl) : _impl(std::move(impl)) {}
RsaPublicKey::RsaPublicKey(const RsaPublicKey& other) = default;
RsaPublicKey& RsaPublicKey::operator=(const RsaPublicKey& other) = default;
RsaPublicKey::~RsaPublicKey() = default;

unsigned int RsaPublicKey::GetBits() const {
    return _impl->_bits;
}

unsigned int RsaPublicKey::GetSize() const {
    return _impl->GetSize();
}

unsigned int RsaPublicKey::GetMaxMessageSize(RsaEncryption encryption) const {
    return encryption == RsaEncryption::kPKCS1 ? GetSize() - 11 : GetSize() - 2 - 2 * HashOf(encryption).size;
}

std::vector<unsigned char> RsaPublicKey::Encrypt(RsaEncryption encryption, const void* data,
                                                 unsigned int length) const {
    if (data == nullptr || length == 0) {
        throw CryptoException("no data");
    }
    if (length > GetMaxMessageSize(encryption)) {
        throw CryptoException("data too long for the key");
    }
    // The S-expression is in secure memory if its data are.
    const SecureBuffer message(data, length);
    Sexp plain;
    Check(encryption == RsaEncryption::kPKCS1
              ? ::gcry_sexp_build(plain.Address(), nullptr, "(data (flags pkcs1)(value %b))",
                                  static_cast<int>(length), message.GetData())
              : ::gcry_sexp_build(plain.Address(), nullptr, "(data (flags oaep)(hash-algo %s)(value %b))",
                                  HashOf(encryption).name, static_cast<int>(length), message.GetData()),
          "gcry_sexp_build");
    Sexp result;
    Check(::gcry_pk_encrypt(result.Address(), plain.Get(), _impl->_key.Get()), "gcry_pk_encrypt");
    return GetNumber(result, "a", GetSize());
}

bool RsaPublicKey::Verify(RsaSignature kind, RsaHash hash, const void* data, unsigned int length,
                          const unsigned char* signature, unsigned int signatureLength) const {
    return WithDigest(hash, data, length, [&](const unsigned char* digest, unsigned int digestLength) {
        return VerifyDigest(kind, hash, digest, digestLength, signature, signatureLength);
    });
}

bool RsaPublicKey::VerifyDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest,
                                unsigned int digestLength, const unsigned char* signature,
                                unsigned int signatureLength) const {
    CheckDigest(hash, digest, digestLength);
    unsigned int saltLength = 0;
    if (!IsInRange(*_impl, signature, signatureLength) ||
        !(kind == RsaSignature::kPSS ? FindSaltLength(*_impl, hash, signature, signatureLength, saltLength)
                                     : HasRoom(*_impl, kind, hash))) {
        return false;
    }
    const Sexp data = BuildDigest(kind, hash, digest, digestLength, saltLength);
    Sexp signatureData;
    Check(::gcry_sexp_build(signatureData.Address(), nullptr, "(sig-val (rsa (s %b)))",
                            static_cast<int>(signatureLength), signature),
          "gcry_sexp_build");
    const gcry_error_t error = ::gcry_pk_verify(signatureData.Get(), data.Get(), _impl->_key.Get());
    if (::gcry_err_code(error) == GPG_ERR_ENOMEM) {
        throw GCryptException("gcry_pk_verify", error);
    }
    return error == 0;
}

RsaPrivateKey::RsaPrivateKey(std::shared_ptr<const RsaKeyImpl> impl) : _impl(std::move(impl)) {}
RsaPrivateKey::RsaPrivateKey(const RsaPrivateKey& other) = default;
RsaPrivateKey& RsaPrivateKey::operator=(const RsaPrivateKey& other) = default;
RsaPrivateKey::~RsaPrivateKey() = default;

unsigned int RsaPrivateKey::GetBits() const {
    return _impl->_bits;
}

unsigned int RsaPrivateKey::GetSize() const {
    return _impl->GetSize();
}

RsaPublicKey RsaPrivateKey::GetPublicKey() const {
    return RsaPublicKey(_impl->_publicPart);
}

SecureBuffer RsaPrivateKey::Decrypt(RsaEncryption encryption, const unsigned char* data,
                                    unsigned int length) const {
    if (!IsInRange(*_impl, data, length)) {
        FailDecryption();
    }
    const bool isOAEP = encryption != RsaEncryption::kPKCS1;
    Sexp cipher;
    Check(isOAEP ? ::gcry_sexp_build(cipher.Address(), nullptr,
                                     "(enc-val (flags oaep)(hash-algo %s)(rsa (a %b)))",
                                     HashOf(encryption).name, static_cast<int>(length), data)
                 : ::gcry_sexp_build(cipher.Address(), nullptr, "(enc-val (flags raw)(rsa (a %b)))",
                                     static_cast<int>(length), data),
          "gcry_sexp_build");
    Sexp plain;
    const gcry_error_t error = ::gcry_pk_decrypt(plain.Address(), cipher.Get(), _impl->_key.Get());
    if (::gcry_err_code(error) == GPG_ERR_ENOMEM) {
        throw GCryptException("gcry_pk_decrypt", error);
    }
    if (error != 0) {
        FailDecryption();
    }
    if (!isOAEP) {
        return RemovePKCS1Padding(plain, GetSize());
    }
    std::size_t size = 0;
    const char* const message = ::gcry_sexp_nth_data(plain.Get(), 1, &size);
    return message != nullptr ? SecureBuffer(message, static_cast<unsigned int>(size)) : SecureBuffer();
}

std::vector<unsigned char> RsaPrivateKey::Sign(RsaSignature kind, RsaHash hash, const void* data,
                                               unsigned int length) const {
    return WithDigest(hash, data, length, [&](const unsigned char* digest, unsigned int digestLength) {
        return SignDigest(kind, hash, digest, digestLength);
    });
}

std::vector<unsigned char> RsaPrivateKey::SignDigest(RsaSignature kind, RsaHash hash,
                                                     const unsigned char* digest,
                                                     unsigned int digestLength) const {
    CheckDigest(hash, digest, digestLength);
    if (!HasRoom(*_impl, kind, hash)) {
        throw CryptoException("key too short for the digest");
    }
    const Sexp data = BuildDigest(kind, hash, digest, digestLength, RowOf(hash).size);
    Sexp signature;
    Check(::gcry_pk_sign(signature.Address(), data.Get(), _impl->_key.Get()), "gcry_pk_sign");
    return GetNumber(signature, "s", GetSize());
}

}  // namespace zarip::crypto
