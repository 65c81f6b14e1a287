// SPDX-License-Identifier: MIT

// AES and Twofish on small and on large data, beside a handle of libgcrypt that is kept.

#include <gcrypt.h>

#include <string>
#include <vector>

#include <zarip/crypto/Ciphers.h>

#include "Rounds.h"

namespace {

using zarip::crypto::Cipher;

struct Contest {
    const char* name;
    int algorithm;
    int mode;
    unsigned int keyLength;
    Cipher& cipher;
};

void Compare(const Contest& contest, Cipher::Direction direction, std::size_t size,
             const bench::Options& options) {
    const auto length = static_cast<unsigned int>(size);
    const std::vector<unsigned char> data(size, 0x5A);
    std::vector<unsigned char> out(size);
    const std::vector<unsigned char> key(contest.keyLength, 0x42);
    const std::vector<unsigned char> vector(16, 0x01);
    const unsigned int vectorLength =
        contest.mode == GCRY_CIPHER_MODE_ECB ? 0 : contest.cipher.GetBlockSize();
    gcry_cipher_hd_t handle = nullptr;
    ::gcry_cipher_open(&handle, contest.algorithm, contest.mode, 0);
    ::gcry_cipher_setkey(handle, key.data(), key.size());
    const auto crypt = direction == Cipher::kEncrypt ? ::gcry_cipher_encrypt : ::gcry_cipher_decrypt;
    const std::size_t repeats = size > 1'000 ? 1 : 2'000;
    contest.cipher.Init(direction, key.data(), contest.keyLength, vectorLength != 0 ? vector.data() : nullptr,
                        vectorLength);

    bench::Rounds rounds(std::string(contest.name) +
                             (direction == Cipher::kEncrypt ? " encrypts " : " decrypts ") +
                             std::to_string(size) + " bytes",
                         options);
    rounds.Add(
        "libgcrypt, handle kept",
        [&] {
            for (std::size_t i = 0; i < repeats; ++i) {
                ::gcry_cipher_reset(handle);
                if (contest.mode == GCRY_CIPHER_MODE_CTR) {
                    ::gcry_cipher_setctr(handle, vector.data(), vectorLength);
                } else if (vectorLength != 0) {
                    ::gcry_cipher_setiv(handle, vector.data(), vectorLength);
                }
                crypt(handle, out.data(), size, data.data(), size);
                bench::Keep(out[0]);
            }
        },
        repeats);
    rounds.Add(
        "zarip::crypto",
        [&] {
            for (std::size_t i = 0; i < repeats; ++i) {
                contest.cipher.Reset(vector.data(), vectorLength);
                contest.cipher.Update(data.data(), length, out.data(), length);
                contest.cipher.DoFinal(nullptr, 0);
                bench::Keep(out[0]);
            }
        },
        repeats);
    rounds.Run();
    ::gcry_cipher_close(handle);
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    zarip::crypto::AES cbc(Cipher::kCBC);
    zarip::crypto::AES counter(Cipher::kCTR);
    zarip::crypto::Twofish twofish(Cipher::kCBC);
    const Contest contests[] = {
        {"AES-256-CBC", GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_CBC, 32, cbc},
        {"AES-256-CTR", GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_CTR, 32, counter},
        {"Twofish-256-CBC", GCRY_CIPHER_TWOFISH, GCRY_CIPHER_MODE_CBC, 32, twofish},
    };
    for (const std::size_t size : {std::size_t{64}, std::size_t{1} << 20U}) {
        for (const Contest& contest : contests) {
            Compare(contest, Cipher::kEncrypt, size, options);
            Compare(contest, Cipher::kDecrypt, size, options);
        }
    }
}
