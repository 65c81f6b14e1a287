#pragma once

#include <zarip/crypto/Ciphers.h>
#include <zarip/crypto/CryptoUtils.h>
#include <zarip/crypto/Hmac.h>
#include <zarip/osa/Exception.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

/// Files in one piece, which only those who know a pass phrase can read or change.
///
///     "ZARIPBAK"  version  iterations  salt  counter  | names and contents, encrypted | check
///      8 bytes    4        4           16    16                                        32
///
/// Numbers have four bytes, the most significant first. PBKDF2 makes a key of the pass phrase and the salt,
/// and HMAC-SHA256 makes two of that: one for AES-256 in counter mode, one for the check, which is
/// HMAC-SHA256 of all that stands before it. Nothing is decrypted unless the check is right.
namespace settings_archive {

using zarip::crypto::CryptoUtils;
using zarip::crypto::SecureBuffer;
using zarip::osa::Exception;

using Files = std::map<std::string, std::string>;  ///< contents by name

constexpr char kMagic[] = "ZARIPBAK";
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kIterations = 200'000;
// What comes from a file is believed only so far: fewer are no protection, more only keep the device busy.
constexpr std::uint32_t kMinIterations = 10'000;
constexpr std::uint32_t kMaxIterations = 5'000'000;
constexpr std::size_t kSaltAt = 16;
constexpr std::size_t kCounterAt = 32;
constexpr std::size_t kHeader = 48;
constexpr std::size_t kCheck = 32;
constexpr std::size_t kMaxSize = 16 << 20;

inline const unsigned char* Bytes(const std::string& text, std::size_t at = 0) {
    return reinterpret_cast<const unsigned char*>(text.data()) + at;
}

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

/// A key for one purpose only.
inline SecureBuffer MakeKey(const SecureBuffer& master, const char* purpose) {
    SecureBuffer key(32);
    zarip::crypto::HmacSHA256 hmac(master.GetData(), master.GetSize());
    hmac.Update(reinterpret_cast<const unsigned char*>(purpose),
                static_cast<unsigned int>(std::strlen(purpose)));
    hmac.DoFinal(key.GetData(), key.GetSize());
    return key;
}

/// The two keys for a header.
struct Keys {
    SecureBuffer forContent;
    SecureBuffer forCheck;

    Keys(const SecureBuffer& passPhrase, const std::string& header) {
        const SecureBuffer master =
            CryptoUtils::DeriveKey(passPhrase.GetData(), passPhrase.GetSize(), header.data() + kSaltAt, 16,
                                   ReadNumber(header, 12), 32);
        forContent = MakeKey(master, "content");
        forCheck = MakeKey(master, "check");
    }
};

inline std::string MakeCheck(const Keys& keys, const std::string& archive, std::size_t length) {
    zarip::crypto::HmacSHA256 hmac(keys.forCheck.GetData(), keys.forCheck.GetSize());
    hmac.Update(Bytes(archive), static_cast<unsigned int>(length));
    unsigned char check[kCheck];
    hmac.DoFinal(check, sizeof(check));
    return {reinterpret_cast<const char*>(check), sizeof(check)};
}

inline std::string Crypt(zarip::crypto::Cipher::Direction direction, const Keys& keys,
                         const std::string& header, const std::string& data) {
    zarip::crypto::AES aes(zarip::crypto::Cipher::kCTR);
    aes.Init(direction, keys.forContent.GetData(), keys.forContent.GetSize(), Bytes(header, kCounterAt), 16);
    std::string out(data.size(), '\0');
    const auto length = static_cast<unsigned int>(data.size());
    aes.Update(Bytes(data), length, reinterpret_cast<unsigned char*>(out.data()), length);
    aes.DoFinal(nullptr, 0);
    return out;
}

/// The archive of these files. Throws `osa::Exception` for a name that `IsGoodName` refuses, and for too
/// much.
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
        if (plain.size() > kMaxSize - kHeader - kCheck) {
            throw Exception("too much for one archive");
        }
    }
    unsigned char random[32];
    CryptoUtils::Randomize(random, sizeof(random));
    std::string archive = kMagic;
    AppendNumber(archive, kVersion);
    AppendNumber(archive, iterations);
    archive.append(reinterpret_cast<const char*>(random), sizeof(random));
    const Keys keys(passPhrase, archive);
    archive += Crypt(zarip::crypto::Cipher::kEncrypt, keys, archive, plain);
    return archive + MakeCheck(keys, archive, archive.size());
}

/// What `Seal` was given. Throws `osa::Exception` for a wrong pass phrase, and for an archive of which a
/// single bit has changed; the two look the same.
inline Files Open(const std::string& archive, const SecureBuffer& passPhrase) {
    if (archive.size() < kHeader + kCheck || archive.compare(0, 8, kMagic) != 0 ||
        archive.size() > kMaxSize) {
        throw Exception("this is no archive of settings");
    }
    if (ReadNumber(archive, 8) != kVersion) {
        throw Exception("the archive is of an unknown version");
    }
    const std::uint32_t iterations = ReadNumber(archive, 12);
    if (iterations < kMinIterations || iterations > kMaxIterations) {
        throw Exception("the archive is damaged");
    }
    const std::size_t end = archive.size() - kCheck;
    const Keys keys(passPhrase, archive);
    if (!CryptoUtils::AreEqual(MakeCheck(keys, archive, end).data(), archive.data() + end, kCheck)) {
        throw Exception("the pass phrase is wrong or the archive was changed");
    }
    const std::string plain =
        Crypt(zarip::crypto::Cipher::kDecrypt, keys, archive, archive.substr(kHeader, end - kHeader));

    // Whoever made this knew the pass phrase; that is no reason to let it write anywhere.
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
