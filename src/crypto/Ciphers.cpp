// SPDX-License-Identifier: MIT

#include "zarip/crypto/Ciphers.h"

#include <gcrypt.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "crypto/CipherHandle.h"
#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptException.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

namespace {

constexpr unsigned int kMaxBlock = 16;

struct KeyRow {
    unsigned int minLength;
    unsigned int maxLength;
    int algorithm;
};

constexpr int kModes[] = {GCRY_CIPHER_MODE_ECB, GCRY_CIPHER_MODE_CBC, GCRY_CIPHER_MODE_CTR,
                          GCRY_CIPHER_MODE_CFB};

}  // namespace

struct CipherFamily {
    const char* name;
    unsigned int blockSize;
    KeyRow keys[3];  // unused ones are zero
    bool allowsWeakKeys;
};

namespace {

constexpr CipherFamily kAES = {
    "AES",
    16,
    {{16, 16, GCRY_CIPHER_AES128}, {24, 24, GCRY_CIPHER_AES192}, {32, 32, GCRY_CIPHER_AES256}},
    false};
constexpr CipherFamily kDES = {"DES", 8, {{8, 8, GCRY_CIPHER_DES}}, false};
constexpr CipherFamily kTripleDES = {
    "3DES", 8, {{16, 16, GCRY_CIPHER_3DES}, {24, 24, GCRY_CIPHER_3DES}}, false};
constexpr CipherFamily kBlowfish = {"Blowfish", 8, {{4, 56, GCRY_CIPHER_BLOWFISH}}, true};
constexpr CipherFamily kTwofish = {
    "Twofish", 16, {{16, 16, GCRY_CIPHER_TWOFISH128}, {32, 32, GCRY_CIPHER_TWOFISH}}, false};

int FindAlgorithm(const CipherFamily& family, unsigned int keyLength) {
    for (const KeyRow& row : family.keys) {
        if (row.algorithm != 0 && keyLength >= row.minLength && keyLength <= row.maxLength) {
            return row.algorithm;
        }
    }
    throw CryptoException("invalid key length");
}

/// Returns all bits set if a < b, otherwise 0, without a branch. Both must be below 2^31.
unsigned int MaskLess(unsigned int a, unsigned int b) {
    return 0U - ((a - b) >> 31U);
}

/// Returns the number of padding bytes at the end of a block, or 0 if they are invalid.
unsigned int FindPadding(const unsigned char* block, unsigned int size) {
    const unsigned int count = block[size - 1];
    unsigned int bad = MaskLess(count, 1) | MaskLess(size, count);
    for (unsigned int i = 0; i < size; ++i) {
        bad |= MaskLess(i, count) & (block[size - 1 - i] ^ count);
    }
    const unsigned int good = MaskLess(bad & 0xFFFFU, 1);
    return count & good;
}

}  // namespace

struct GCryptCipherImpl {
    enum State { kNoKey, kRunning, kFinished };

    const CipherFamily& _family;
    const Cipher::Mode _mode;
    const Cipher::Padding _padding;
    const bool _isStream;  ///< writes every byte at once

    CipherHandle _handle;
    Cipher::Direction _direction = Cipher::kEncrypt;
    State _state = kNoKey;
    unsigned char _vector[kMaxBlock] = {};
    unsigned char _pending[kMaxBlock] = {};  ///< bytes that have not been processed yet
    unsigned int _pendingLength = 0;

    GCryptCipherImpl(const CipherFamily& family, Cipher::Mode mode, Cipher::Padding padding)
        : _family(family),
          _mode(mode),
          _padding(padding),
          _isStream((mode == Cipher::kCTR || mode == Cipher::kCFB) && padding == Cipher::kNoPadding) {}
    ~GCryptCipherImpl() { CryptoUtils::Wipe(_pending, sizeof _pending); }

