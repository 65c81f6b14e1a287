// SPDX-License-Identifier: MIT

#include <zarip/crypto/CryptoUtils.h>

#include <gtest/gtest.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZARIP_FINDS_LEAKS
#endif
#endif
#if defined(ZARIP_FINDS_LEAKS) || defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>

namespace zarip::crypto {
namespace {

/// libgcrypt makes its source of entropy with the first key, for as long as the process lives, and keeps the
/// only pointer to it in secure memory. The search for leaks does not look there.
class EntropySource final : public testing::Environment {
public:
    void SetUp() override {
        const __lsan::ScopedDisabler kept;
        CryptoUtils::GenerateKey(1);
    }
};

testing::Environment* const s_entropySource = testing::AddGlobalTestEnvironment(new EntropySource);

}  // namespace
}  // namespace zarip::crypto

#endif
