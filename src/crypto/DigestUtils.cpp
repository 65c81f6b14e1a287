// SPDX-License-Identifier: MIT

#include "zarip/crypto/DigestUtils.h"

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "cutil/hex.h"
#include "osa/FileCalls.h"
#include "osa/PerThread.h"
#include "osa/ReadBlocks.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/Digests.h"
#include "zarip/osa/Exception.h"

namespace zarip::crypto {

namespace {

/// A digest that the thread keeps between two texts, as opening one takes half as long as the digest of a
/// short text.
class KeptMd5 {
public:
    static std::unique_ptr<MD5> Take() {
        std::unique_ptr<MD5> md5(Kept().Get());
        if (md5) {
            Kept().Set(nullptr);
        } else {
            md5 = std::make_unique<MD5>();
        }
        return md5;
    }

    static void GiveBack(std::unique_ptr<MD5> md5) {
        if (Kept().Set(md5.get())) {
            static_cast<void>(md5.release());
        }
    }

private:
    static const osa::PerThread<MD5>& Kept() {
        static const osa::PerThread<MD5> s_kept([](void* md5) { delete static_cast<MD5*>(md5); });
        return s_kept;
    }
};

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
    std::unique_ptr<MD5> md5 = KeptMd5::Take();
    md5->Update(data);
    std::string text = Finish(*md5);
    KeptMd5::GiveBack(std::move(md5));  // one that failed is not kept
    return text;
}

std::string DigestUtils::GenerateFileMd5(const std::string& path) {
    MD5 md5;
    struct stat status {};
    const osa::UniqueFd file = osa::OpenRegular(path.c_str(), 0, status);
    if (!file.IsValid() && errno == EINVAL) {
        throw osa::Exception("File '" + path + "' is a pipe or a device");
    }
    if (!file.IsValid() ||
        !osa::ReadBlocks(file.Get(), [&md5](std::string_view block) { md5.Update(block); })) {
        throw osa::Exception("File '" + path + "' does not exist");
    }
    return Finish(md5);
}

bool DigestUtils::ValidateMd5(const std::string& expected, const std::string& data) {
    return AreEqual(expected, GenerateMd5(data));
}

bool DigestUtils::ValidateFileMd5(const std::string& expected, const std::string& path) {
    return AreEqual(expected, GenerateFileMd5(path));
}

}  // namespace zarip::crypto
