// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::crypto {

/// Secret bytes, such as keys, pass phrases and decrypted data. They are wiped when the buffer is destroyed.
/// *One thread at a time.*
///
/// Buffers of up to `kMaxLocked` bytes are in libgcrypt's secure memory, which is never written to a swap
/// device if the process may lock memory. If secure memory is short or forbidden, and for larger buffers,
/// ordinary memory is used, which is wiped as well.
class ZARIP_EXPORT SecureBuffer {
public:
    static constexpr unsigned int kMaxLocked = 16'384;

    SecureBuffer() noexcept;

    /// Makes a buffer of zeros. Throws `std::bad_alloc`.
    explicit SecureBuffer(unsigned int size);

    /// Copies `length` bytes.
    SecureBuffer(const void* data, unsigned int length);
    SecureBuffer(const SecureBuffer& other);
    /// Leaves `other` empty.
    SecureBuffer(SecureBuffer&& other) noexcept;
    SecureBuffer& operator=(const SecureBuffer& other);
    SecureBuffer& operator=(SecureBuffer&& other) noexcept;
    ~SecureBuffer();

    unsigned char* GetData() noexcept { return _data; }
    const unsigned char* GetData() const noexcept { return _data; }
    unsigned int GetSize() const noexcept { return _size; }

    /// Wipes and removes all bytes after the first `size`. Does nothing if the buffer is not larger.
    void Shrink(unsigned int size) noexcept;

    /// Returns whether the buffer is in libgcrypt's secure memory.
    bool IsSecure() const noexcept;

private:
    unsigned char* _data;
    unsigned int _size;
    unsigned int _capacity;
};

}  // namespace zarip::crypto
