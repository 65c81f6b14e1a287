// SPDX-License-Identifier: MIT

#include "zarip/crypto/KeyFactory.h"

#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "crypto/Der.h"
#include "crypto/KeyFile.h"
#include "crypto/Pem.h"
#include "crypto/Pkcs8.h"
#include "crypto/RsaKeyImpl.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/GCryptException.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

namespace {

constexpr const char* kPublicLabels[] = {"RSA PUBLIC KEY", "PUBLIC KEY"};
constexpr const char* kPrivateLabels[] = {"RSA PRIVATE KEY", "PRIVATE KEY"};
constexpr const char* kEncryptedLabel = "ENCRYPTED PRIVATE KEY";

constexpr unsigned int kMinBits = 1'024;
constexpr unsigned int kMaxBits = 8'192;
constexpr unsigned int kMaxExponentBits = 64;  // a larger exponent only makes operations slow

/// rsaEncryption, 1.2.840.113549.1.1.1
constexpr unsigned char kRsaObjectId[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};

void Check(gcry_error_t error, const char* operation) {
    if (error != 0) {
        throw GCryptException(operation, error);
    }
}

void RequireSupported(bool holds) {
    if (!holds) {
        throw CryptoException("unsupported key");
    }
}

void RequireValid(bool holds) {
    if (!holds) {
        throw CryptoException("invalid key");
    }
}

/// Makes a number in secure memory.
Mpi ScanSecure(ByteView number) {
    Mpi mpi;
    Check(::gcry_mpi_scan(mpi.Address(), GCRYMPI_FMT_USG, number.data, number.size, nullptr),
          "gcry_mpi_scan");
    ::gcry_mpi_set_flag(mpi.Get(), GCRYMPI_FLAG_SECURE);  // even if the bytes are in plain memory
    return mpi;
}

Mpi ReadMpi(DerReader& reader) {
    const ByteView number = reader.ReadNumber();
    RequireSupported(number.size <= kMaxBits / 8);
    return ScanSecure(number);
}

void ExpectVersion0(DerReader& reader) {
    const ByteView version = reader.ReadNumber();
    RequireSupported(version.size == 1 && version.data[0] == 0);
}

void ExpectRsa(DerReader algorithm) {
    const ByteView id = algorithm.Read(kDerObjectId);
    RequireSupported(id.size == sizeof kRsaObjectId && std::memcmp(id.data, kRsaObjectId, id.size) == 0);
    if (algorithm.Read(kDerNull).size != 0) {
        throw CryptoException("invalid key encoding");
    }
    algorithm.ExpectEnd();
}

// Keys

void CheckPublic(const Mpi& n, const Mpi& e) {
    RequireSupported(n.GetBits() >= kMinBits && n.GetBits() <= kMaxBits && e.GetBits() <= kMaxExponentBits);
    RequireValid(n.IsOdd() && e.IsOdd() && e.GetBits() >= 2);
}

std::vector<unsigned char> PrintNumber(const Mpi& number) {
    std::vector<unsigned char> bytes(number.GetBits() / 8 + 1);
    std::size_t length = 0;
    Check(::gcry_mpi_print(GCRYMPI_FMT_STD, bytes.data(), bytes.size(), &length, number.Get()),
          "gcry_mpi_print");
    bytes.resize(length);
    return bytes;
}

std::shared_ptr<const RsaKeyImpl> BuildPublic(const Mpi& n, const Mpi& e) {
    auto key = std::make_shared<RsaKeyImpl>();
    key->_bits = n.GetBits();
    key->_modulus = PrintNumber(n);
    const std::vector<unsigned char> exponent = PrintNumber(e);
    // The key is built from bytes, because decoded numbers are in secure memory and would make the public key
    // secure as well.
    Check(::gcry_sexp_build(key->_key.Address(), nullptr, "(public-key (rsa (n %b)(e %b)))",
                            static_cast<int>(key->_modulus.size()), key->_modulus.data(),
                            static_cast<int>(exponent.size()), exponent.data()),
          "gcry_sexp_build");
    if (key->_modulus.size() > key->GetSize()) {
        key->_modulus.erase(key->_modulus.begin());  // the sign byte
    }
    return key;
}

std::shared_ptr<const RsaKeyImpl> MakePublic(const Mpi& n, const Mpi& e) {
    CheckPublic(n, e);
    return BuildPublic(n, e);
}

struct PrivateNumbers {
    Mpi n, e, d, p, q, dp, dq, coefficient;  // in the order of the encoding; p is the first prime
};

Mpi NewSecure() {
    return Mpi(::gcry_mpi_snew(0));
}

/// Returns prime - 1.
Mpi MakePredecessor(const Mpi& prime) {
    Mpi result = NewSecure();
    ::gcry_mpi_sub_ui(result.Get(), prime.Get(), 1);
    return result;
}

/// Returns whether a * b is 1 modulo `modulus`.
bool IsInverse(const Mpi& a, const Mpi& b, const Mpi& modulus) {
    const Mpi product = NewSecure();
    ::gcry_mpi_mulm(product.Get(), a.Get(), b.Get(), modulus.Get());
    return ::gcry_mpi_cmp_ui(product.Get(), 1) == 0;
}

/// Throws unless the numbers belong together. Signing with others could reveal the primes or give wrong
/// results.
void CheckPrivate(const PrivateNumbers& key) {
    CheckPublic(key.n, key.e);
    const unsigned int bits = key.n.GetBits();
    RequireValid(key.p.IsOdd() && key.q.IsOdd() && key.p.GetBits() > bits / 4 && key.q.GetBits() > bits / 4);
    RequireValid(::gcry_mpi_cmp(key.p.Get(), key.q.Get()) != 0 &&
                 ::gcry_mpi_cmp(key.d.Get(), key.n.Get()) < 0);
    const Mpi product = NewSecure();
    ::gcry_mpi_mul(product.Get(), key.p.Get(), key.q.Get());
    RequireValid(::gcry_mpi_cmp(product.Get(), key.n.Get()) == 0);
    const Mpi p1 = MakePredecessor(key.p);
    const Mpi q1 = MakePredecessor(key.q);
    RequireValid(IsInverse(key.e, key.d, p1) && IsInverse(key.e, key.d, q1));
    const Mpi rest = NewSecure();
    ::gcry_mpi_mod(rest.Get(), key.d.Get(), p1.Get());
    RequireValid(::gcry_mpi_cmp(rest.Get(), key.dp.Get()) == 0);
    ::gcry_mpi_mod(rest.Get(), key.d.Get(), q1.Get());
    RequireValid(::gcry_mpi_cmp(rest.Get(), key.dq.Get()) == 0);
    RequireValid(::gcry_mpi_cmp(key.coefficient.Get(), key.p.Get()) < 0 &&
                 IsInverse(key.coefficient, key.q, key.p));
}

/// Builds a key from numbers whose first prime is the larger one. libgcrypt expects the smaller prime first
/// and its inverse modulo the larger, which is `coefficient` if the primes are exchanged.
std::shared_ptr<const RsaKeyImpl> BuildPrivate(const PrivateNumbers& key) {
    auto impl = std::make_shared<RsaKeyImpl>();
    impl->_publicPart = BuildPublic(key.n, key.e);
    impl->_bits = impl->_publicPart->_bits;
    impl->_modulus = impl->_publicPart->_modulus;
    Check(::gcry_sexp_build(impl->_key.Address(), nullptr,
                            "(private-key (rsa (n %m)(e %m)(d %m)(p %m)(q %m)(u %m)))", key.n.Get(),
                            key.e.Get(), key.d.Get(), key.q.Get(), key.p.Get(), key.coefficient.Get()),
          "gcry_sexp_build");
    return impl;
}

/// Reads the canonical form of an S-expression: "(", ")" and "<length>:<bytes>".
class CanonicalReader {
public:
    explicit CanonicalReader(ByteView bytes) : _bytes(bytes) {}

