// SPDX-License-Identifier: MIT

#include "zarip/crypto/GCryptInit.h"

#include <gcrypt.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "zarip/core/Logger.h"
#include "zarip/crypto/CryptoException.h"

namespace zarip::crypto {

namespace {

constexpr int kSecureBytes = 65'536;

#if GCRYPT_VERSION_NUMBER < 0x010b00  // later versions have no such handler
/// Logs libgcrypt's messages, which it would otherwise write to standard error.
__attribute__((format(printf, 3, 0))) void Log(void* /*opaque*/, int /*level*/, const char* format,
                                               va_list arguments) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    core::Logger::GetLogger("libgcrypt")->Debug("%s", text);
}
#endif

void Initialize() {
    if (::gcry_check_version("1.2.3") == nullptr) {
        throw CryptoException("libgcrypt is too old");
    }
    if (::gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0) {
        return;  // the process has initialised libgcrypt itself
    }
#if GCRYPT_VERSION_NUMBER < 0x010b00
    ::gcry_set_log_handler(Log, nullptr);
#endif
    // If locked memory is short or forbidden, libgcrypt uses plain memory. This suppresses its warning about
    // that.
    ::gcry_control(GCRYCTL_DISABLE_SECMEM_WARN);
    ::gcry_control(GCRYCTL_DISABLE_PRIV_DROP);
    ::gcry_control(GCRYCTL_INIT_SECMEM, kSecureBytes, 0);
    // If secure memory is used up, libgcrypt allocates memory that is wiped but not locked, instead of
    // failing.
    ::gcry_control(GCRYCTL_AUTO_EXPAND_SECMEM, static_cast<unsigned int>(kSecureBytes));
    ::gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
}

}  // namespace

void GCryptInit::InitializeGcrypt() {
    static std::once_flag s_once;
    std::call_once(s_once, Initialize);
}

}  // namespace zarip::crypto
