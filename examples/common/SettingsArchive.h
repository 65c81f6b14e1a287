// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/AuthenticatedCipher.h>
#include <zarip/crypto/Ciphers.h>
#include <zarip/crypto/CryptoException.h>
#include <zarip/crypto/CryptoUtils.h>
#include <zarip/crypto/Hmac.h>
#include <zarip/osa/Exception.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

/// Several files in one archive, which can be read and changed only with a pass phrase.
///
///     "ZARIPBAK"  version  iterations  salt | names and contents, sealed
///      8 bytes    4        4           16
///
/// Numbers have four bytes, the most significant first. PBKDF2 makes a key of the pass phrase and the salt,
/// and `AuthenticatedCipher` with ChaCha20-Poly1305 seals the rest, with everything before it as
/// associated data.
///
/// Archives of version 1 are still read: AES-256 in counter mode, then HMAC-SHA256 of everything before
/// it.
namespace settings_archive {

using zarip::crypto::AuthenticatedCipher;
using zarip::crypto::CryptoUtils;
using zarip::crypto::SecureBuffer;
using zarip::osa::Exception;

using Files = std::map<std::string, std::string>;  ///< contents by name

constexpr char kMagic[] = "ZARIPBAK";
constexpr std::uint32_t kOldVersion = 1;
constexpr std::uint32_t kVersion = 2;
constexpr std::uint32_t kIterations = 200'000;
// Limits for the number in a file: fewer iterations do not protect, and more only keep the device busy.
constexpr std::uint32_t kMinIterations = 10'000;
constexpr std::uint32_t kMaxIterations = 5'000'000;
constexpr std::size_t kSaltAt = 16;
constexpr std::size_t kSaltSize = 16;
constexpr std::size_t kHeader = kSaltAt + kSaltSize;
constexpr std::size_t kMaxSize = 16 << 20;
constexpr char kRefusal[] = "the pass phrase is wrong or the archive was changed";

inline void AppendNumber(std::string& out, std::size_t number) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>(number >> shift & 0xFFU);
    }
}

inline std::uint32_t ReadNumber(const std::string& text, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        number = number << 8U | static_cast<unsigned char>(text[at + i]);
    }
    return number;
}

/// Whether a name stays in the folder that it is restored to: relative, and no part of it is "", "." or "..".
inline bool IsGoodName(const std::string& name) {
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string part = name.substr(begin, end - begin);
        if (part.empty() || part == "." || part == ".." || part.size() > 200) {
            return false;
        }
        if (end == name.size()) {
            return name.size() <= 1'000 && name.find('\0') == std::string::npos;
        }
        begin = end + 1;
    }
}

/// Makes the key from the pass phrase and the header.
inline SecureBuffer MakeKey(const SecureBuffer& passPhrase, const std::string& header) {
    return CryptoUtils::DeriveKey(passPhrase.GetData(), passPhrase.GetSize(), header.data() + kSaltAt,
                                  kSaltSize, ReadNumber(header, 12), AuthenticatedCipher::kKeySize);
}

/// Reads the sealed part of version 1: counter, encrypted bytes, check.
inline std::string OpenOld(const std::string& archive, const SecureBuffer& master) {
    constexpr std::size_t kCounter = 16;
    constexpr std::size_t kCheck = 32;
    if (archive.size() < kHeader + kCounter + kCheck) {
        throw Exception("this is no archive of settings");
    }
    const auto makeKey = [&master](const char* purpose) {
        SecureBuffer key(32);
        zarip::crypto::HmacSHA256 hmac(master);
        hmac.Update(purpose);
        hmac.DoFinal(key.GetData(), key.GetSize());
        return key;
    };
    const std::size_t end = archive.size() - kCheck;
    zarip::crypto::HmacSHA256 hmac(makeKey("check"));
    hmac.Update(archive.substr(0, end));
    if (!hmac.Verify(archive.substr(end))) {
        throw Exception(kRefusal);
    }
    zarip::crypto::AES aes(zarip::crypto::Cipher::kCTR);
    aes.Init(zarip::crypto::Cipher::kDecrypt, makeKey("content"), archive.substr(kHeader, kCounter));
    return aes.Update(archive.substr(kHeader + kCounter, end - kHeader - kCounter));
}

/// Throws unless the pass phrase is right and no byte was changed.
inline std::string OpenSealed(const std::string& archive, const SecureBuffer& key) {
    try {
        const AuthenticatedCipher cipher(AuthenticatedCipher::kChaCha20Poly1305, key);
        const SecureBuffer plain = cipher.Open(archive.substr(kHeader), archive.substr(0, kHeader));
        return {reinterpret_cast<const char*>(plain.GetData()), plain.GetSize()};
    } catch (const zarip::crypto::CryptoException&) {
        throw Exception(kRefusal);
    }
}

/// The archive of these files. Throws `osa::Exception` for a name that `IsGoodName` refuses, and for
/// more than 16 MiB.
inline std::string Seal(const Files& files, const SecureBuffer& passPhrase,
                        std::uint32_t iterations = kIterations) {
    std::string plain;
    for (const auto& [name, content] : files) {
        if (!IsGoodName(name)) {
            throw Exception("'" + name + "' cannot be restored to a folder");
        }
        AppendNumber(plain, name.size());
        plain += name;
        AppendNumber(plain, content.size());
        plain += content;
        if (plain.size() > kMaxSize - kHeader - AuthenticatedCipher::kOverhead) {
            throw Exception("too much for one archive");
        }
    }
    unsigned char salt[kSaltSize];
    CryptoUtils::Randomize(salt, sizeof(salt));
    std::string archive = kMagic;
    AppendNumber(archive, kVersion);
    AppendNumber(archive, iterations);
    archive.append(reinterpret_cast<const char*>(salt), sizeof(salt));
    const AuthenticatedCipher cipher(AuthenticatedCipher::kChaCha20Poly1305, MakeKey(passPhrase, archive));
    return archive + cipher.Seal(plain, archive);
}

/// Returns the files that `Seal` was given. Throws `osa::Exception` for a wrong pass phrase, and for an
/// archive of which a single bit has changed; the two look the same.
inline Files Open(const std::string& archive, const SecureBuffer& passPhrase) {
    if (archive.size() < kHeader || archive.compare(0, 8, kMagic) != 0 || archive.size() > kMaxSize) {
        throw Exception("this is no archive of settings");
    }
    const std::uint32_t version = ReadNumber(archive, 8);
    if (version != kVersion && version != kOldVersion) {
        throw Exception("the archive is of an unknown version");
    }
    const std::uint32_t iterations = ReadNumber(archive, 12);
    if (iterations < kMinIterations || iterations > kMaxIterations) {
        throw Exception("the archive is damaged");
    }
    const SecureBuffer key = MakeKey(passPhrase, archive);
    const std::string plain = version == kVersion ? OpenSealed(archive, key) : OpenOld(archive, key);

    // The maker of the archive knew the pass phrase, and still must not write outside of the folder.
    Files files;
    std::size_t at = 0;
    const auto take = [&plain, &at] {
        const std::size_t left = plain.size() - at;
        const std::size_t length = left >= 4 ? ReadNumber(plain, at) : 0;
        if (left < 4 || length > left - 4) {
            throw Exception("the archive is damaged");
        }
        at += 4 + length;
        return plain.substr(at - length, length);
    };
    while (at < plain.size()) {
        const std::string name = take();
        if (!IsGoodName(name) || !files.emplace(name, take()).second) {
            throw Exception("the archive has a name that leads out of the folder, or one twice");
        }
    }
    return files;
}

}  // namespace settings_archive