    bool IsAtEnd() const { return _bytes.size == 0; }

    /// Skips a character if it comes next, and returns whether it did.
    bool SkipChar(char expected) {
        const bool isNext = !IsAtEnd() && _bytes.data[0] == static_cast<unsigned char>(expected);
        if (isNext) {
            DropBytes(1);
        }
        return isNext;
    }

    ByteView ReadAtom() {
        std::size_t length = 0;
        while (!IsAtEnd() && _bytes.data[0] >= '0' && _bytes.data[0] <= '9' && length < kMaxBits) {
            length = length * 10 + (_bytes.data[0] - '0');
            DropBytes(1);
        }
        if (!SkipChar(':') || length > _bytes.size) {
            throw CryptoException("unexpected result of libgcrypt");
        }
        const ByteView atom = {_bytes.data, length};
        DropBytes(length);
        return atom;
    }

private:
    void DropBytes(std::size_t count) {
        _bytes.data += count;
        _bytes.size -= count;
    }

    ByteView _bytes;
};

bool IsText(ByteView atom, std::string_view text) {
    return std::string_view(reinterpret_cast<const char*>(atom.data), atom.size) == text;
}

/// Extracts the numbers of the private key, except `dp` and `dq`, from a list of libgcrypt. It avoids
/// libgcrypt's search functions, which copy their results to memory that is not wiped.
PrivateNumbers ExtractPrivate(gcry_sexp_t list) {
    SecureBytes text(::gcry_sexp_sprint(list, GCRYSEXP_FMT_CANON, nullptr, 0));
    const std::size_t length = ::gcry_sexp_sprint(list, GCRYSEXP_FMT_CANON, text.data(), text.size());
    PrivateNumbers key;
    const struct {
        const char* name;
        Mpi& number;
    } rows[] = {{"n", key.n}, {"e", key.e}, {"d", key.d}, {"p", key.q}, {"q", key.p}, {"u", key.coefficient}};
    bool isPrivate = false;
    for (CanonicalReader reader({text.data(), length}); !reader.IsAtEnd();) {
        if (reader.SkipChar('(') || reader.SkipChar(')')) {
            continue;
        }
        const ByteView name = reader.ReadAtom();
        isPrivate = isPrivate || IsText(name, "private-key");
        for (const auto& row : rows) {
            if (isPrivate && row.number.Get() == nullptr && IsText(name, row.name)) {
                row.number = ScanSecure(reader.ReadAtom());
                break;
            }
        }
    }
    for (const auto& row : rows) {
        if (row.number.Get() == nullptr) {
            throw CryptoException("unexpected result of libgcrypt");
        }
    }
    return key;
}

std::shared_ptr<const RsaKeyImpl> MakePrivate(PrivateNumbers key) {
    CheckPrivate(key);
    if (::gcry_mpi_cmp(key.p.Get(), key.q.Get()) < 0) {
        std::swap(key.p, key.q);
        key.coefficient = NewSecure();
        RequireValid(::gcry_mpi_invm(key.coefficient.Get(), key.q.Get(), key.p.Get()) != 0);
    }
    return BuildPrivate(key);
}

// Decoding

std::shared_ptr<const RsaKeyImpl> DecodePublic(ByteView der) {
    DerReader outer(der);
    DerReader numbers = outer.ReadSequence();
    outer.ExpectEnd();
    const Mpi n = ReadMpi(numbers);
    const Mpi e = ReadMpi(numbers);
    numbers.ExpectEnd();
    return MakePublic(n, e);
}

std::shared_ptr<const RsaKeyImpl> DecodePublicInfo(ByteView der) {
    DerReader outer(der);
    DerReader info = outer.ReadSequence();
    outer.ExpectEnd();
    ExpectRsa(info.ReadSequence());
    const ByteView key = info.ReadBits();
    info.ExpectEnd();
    return DecodePublic(key);
}

std::shared_ptr<const RsaKeyImpl> DecodePrivate(ByteView der) {
    DerReader outer(der);
    DerReader numbers = outer.ReadSequence();
    outer.ExpectEnd();
    ExpectVersion0(numbers);  // version 1 has more than two primes
    PrivateNumbers key;
    for (Mpi* number : {&key.n, &key.e, &key.d, &key.p, &key.q, &key.dp, &key.dq, &key.coefficient}) {
        *number = ReadMpi(numbers);
    }
    numbers.ExpectEnd();
    return MakePrivate(std::move(key));
}

std::shared_ptr<const RsaKeyImpl> DecodePrivateInfo(ByteView der) {
    DerReader outer(der);
    DerReader info = outer.ReadSequence();
    outer.ExpectEnd();
    ExpectVersion0(info);
    ExpectRsa(info.ReadSequence());
    const ByteView key = info.Read(kDerOctetString);
    if (info.IsNext(kDerAttributes)) {
        info.Read(kDerAttributes);  // optional attributes, which are ignored
    }
    info.ExpectEnd();
    return DecodePrivate(key);
}

using Decoder = std::shared_ptr<const RsaKeyImpl> (*)(ByteView);

/// Loads the first key whose label ends with `kind`. The `decoders` are in the order of the `labels`.
/// @param passPhrase  null if the caller has not given one
std::shared_ptr<const RsaKeyImpl> LoadKey(std::string_view text, const char* kind,
                                          const char* const (&labels)[2], const Decoder (&decoders)[2],
                                          const char* none, const SecureBuffer* passPhrase = nullptr) {
    GCryptInit::InitializeGcrypt();
    const std::optional<PemBlock> block = FindPem(text, kind);
    if (!block) {
        throw CryptoException(none);
    }
    if (block->label == kEncryptedLabel) {
        if (passPhrase == nullptr) {
            throw CryptoException("the key needs a pass phrase");
        }
        const SecureBytes encrypted = DecodePem(*block);
        const SecureBytes der = DecryptPkcs8({encrypted.data(), encrypted.size()}, *passPhrase);
        return DecodePrivateInfo({der.data(), der.size()});
    }
    for (int i = 0; i < 2; ++i) {
        if (block->label == labels[i]) {
            const SecureBytes der = DecodePem(*block);
            return decoders[i]({der.data(), der.size()});
        }
    }
    throw CryptoException("unsupported key");
}

// Encoding

void AppendMpi(SecureBytes& out, const Mpi& number) {
    SecureBytes magnitude((number.GetBits() + 7) / 8 + 1);
    std::size_t length = 0;
    Check(::gcry_mpi_print(GCRYMPI_FMT_USG, magnitude.data(), magnitude.size(), &length, number.Get()),
          "gcry_mpi_print");
    AppendDerNumber(out, {magnitude.data(), length});
}

SecureBytes Wrap(DerTag tag, const SecureBytes& content) {
    SecureBytes out;
    AppendDer(out, tag, {content.data(), content.size()});
    return out;
}

void AppendRsaAlgorithm(SecureBytes& out) {
    SecureBytes algorithm;
    AppendDer(algorithm, kDerObjectId, {kRsaObjectId, sizeof kRsaObjectId});
    AppendDer(algorithm, kDerNull, {nullptr, 0});
    AppendDer(out, kDerSequence, {algorithm.data(), algorithm.size()});
}

SecureBytes EncodePublic(const RsaKeyImpl& key, KeyFactory::Format format) {
    Mpi n;
    Mpi e;
    Check(::gcry_sexp_extract_param(key._key.Get(), nullptr, "ne", n.Address(), e.Address(), nullptr),
          "gcry_sexp_extract_param");
    SecureBytes numbers;
    AppendMpi(numbers, n);
    AppendMpi(numbers, e);
    SecureBytes der = Wrap(kDerSequence, numbers);
    if (format == KeyFactory::kPKCS1) {
        return der;
    }
    der.insert(der.begin(), 0);  // no unused bits
    SecureBytes info;
    AppendRsaAlgorithm(info);
    AppendDer(info, kDerBitString, {der.data(), der.size()});
    return Wrap(kDerSequence, info);
}

SecureBytes EncodePrivate(const RsaKeyImpl& key, KeyFactory::Format format) {
    constexpr unsigned char kVersion = 0;
    PrivateNumbers k = ExtractPrivate(key._key.Get());
    k.dp = NewSecure();
    k.dq = NewSecure();
    ::gcry_mpi_mod(k.dp.Get(), k.d.Get(), MakePredecessor(k.p).Get());
    ::gcry_mpi_mod(k.dq.Get(), k.d.Get(), MakePredecessor(k.q).Get());
    SecureBytes numbers;
    AppendDerNumber(numbers, {&kVersion, 1});
    for (const Mpi* number : {&k.n, &k.e, &k.d, &k.p, &k.q, &k.dp, &k.dq, &k.coefficient}) {
        AppendMpi(numbers, *number);
    }
    SecureBytes der = Wrap(kDerSequence, numbers);
    if (format == KeyFactory::kPKCS1) {
        return der;
    }
    SecureBytes info;
    AppendDerNumber(info, {&kVersion, 1});
    AppendRsaAlgorithm(info);
    AppendDer(info, kDerOctetString, {der.data(), der.size()});
    return Wrap(kDerSequence, info);
}

}  // namespace

