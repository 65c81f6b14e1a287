#include "zarip/crypto/DigestUtils.h"

#include <cstddef>
#include <string_view>

#include "core/ReadBlocks.h"
#include "cutil/hex.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/Digests.h"

namespace zarip::crypto {

namespace {

/// A digest takes 32-bit lengths.
constexpr std::size_t kBlock = std::size_t{1} << 30U;

void Add(MD5& md5, std::string_view data) {
    while (!data.empty()) {
        const std::string_view block = data.substr(0, kBlock);
        md5.Update(reinterpret_cast<const unsigned char*>(block.data()),
                   static_cast<unsigned int>(block.size()));
        data.remove_prefix(block.size());
    }
}

std::string Finish(MD5& md5) {
    unsigned char digest[16];
    md5.DoFinal(digest, sizeof digest);
    return cutil::bin2hex(digest, sizeof digest);
}

bool AreEqual(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           CryptoUtils::AreEqual(a.data(), b.data(), static_cast<unsigned int>(a.size()));
}

}  // namespace

std::string DigestUtils::GenerateMd5(const std::string& data) {
    MD5 md5;
    Add(md5, data);
    return Finish(md5);
}

std::string DigestUtils::GenerateFileMd5(const std::string& path) {
    MD5 md5;
    core::ReadFileBlocks(path, [&md5](std::string_view block) { Add(md5, block); });
    return Finish(md5);
}

bool DigestUtils::ValidateMd5(const std::string& expected, const std::string& data) {
    return AreEqual(expected, GenerateMd5(data));
}

bool DigestUtils::ValidateFileMd5(const std::string& expected, const std::string& path) {
    return AreEqual(expected, GenerateFileMd5(path));
}

}  // namespace zarip::crypto
