// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::crypto {

class ZARIP_EXPORT GCryptInit {
public:
    GCryptInit() = delete;

    /// Initialises libgcrypt once per process. All classes of this namespace call it first. *Thread-safe.*
    ///
    /// A process that also uses libgcrypt directly may initialise it itself or call this first. Throws
    /// `CryptoException` if the installed libgcrypt is too old; the next call tries again.
    static void InitializeGcrypt();
};

}  // namespace zarip::crypto
