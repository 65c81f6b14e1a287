// SPDX-License-Identifier: MIT

// MD5 and SHA-256 of small and of large data, beside a handle of libgcrypt that is kept.

#include <gcrypt.h>

#include <cstring>
#include <string>
#include <vector>

#include <zarip/crypto/DigestUtils.h>
#include <zarip/crypto/Digests.h>

#include "Rounds.h"

namespace {

using zarip::crypto::Digest;

void Compare(const char* name, int algorithm, Digest& digest, std::size_t size,
             const bench::Options& options) {
    const std::vector<unsigned char> data(size, 0x5A);
    unsigned char out[64];
    gcry_md_hd_t handle = nullptr;
    ::gcry_md_open(&handle, algorithm, 0);
    const unsigned int length = ::gcry_md_get_algo_dlen(algorithm);
    const std::size_t repeats = size > 1'000 ? 2 : 2'000;

    bench::Rounds rounds(std::string(name) + " of " + std::to_string(size) + " bytes", options);
    rounds.Add(
        "libgcrypt, handle kept",
        [&] {
            for (std::size_t i = 0; i < repeats; ++i) {
                ::gcry_md_write(handle, data.data(), data.size());
                std::memcpy(out, ::gcry_md_read(handle, algorithm), length);
                ::gcry_md_reset(handle);
            }
        },
        repeats);
    rounds.Add(
        "zarip::crypto",
        [&] {
            for (std::size_t i = 0; i < repeats; ++i) {
                digest.Update(data.data(), static_cast<unsigned int>(data.size()));
                digest.DoFinal(out, sizeof out);
            }
        },
        repeats);
    rounds.Run();
    ::gcry_md_close(handle);
}

void CompareTexts(const bench::Options& options) {
    const std::string data(64, 'x');
    bench::Rounds rounds("MD5 of 64 bytes as a text", options);
    rounds.Add("libgcrypt, gcry_md_hash_buffer", [&data] {
        unsigned char out[16];
        ::gcry_md_hash_buffer(GCRY_MD_MD5, out, data.data(), data.size());
        std::string text(32, ' ');
        for (std::size_t i = 0; i < sizeof out; ++i) {
            text[2 * i] = "0123456789abcdef"[out[i] >> 4U];
            text[2 * i + 1] = "0123456789abcdef"[out[i] & 15U];
        }
        bench::Keep(text);
    });
    rounds.Add("zarip::crypto::DigestUtils",
               [&data] { bench::Keep(zarip::crypto::DigestUtils::GenerateMd5(data)); });
    rounds.Run();
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    zarip::crypto::MD5 md5;
    zarip::crypto::SHA256 sha256;
    for (const std::size_t size : {std::size_t{64}, std::size_t{1} << 20U}) {
        Compare("MD5", GCRY_MD_MD5, md5, size, options);
        Compare("SHA-256", GCRY_MD_SHA256, sha256, size, options);
    }
    CompareTexts(options);
}
