// SPDX-License-Identifier: MIT

#include "crypto/KeyFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "osa/Errors.h"
#include "osa/FileCalls.h"
#include "osa/FileReplacement.h"
#include "osa/UniqueFd.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/osa/IOException.h"

namespace zarip::crypto {

namespace {

constexpr unsigned int kMaxSize = 65'537;
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

/// Returns the path for system calls. Throws if it contains a zero byte, because the system would ignore the
/// rest.
const char* CheckPath(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        throw osa::IOException("Invalid path");
    }
    return path.c_str();
}

/// Returns whether only the user of this process and root can open the file.
bool IsPrivate(const struct stat& status) {
    const uid_t user = ::geteuid();
    return (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           (status.st_uid == user || status.st_uid == 0 || user == 0);
}

}  // namespace

void WriteKeyFile(const std::string& path, const SecureBuffer& content) {
    osa::FileReplacement replacement(osa::FollowLinks(CheckPath(path)));
    const std::string_view text(reinterpret_cast<const char*>(content.GetData()), content.GetSize());
    // The mode is set before the key is written, because the umask may have removed the owner's rights.
    if (!replacement.Open(kOwnerOnly) || ::fchmod(replacement.GetFd(), kOwnerOnly) != 0 ||
        !osa::WriteAll(replacement.GetFd(), text) ||
        replacement.Finish() != osa::FileReplacement::Finished::kDone) {
        osa::ThrowIOErrno("Couldn't write", path);
    }
}

SecureBuffer ReadKeyFile(const std::string& path) {
    const osa::UniqueFd file = osa::OpenAtOnce(CheckPath(path), O_RDONLY);
    struct stat status {};
    if (!file.IsValid() || ::fstat(file.Get(), &status) != 0) {
        osa::ThrowIOErrno("Couldn't read", path);
    }
    if (!S_ISREG(status.st_mode)) {
        osa::ThrowIOErrno("Couldn't read", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    if (!IsPrivate(status)) {
        throw CryptoException("key file '" + path + "' is open to others");
    }
    SecureBuffer content(kMaxSize);
    unsigned int size = 0;
    while (size < kMaxSize) {
        const ssize_t length = ::read(file.Get(), content.GetData() + size, kMaxSize - size);
        if (length == 0) {
            break;
        }
        if (length > 0) {
            size += static_cast<unsigned int>(length);
        } else if (errno != EINTR) {
            osa::ThrowIOErrno("Couldn't read", path);
        }
    }
    content.Shrink(size);
    return content;
}

}  // namespace zarip::crypto
