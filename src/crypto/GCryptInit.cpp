#include "zarip/crypto/GCryptInit.h"

#include <gcrypt.h>

#include <mutex>

#include "zarip/crypto/CryptoException.h"

namespace zarip::crypto {

namespace {

constexpr int kSecureBytes = 65'536;

void Initialize() {
    if (::gcry_check_version("1.2.3") == nullptr) {
        throw CryptoException("libgcrypt is too old");
    }
    if (::gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0) {
        return;  // somebody else in this process has done it, in his way
    }
    // Locked memory may be short or forbidden; libgcrypt then works with plain memory, and says so on
    // standard error unless told not to.
    ::gcry_control(GCRYCTL_DISABLE_SECMEM_WARN);
    ::gcry_control(GCRYCTL_DISABLE_PRIV_DROP);
    ::gcry_control(GCRYCTL_INIT_SECMEM, kSecureBytes, 0);
    // What does not fit goes to memory that is wiped, though not locked, instead of failing.
    ::gcry_control(GCRYCTL_AUTO_EXPAND_SECMEM, static_cast<unsigned int>(kSecureBytes));
    ::gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
}

}  // namespace

void GCryptInit::InitializeGcrypt() {
    static std::once_flag s_once;
    std::call_once(s_once, Initialize);
}

}  // namespace zarip::crypto