RsaPrivateKey KeyFactory::GenerateRsa(unsigned int bits) {
    if (bits != 2048 && bits != 3072 && bits != 4096) {
        throw CryptoException("invalid key size");
    }
    GCryptInit::InitializeGcrypt();
    Sexp wanted;
    Check(::gcry_sexp_build(wanted.Address(), nullptr, "(genkey (rsa (nbits %u)))", bits), "gcry_sexp_build");
    Sexp pair;
    Check(::gcry_pk_genkey(pair.Address(), wanted.Get()), "gcry_pk_genkey");
    return RsaPrivateKey(BuildPrivate(ExtractPrivate(pair.Get())));
}

RsaPublicKey KeyFactory::LoadPublicKey(const std::string& pem) {
    return RsaPublicKey(LoadKey(pem, "PUBLIC KEY", kPublicLabels, {DecodePublic, DecodePublicInfo},
                                "no public key in this text"));
}

namespace {

std::shared_ptr<const RsaKeyImpl> LoadPrivate(const void* pem, unsigned int length,
                                              const SecureBuffer* passPhrase) {
    return LoadKey({static_cast<const char*>(pem), length}, "PRIVATE KEY", kPrivateLabels,
                   {DecodePrivate, DecodePrivateInfo}, "no private key in this text", passPhrase);
}

}  // namespace

