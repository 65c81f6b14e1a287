#include "zarip/crypto/DigestUtils.h"

#include <string_view>

#include "core/ReadBlocks.h"
#include "cutil/hex.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/Digests.h"

namespace zarip::crypto {

namespace {

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
    md5.Update(data);
    return Finish(md5);
}

std::string DigestUtils::GenerateFileMd5(const std::string& path) {
    MD5 md5;
    core::ReadFileBlocks(path, [&md5](std::string_view block) { md5.Update(block); });
    return Finish(md5);
}

bool DigestUtils::ValidateMd5(const std::string& expected, const std::string& data) {
    return AreEqual(expected, GenerateMd5(data));
}

bool DigestUtils::ValidateFileMd5(const std::string& expected, const std::string& path) {
    return AreEqual(expected, GenerateFileMd5(path));
}

}  // namespace zarip::crypto
