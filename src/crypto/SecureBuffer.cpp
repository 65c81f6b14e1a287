// SPDX-License-Identifier: MIT

#include "zarip/crypto/SecureBuffer.h"

#include <gcrypt.h>
#include <string.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "crypto/SecureBytes.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

void* AllocateSecure(std::size_t size) {
    GCryptInit::InitializeGcrypt();
    void* memory = size <= SecureBuffer::kMaxLocked ? ::gcry_malloc_secure(size) : nullptr;
    if (memory == nullptr) {
        memory = ::gcry_malloc(size);
    }
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void FreeSecure(void* memory, std::size_t size) noexcept {
    if (memory != nullptr) {
        ::explicit_bzero(memory, size);
        ::gcry_free(memory);
    }
}

SecureBuffer::SecureBuffer() noexcept : _data(nullptr), _size(0), _capacity(0) {}

SecureBuffer::SecureBuffer(unsigned int size)
    : _data(size != 0 ? static_cast<unsigned char*>(AllocateSecure(size)) : nullptr),
      _size(size),
      _capacity(size) {
    if (size != 0) {
        std::memset(_data, 0, size);
    }
}

SecureBuffer::SecureBuffer(const void* data, unsigned int length) : SecureBuffer(length) {
    if (length != 0) {
        std::memcpy(_data, data, length);
    }
}

SecureBuffer::SecureBuffer(const SecureBuffer& other) : SecureBuffer(other._data, other._size) {}

SecureBuffer::SecureBuffer(SecureBuffer&& other) noexcept
    : _data(std::exchange(other._data, nullptr)),
      _size(std::exchange(other._size, 0)),
      _capacity(std::exchange(other._capacity, 0)) {}

SecureBuffer& SecureBuffer::operator=(const SecureBuffer& other) {
    return *this = SecureBuffer(other);
}

SecureBuffer& SecureBuffer::operator=(SecureBuffer&& other) noexcept {
    SecureBuffer taken(std::move(other));  // empties `other`; the destructor of `taken` wipes the old bytes
    std::swap(_data, taken._data);
    std::swap(_size, taken._size);
    std::swap(_capacity, taken._capacity);
    return *this;
}

SecureBuffer::~SecureBuffer() {
    FreeSecure(_data, _capacity);
}

void SecureBuffer::Shrink(unsigned int size) noexcept {
    if (size < _size) {
        CryptoUtils::Wipe(_data + size, _size - size);
        _size = size;
    }
}

bool SecureBuffer::IsSecure() const noexcept {
    return _data != nullptr && ::gcry_is_secure(_data) != 0;
}

}  // namespace zarip::crypto
