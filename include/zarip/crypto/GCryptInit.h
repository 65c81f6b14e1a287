// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::crypto {

class ZARIP_EXPORT GCryptInit {
public:
    GCryptInit() = delete;

    /// Makes libgcrypt ready, once in a process; everything in this namespace calls it first. *Thread-safe.*
    ///
    /// A process that uses libgcrypt directly as well may have done so itself, or calls this before. Throws
    /// `CryptoException` when the installed libgcrypt is too old; the next call tries again.
    static void InitializeGcrypt();
};

}  // namespace zarip::crypto
