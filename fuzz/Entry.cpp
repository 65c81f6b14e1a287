// SPDX-License-Identifier: MIT

// The entry of the fuzzer; the environment variable ZARIP_FUZZ_TARGET names the target.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Targets.h"

namespace {

const fuzz::Target* Find() {
    const char* const name = std::getenv("ZARIP_FUZZ_TARGET");
    for (const fuzz::Target* target = fuzz::Target::s_first; target != nullptr; target = target->next) {
        if (name != nullptr && std::strcmp(target->name, name) == 0) {
            return target;
        }
    }
    std::fprintf(stderr, "ZARIP_FUZZ_TARGET is no target\n");
    std::exit(2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Target* const s_target = Find();
    s_target->run(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
