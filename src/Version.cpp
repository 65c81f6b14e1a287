// SPDX-License-Identifier: MIT

#include "zarip/Version.h"

namespace zarip {

const char* GetVersion() noexcept {
    // The whole string is found in the library's file as well, for example with strings(1).
    static constexpr char kVersion[] = "libzarip " ZARIP_VERSION_STRING;
    return kVersion + sizeof "libzarip " - 1;
}

}  // namespace zarip