    void CheckVector(const unsigned char* vector, unsigned int length) const {
        if (length != (_mode == Cipher::kECB ? 0 : _family.blockSize)) {
            throw CryptoException("invalid vector length");
        }
        if (vector == nullptr && length != 0) {
            throw CryptoException("null vector");
        }
    }

    void SetKey(const CipherHandle& handle, const unsigned char* key, unsigned int length) const {
        unsigned char whole[24];
        const bool isTriple = &_family == &kTripleDES;
        if (isTriple) {
            std::memcpy(whole, key, length);
            std::memcpy(whole + 16, key + (length == 16 ? 0 : 16), 8);
            key = whole;
            length = sizeof whole;
        }
        if (_family.allowsWeakKeys) {
            ::gcry_cipher_ctl(handle.Get(), GCRYCTL_SET_ALLOW_WEAK_KEY, nullptr, 1);
        }
        gcry_error_t error = ::gcry_cipher_setkey(handle.Get(), key, length);
        if (isTriple && (IsSameDESKey(whole, whole + 8) || IsSameDESKey(whole + 8, whole + 16))) {
            error = GPG_ERR_WEAK_KEY;
        }
        CryptoUtils::Wipe(whole, sizeof whole);
        if (::gcry_err_code(error) == GPG_ERR_WEAK_KEY) {
            if (!_family.allowsWeakKeys) {
                throw CryptoException("weak key");
            }
        } else if (error != 0) {
            throw GCryptException("gcry_cipher_setkey", error);
        }
    }

    /// Ignores the lowest bit of each byte, which is parity.
    static bool IsSameDESKey(const unsigned char* a, const unsigned char* b) {
        unsigned int difference = 0;
        for (unsigned int i = 0; i < 8; ++i) {
            difference |= (a[i] ^ b[i]) & 0xFEU;
        }
        return difference == 0;
    }

    void Start() {
        gcry_error_t error = ::gcry_cipher_reset(_handle.Get());
        if (error == 0 && _mode == Cipher::kCTR) {
            error = ::gcry_cipher_setctr(_handle.Get(), _vector, _family.blockSize);
        } else if (error == 0 && _mode != Cipher::kECB) {
            error = ::gcry_cipher_setiv(_handle.Get(), _vector, _family.blockSize);
        }
        CryptoUtils::Wipe(_pending, sizeof _pending);
        _pendingLength = 0;
        _state = GCryptCipherImpl::kRunning;
        if (error != 0) {
            _state = GCryptCipherImpl::kFinished;
            throw GCryptException("gcry_cipher_setiv", error);
        }
    }

    void CheckRunning() const {
        if (_state != kRunning) {
            throw CryptoException(_state == kNoKey ? "cipher has no key" : "cipher is finished");
        }
    }

    static void CheckOutput(const unsigned char* out, unsigned int size, std::uint64_t needed) {
        if (out == nullptr && needed != 0) {
            throw CryptoException("null output buffer");
        }
        if (needed > size) {
            throw CryptoException("invalid buffer length");
        }
    }

    void CheckOverlap(const unsigned char* data, unsigned int length, const unsigned char* out,
                      unsigned int written) const {
        const auto from = reinterpret_cast<std::uintptr_t>(data);
        const auto to = reinterpret_cast<std::uintptr_t>(out);
        const bool overlaps = from < to ? to - from < length : from - to < written;
        if (overlaps && (from != to || _pendingLength != 0)) {
            throw CryptoException("overlapping buffers");
        }
    }

    void Crypt(unsigned char* out, const unsigned char* data, unsigned int length) {
        const gcry_error_t error = _direction == Cipher::kEncrypt
                                       ? ::gcry_cipher_encrypt(_handle.Get(), out, length, data, length)
                                       : ::gcry_cipher_decrypt(_handle.Get(), out, length, data, length);
        if (error != 0) {
            _state = kFinished;
            throw GCryptException(
                _direction == Cipher::kEncrypt ? "gcry_cipher_encrypt" : "gcry_cipher_decrypt", error);
        }
    }

