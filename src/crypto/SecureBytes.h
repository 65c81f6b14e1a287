// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <vector>

namespace zarip::crypto {

/// Allocates memory as `SecureBuffer` does; `size` must not be 0. Throws `std::bad_alloc`.
void* AllocateSecure(std::size_t size);

/// Wipes the memory and frees it.
void FreeSecure(void* memory, std::size_t size) noexcept;

template <class T>
struct SecureAllocator {
    using value_type = T;

    SecureAllocator() = default;
    template <class U>
    SecureAllocator(const SecureAllocator<U>&) {}

    T* allocate(std::size_t count) { return static_cast<T*>(AllocateSecure(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) noexcept { FreeSecure(memory, count * sizeof(T)); }

    friend bool operator==(const SecureAllocator&, const SecureAllocator&) { return true; }
    friend bool operator!=(const SecureAllocator&, const SecureAllocator&) { return false; }
};

/// A growing array of secret bytes.
using SecureBytes = std::vector<unsigned char, SecureAllocator<unsigned char>>;

}  // namespace zarip::crypto
