// SPDX-License-Identifier: MIT

#include "zarip/crypto/AuthenticatedCipher.h"

#include <limits>

#include "crypto/CipherHandle.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

namespace {

constexpr struct {
    int algorithm;
    int mode;
} kAlgorithms[] = {
    {GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_GCM},
    {GCRY_CIPHER_CHACHA20, GCRY_CIPHER_MODE_POLY1305},
};

void Check(gcry_error_t error, const char* operation) {
    if (error != 0) {
        throw GCryptException(operation, error);
    }
}

const unsigned char* Bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string_view View(const unsigned char* data, unsigned int length) {
    return {reinterpret_cast<const char*>(data), data != nullptr ? length : 0};
}

unsigned int CheckedLength(std::size_t length) {
    if (length > std::numeric_limits<unsigned int>::max() - AuthenticatedCipher::kOverhead) {
        throw CryptoException("message too long");
    }
    return static_cast<unsigned int>(length);
}

[[noreturn]] void FailAuthentication() {
    throw CryptoException("authentication failed");
}

/// A cipher with a key, a nonce and the associated data.
class Session : public CipherHandle {
public:
    Session(AuthenticatedCipher::Algorithm algorithm, const SecureBuffer& key, const unsigned char* nonce,
            std::string_view associated)
        : CipherHandle(kAlgorithms[algorithm].algorithm, kAlgorithms[algorithm].mode) {
        Check(::gcry_cipher_setkey(Get(), key.GetData(), key.GetSize()), "gcry_cipher_setkey");
        Check(::gcry_cipher_setiv(Get(), nonce, AuthenticatedCipher::kNonceSize), "gcry_cipher_setiv");
        if (!associated.empty()) {
            Check(::gcry_cipher_authenticate(Get(), associated.data(), associated.size()),
                  "gcry_cipher_authenticate");
        }
        Check(::gcry_cipher_final(Get()), "gcry_cipher_final");
    }
};

}  // namespace

AuthenticatedCipher::AuthenticatedCipher(Algorithm algorithm, const SecureBuffer& key)
    : _algorithm(algorithm), _key(key) {
    GCryptInit::InitializeGcrypt();
    if (key.GetSize() != kKeySize) {
        throw CryptoException("invalid key length");
    }
}

AuthenticatedCipher::~AuthenticatedCipher() = default;

void AuthenticatedCipher::SealTo(unsigned char* out, const unsigned char* message, unsigned int length,
                                 std::string_view associated) const {
    CryptoUtils::Randomize(out, kNonceSize);
    const Session session(_algorithm, _key, out, associated);
    unsigned char* const encrypted = out + kNonceSize;
    Check(::gcry_cipher_encrypt(session.Get(), encrypted, length, message, length), "gcry_cipher_encrypt");
    Check(::gcry_cipher_gettag(session.Get(), encrypted + length, kTagSize), "gcry_cipher_gettag");
}

std::string AuthenticatedCipher::Seal(std::string_view message, std::string_view associated) const {
    const unsigned int length = CheckedLength(message.size());
    std::string sealed(std::size_t{length} + kOverhead, '\0');
    SealTo(reinterpret_cast<unsigned char*>(sealed.data()), Bytes(message), length, associated);
    return sealed;
}

std::string AuthenticatedCipher::Seal(const SecureBuffer& message, std::string_view associated) const {
    return Seal(View(message.GetData(), message.GetSize()), associated);
}

std::vector<unsigned char> AuthenticatedCipher::Seal(const unsigned char* message, unsigned int length,
                                                     const unsigned char* associated,
                                                     unsigned int associatedLength) const {
    const std::string_view view = View(message, length);
    std::vector<unsigned char> sealed(std::size_t{CheckedLength(view.size())} + kOverhead);
    SealTo(sealed.data(), message, static_cast<unsigned int>(view.size()),
           View(associated, associatedLength));
    return sealed;
}

SecureBuffer AuthenticatedCipher::Open(std::string_view sealed, std::string_view associated) const {
    if (sealed.size() > std::numeric_limits<unsigned int>::max()) {
        FailAuthentication();
    }
    return Open(Bytes(sealed), static_cast<unsigned int>(sealed.size()), Bytes(associated),
                CheckedLength(associated.size()));
}

SecureBuffer AuthenticatedCipher::Open(const unsigned char* sealed, unsigned int length,
                                       const unsigned char* associated, unsigned int associatedLength) const {
    if (sealed == nullptr || length < kOverhead) {
        FailAuthentication();
    }
    const Session session(_algorithm, _key, sealed, View(associated, associatedLength));
    const unsigned char* const encrypted = sealed + kNonceSize;
    SecureBuffer message(length - kOverhead);
    Check(::gcry_cipher_decrypt(session.Get(), message.GetData(), message.GetSize(), encrypted,
                                message.GetSize()),
          "gcry_cipher_decrypt");
    const gcry_error_t error = ::gcry_cipher_checktag(session.Get(), encrypted + message.GetSize(), kTagSize);
    if (::gcry_err_code(error) == GPG_ERR_CHECKSUM) {
        FailAuthentication();
    }
    Check(error, "gcry_cipher_checktag");
    return message;
}

}  // namespace zarip::crypto