    /// Returns how many bytes an `Update` with `length` bytes, which is not 0, processes.
    std::uint64_t CountReady(unsigned int length) const {
        const std::uint64_t total = std::uint64_t{_pendingLength} + length;
        if (_isStream) {
            return total;
        }
        // The last block may be padding.
        const unsigned int held = _direction == Cipher::kDecrypt && _padding == Cipher::kPKCS7Padding ? 1 : 0;
        return (total - held) / _family.blockSize * _family.blockSize;
    }

    unsigned int Update(const unsigned char* data, unsigned int length, unsigned char* out) {
        const unsigned int block = _family.blockSize;
        const auto ready = static_cast<unsigned int>(CountReady(length));
        unsigned int written = 0;
        if (ready != 0 && _pendingLength != 0) {
            const unsigned int taken = block - _pendingLength;
            std::memcpy(_pending + _pendingLength, data, taken);
            Crypt(out, _pending, block);
            _pendingLength = 0;
            data += taken;
            length -= taken;
            written = block;
        }
        const unsigned int direct = ready - written;
        if (direct != 0) {
            Crypt(out + written, data, direct);
        }
        if (length != direct) {
            std::memcpy(_pending + _pendingLength, data + direct, length - direct);
            _pendingLength += length - direct;
        }
        return ready;
    }

    unsigned int FinishEncrypting(unsigned char* out) {
        const unsigned int block = _family.blockSize;
        const unsigned int count = block - _pendingLength;
        std::memset(_pending + _pendingLength, static_cast<int>(count), count);
        Crypt(out, _pending, block);
        return block;
    }

    unsigned int FinishDecrypting(unsigned char* out) {
        const unsigned int block = _family.blockSize;
        unsigned char plain[kMaxBlock];
        Crypt(plain, _pending, block);
        const unsigned int padding = FindPadding(plain, block);
        if (padding != 0) {
            std::memcpy(out, plain, block - padding);
        }
        CryptoUtils::Wipe(plain, sizeof plain);
        if (padding == 0) {
            throw CryptoException("invalid padding");
        }
        return block - padding;
    }
};

Cipher::~Cipher() = default;

namespace {

const unsigned char* BytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned int SizeOf(std::string_view text) {
    if (text.size() > std::numeric_limits<unsigned int>::max()) {
        throw CryptoException("data too long");
    }
    return static_cast<unsigned int>(text.size());
}

/// Calls a function that writes at most `size` bytes and returns what it has written.
template <class Write>
std::string CollectOutput(unsigned long long size, Write write) {
    std::string out(static_cast<std::size_t>(
                        std::min<unsigned long long>(size, std::numeric_limits<unsigned int>::max())),
                    '\0');
    out.resize(write(reinterpret_cast<unsigned char*>(out.data()), static_cast<unsigned int>(out.size())));
    return out;
}

}  // namespace

void Cipher::Init(Direction direction, const SecureBuffer& key, std::string_view vector) {
    Init(direction, key.GetData(), key.GetSize(), vector.empty() ? nullptr : BytesOf(vector), SizeOf(vector));
}

void Cipher::Reset(std::string_view vector) {
    Reset(BytesOf(vector), SizeOf(vector));
}

std::string Cipher::Update(std::string_view data) {
    const unsigned int length = SizeOf(data);
    return CollectOutput(GetOutputSize(length), [&](unsigned char* out, unsigned int size) {
        return Update(BytesOf(data), length, out, size);
    });
}

std::string Cipher::Finish() {
    return CollectOutput(GetBlockSize(),
                         [this](unsigned char* out, unsigned int size) { return DoFinal(out, size); });
}

GCryptCipher::GCryptCipher(const CipherFamily& family, Mode mode, Padding padding)
    : _impl(std::make_unique<GCryptCipherImpl>(family, mode, padding)) {
    GCryptInit::InitializeGcrypt();
}

