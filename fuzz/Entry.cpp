// SPDX-License-Identifier: MIT

// The entry of a fuzzer; FUZZ_TARGET is one of Targets.h.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FUZZ_TARGET(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
