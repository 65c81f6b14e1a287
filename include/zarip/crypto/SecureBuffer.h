// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::crypto {

/// Bytes that must not be left behind: keys, pass phrases, what was decrypted. They are wiped when the buffer
/// ends. *One thread at a time.*
///
/// Up to `kMaxLocked` bytes come from libgcrypt's secure memory, which is not written to a swap device as
/// long as the process may lock memory. Where that is short or forbidden, and for larger buffers, it is
/// ordinary memory; the wiping is the same.
class ZARIP_EXPORT SecureBuffer {
public:
    static constexpr unsigned int kMaxLocked = 16'384;

    SecureBuffer() noexcept;

    /// Zeros. Throws `std::bad_alloc`.
    explicit SecureBuffer(unsigned int size);

    /// A copy of `length` bytes.
    SecureBuffer(const void* data, unsigned int length);
    SecureBuffer(const SecureBuffer& other);
    /// A buffer that was moved from is empty.
    SecureBuffer(SecureBuffer&& other) noexcept;
    SecureBuffer& operator=(const SecureBuffer& other);
    SecureBuffer& operator=(SecureBuffer&& other) noexcept;
    ~SecureBuffer();

    unsigned char* GetData() noexcept { return _data; }
    const unsigned char* GetData() const noexcept { return _data; }
    unsigned int GetSize() const noexcept { return _size; }

    /// Gives up, and wipes, all after the first `size` bytes; does nothing when there are no more.
    void Shrink(unsigned int size) noexcept;

    /// Whether this is libgcrypt's secure memory.
    bool IsSecure() const noexcept;

private:
    unsigned char* _data;
    unsigned int _size;
    unsigned int _capacity;
};

}  // namespace zarip::crypto