RsaPrivateKey KeyFactory::LoadPrivateKey(const void* pem, unsigned int length) {
    return RsaPrivateKey(LoadPrivate(pem, length, nullptr));
}

RsaPrivateKey KeyFactory::LoadPrivateKey(const SecureBuffer& pem) {
    return LoadPrivateKey(pem.GetData(), pem.GetSize());
}

RsaPrivateKey KeyFactory::LoadPrivateKey(const SecureBuffer& pem, const SecureBuffer& passPhrase) {
    return RsaPrivateKey(LoadPrivate(pem.GetData(), pem.GetSize(), &passPhrase));
}

std::string KeyFactory::SavePublicKey(const RsaPublicKey& key, Format format) {
    const SecureBytes text = EncodePem(EncodePublic(key.GetImpl(), format), kPublicLabels[format]);
    return {text.begin(), text.end()};
}

SecureBuffer KeyFactory::SavePrivateKey(const RsaPrivateKey& key, Format format) {
    const SecureBytes text = EncodePem(EncodePrivate(key.GetImpl(), format), kPrivateLabels[format]);
    return {text.data(), static_cast<unsigned int>(text.size())};
}

SecureBuffer KeyFactory::SavePrivateKey(const RsaPrivateKey& key, const SecureBuffer& passPhrase) {
    const SecureBytes info = EncodePrivate(key.GetImpl(), kPKCS8);
    const SecureBytes text = EncodePem(EncryptPkcs8({info.data(), info.size()}, passPhrase), kEncryptedLabel);
    return {text.data(), static_cast<unsigned int>(text.size())};
}

void KeyFactory::SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key) {
    WriteKeyFile(path, SavePrivateKey(key));
}

void KeyFactory::SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key,
                                    const SecureBuffer& passPhrase) {
    WriteKeyFile(path, SavePrivateKey(key, passPhrase));
}

RsaPrivateKey KeyFactory::LoadPrivateKeyFile(const std::string& path) {
    return LoadPrivateKey(ReadKeyFile(path));
}

RsaPrivateKey KeyFactory::LoadPrivateKeyFile(const std::string& path, const SecureBuffer& passPhrase) {
    return LoadPrivateKey(ReadKeyFile(path), passPhrase);
}

}  // namespace zarip::crypto
