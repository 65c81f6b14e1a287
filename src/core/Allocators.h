// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstddef>

#include "zarip/core/AllocatorException.h"

namespace zarip::core::internal {

inline bool IsPowerOfTwo(std::size_t number) {
    return number != 0 && (number & (number - 1)) == 0;
}

/// The size that is used for a request. Throws for an alignment that is not a power of two or is beyond
/// `maxAlignment`.
inline std::size_t CheckRequest(std::size_t size, std::size_t alignment, std::size_t maxAlignment) {
    if (!IsPowerOfTwo(alignment) || alignment > maxAlignment) {
        throw AllocatorException("invalid alignment");
    }
    return std::max<std::size_t>(size, 1);
}

[[noreturn]] inline void ThrowForeign() {
    throw AllocatorException("the pointer is not of this allocator");
}

[[noreturn]] inline void ThrowFreed() {
    throw AllocatorException("the memory was freed before");
}

}  // namespace zarip::core::internal