GCryptCipher::~GCryptCipher() = default;

const char* GCryptCipher::GetAlgorithmName() const {
    return _impl->_family.name;
}

unsigned int GCryptCipher::GetBlockSize() const {
    return _impl->_family.blockSize;
}

void GCryptCipher::Init(Direction direction, const unsigned char* key, unsigned int keyLength,
                        const unsigned char* vector, unsigned int vectorLength) {
    if (key == nullptr) {
        throw CryptoException("null key");
    }
    CipherHandle handle(FindAlgorithm(_impl->_family, keyLength), kModes[_impl->_mode]);
    _impl->CheckVector(vector, vectorLength);
    _impl->SetKey(handle, key, keyLength);
    _impl->_handle.Swap(handle);
    _impl->_direction = direction;
    _impl->_state = GCryptCipherImpl::kFinished;
    Reset(vector, vectorLength);
}

void GCryptCipher::Reset() {
    if (_impl->_state == GCryptCipherImpl::kNoKey) {
        throw CryptoException("cipher has no key");
    }
    if (_impl->_direction == kEncrypt && _impl->_mode != kECB) {
        throw CryptoException("another message needs another vector");
    }
    _impl->Start();
}

void GCryptCipher::Reset(const unsigned char* vector, unsigned int vectorLength) {
    if (_impl->_state == GCryptCipherImpl::kNoKey) {
        throw CryptoException("cipher has no key");
    }
    _impl->CheckVector(vector, vectorLength);
    if (vectorLength != 0) {
        std::memcpy(_impl->_vector, vector, vectorLength);
    }
    _impl->Start();
}

unsigned long long GCryptCipher::GetOutputSize(unsigned int length) const {
    if (_impl->_isStream) {
        return length;
    }
    const unsigned long long total = std::uint64_t{_impl->_pendingLength} + length;
    const unsigned int block = _impl->_family.blockSize;
    return (total / block + (_impl->_padding == kPKCS7Padding ? 1 : 0)) * block;
}

unsigned int GCryptCipher::Update(const unsigned char* data, unsigned int length, unsigned char* out,
                                  unsigned int size) {
    _impl->CheckRunning();
    if (data == nullptr || length == 0) {
        return 0;
    }
    const std::uint64_t ready = _impl->CountReady(length);
    GCryptCipherImpl::CheckOutput(out, size, ready);
    if (ready != 0) {
        _impl->CheckOverlap(data, length, out, static_cast<unsigned int>(ready));
    }
    return _impl->Update(data, length, out);
}

unsigned int GCryptCipher::DoFinal(unsigned char* out, unsigned int size) {
    _impl->CheckRunning();
    const unsigned int block = _impl->_family.blockSize;
    const bool isPadded = _impl->_padding == kPKCS7Padding;
    GCryptCipherImpl::CheckOutput(out, size, isPadded ? block : 0);
    _impl->_state = GCryptCipherImpl::kFinished;
    if (isPadded && _impl->_direction == kEncrypt) {
        return _impl->FinishEncrypting(out);
    }
    if (_impl->_pendingLength != (isPadded ? block : 0)) {
        throw CryptoException("incomplete block");
    }
    return isPadded ? _impl->FinishDecrypting(out) : 0;
}

AES::AES(Mode mode, Padding padding) : GCryptCipher(kAES, mode, padding) {}
DES::DES(Mode mode, Padding padding) : GCryptCipher(kDES, mode, padding) {}
TripleDES::TripleDES(Mode mode, Padding padding) : GCryptCipher(kTripleDES, mode, padding) {}
Blowfish::Blowfish(Mode mode, Padding padding) : GCryptCipher(kBlowfish, mode, padding) {}
Twofish::Twofish(Mode mode, Padding padding) : GCryptCipher(kTwofish, mode, padding) {}

}  // namespace zarip::crypto
