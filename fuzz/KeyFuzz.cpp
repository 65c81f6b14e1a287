// SPDX-License-Identifier: MIT

#include <string>

#include <zarip/crypto/CryptoException.h>
#include <zarip/crypto/KeyFactory.h>

#include "Targets.h"

namespace fuzz {

namespace {

using zarip::crypto::CryptoException;
using zarip::crypto::KeyFactory;
using zarip::crypto::RsaPrivateKey;
using zarip::crypto::RsaPublicKey;
using zarip::crypto::SecureBuffer;

constexpr KeyFactory::Format kFormats[] = {KeyFactory::kPKCS1, KeyFactory::kPKCS8};

std::string Base64(const std::string& bytes) {
    const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned int group = 0;
        for (std::size_t j = i; j < i + 3; ++j) {
            group = group * 256 + (j < bytes.size() ? static_cast<unsigned char>(bytes[j]) : 0U);
        }
        for (unsigned int j = 0; j < 4; ++j) {
            text += i + j <= bytes.size() ? digits[group >> (18 - 6 * j) & 63U] : '=';
        }
    }
    return text;
}

std::string ToText(const SecureBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetData()), buffer.GetSize()};
}

void TryPublic(const std::string& text) {
    try {
        const RsaPublicKey key = KeyFactory::LoadPublicKey(text);
        for (const KeyFactory::Format format : kFormats) {
            const std::string saved = KeyFactory::SavePublicKey(key, format);
            Check(KeyFactory::SavePublicKey(KeyFactory::LoadPublicKey(saved), format) == saved,
                  "a public key that was saved loads as the same");
        }
        const unsigned char signature[1024] = {1};
        Check(!key.Verify(zarip::crypto::RsaSignature::kPKCS1, zarip::crypto::RsaHash::kSHA256, "", 0,
                          signature, key.GetSize()),
              "not everything is a signature");
    } catch (const CryptoException&) {
    }
}

void TryPrivate(const std::string& text) {
    try {
        const RsaPrivateKey key = KeyFactory::LoadPrivateKey(
            SecureBuffer(text.data(), static_cast<unsigned int>(text.size())), SecureBuffer("horse", 5));
        for (const KeyFactory::Format format : kFormats) {
            const SecureBuffer saved = KeyFactory::SavePrivateKey(key, format);
            Check(ToText(KeyFactory::SavePrivateKey(KeyFactory::LoadPrivateKey(saved), format)) ==
                      ToText(saved),
                  "a private key that was saved loads as the same");
        }
    } catch (const CryptoException&) {
    }
}

std::string Wrap(const std::string& label, const std::string& der) {
    return "-----BEGIN " + label + "-----\n" + Base64(der) + "\n-----END " + label + "-----\n";
}

}  // namespace

// PEM text, or the DER that stands in one.
FUZZ_TARGET(key) {
    if (input.find("-----") != std::string::npos) {
        TryPublic(input);
        TryPrivate(input);
        return;
    }
    TryPublic(Wrap("RSA PUBLIC KEY", input));
    TryPublic(Wrap("PUBLIC KEY", input));
    TryPrivate(Wrap("RSA PRIVATE KEY", input));
    TryPrivate(Wrap("PRIVATE KEY", input));
    TryPrivate(Wrap("ENCRYPTED PRIVATE KEY", input));
}

}  // namespace fuzz
