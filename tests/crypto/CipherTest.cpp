// SPDX-License-Identifier: MIT

#include <zarip/crypto/Ciphers.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "Bytes.h"
#include "support/OpenSsl.h"
#include "support/TempDir.h"

namespace zarip::crypto {
namespace {

using MakeCipher = std::unique_ptr<Cipher> (*)(Cipher::Mode, Cipher::Padding);

template <class C>
std::unique_ptr<Cipher> Make(Cipher::Mode mode, Cipher::Padding padding) {
    return std::make_unique<C>(mode, padding);
}

void Init(Cipher& cipher, Cipher::Direction direction, const Bytes& key, const Bytes& vector) {
    cipher.Init(direction, key.data(), SizeOf(key), vector.empty() ? nullptr : vector.data(), SizeOf(vector));
}

/// Converts a message in two pieces and checks that nothing is written after the announced size.
Bytes Convert(Cipher& cipher, const Bytes& data, std::size_t split = 0) {
    Bytes out(data.size() + cipher.GetBlockSize() + 1, 0xA5);
    unsigned int written = 0;
    const unsigned char* pieces[] = {data.data(), data.data() + split};
    const std::size_t lengths[] = {split, data.size() - split};
    for (int i = 0; i < 2; ++i) {
        const auto length = static_cast<unsigned int>(lengths[i]);
        EXPECT_LE(written + cipher.GetOutputSize(length), data.size() + cipher.GetBlockSize());
        written += cipher.Update(pieces[i], length, out.data() + written,
                                 static_cast<unsigned int>(out.size()) - 1 - written);
    }
    written += cipher.DoFinal(out.data() + written, static_cast<unsigned int>(out.size()) - 1 - written);
    EXPECT_EQ(out.back(), 0xA5) << "written after the buffer";
    out.resize(written);
    return out;
}

const char kText[] =
    "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710";
const char kKey128[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char kVector[] = "000102030405060708090a0b0c0d0e0f";

const struct Algorithm {
    MakeCipher make;
    const char* name;
    unsigned int block;
    std::vector<unsigned int> keys;
    const char*
        openssl;  // openssl's name, with %u for the bits of the key; null if it does not have the algorithm
} kAlgorithms[] = {
    {Make<AES>, "AES", 16, {16, 24, 32}, "aes-%u"},     {Make<DES>, "DES", 8, {8}, "des"},
    {Make<TripleDES>, "3DES", 8, {24, 16}, "des-ede3"}, {Make<Blowfish>, "Blowfish", 8, {16}, "bf"},
    {Make<Twofish>, "Twofish", 16, {16, 32}, nullptr},
};

constexpr Cipher::Mode kModes[] = {Cipher::kECB, Cipher::kCBC, Cipher::kCTR, Cipher::kCFB};
constexpr const char* kModeNames[] = {"ecb", "cbc", "ctr", "cfb"};
constexpr Cipher::Padding kPaddings[] = {Cipher::kNoPadding, Cipher::kPKCS7Padding};

TEST(CipherTest, EveryAlgorithmGivesItsPublishedResults) {
    const int rows =
        ForEachRow("ciphers.txt", [](const std::vector<std::string>& row, const std::string& line) {
            const auto algorithm =
                std::find_if(std::begin(kAlgorithms), std::end(kAlgorithms),
                             [&](const Algorithm& candidate) { return candidate.name == row[0]; });
            const auto mode = std::find(std::begin(kModeNames), std::end(kModeNames), row[1]);
            ASSERT_TRUE(algorithm != std::end(kAlgorithms) && mode != std::end(kModeNames)) << line;
            const auto cipher = algorithm->make(kModes[mode - kModeNames], Cipher::kNoPadding);
            const Bytes key = FromHex(row[2]);
            const Bytes vector = FromHex(row[3]);
            const Bytes plain = FromHex(row[4]);
            Init(*cipher, Cipher::kEncrypt, key, vector);
            EXPECT_EQ(ToHex(Convert(*cipher, plain)), row[5]) << line;
            cipher->Reset(ToText(vector));
            EXPECT_EQ(ToHex(Convert(*cipher, plain, 3)), row[5]) << line;
            Init(*cipher, Cipher::kDecrypt, key, vector);
            EXPECT_EQ(Convert(*cipher, FromHex(row[5])), plain) << line;
        });
    EXPECT_EQ(rows, 28);
}

Bytes Pattern(std::size_t length, unsigned int seed = 0) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 37 + 11 + seed);
    }
    return bytes;
}

Bytes VectorFor(const Algorithm& algorithm, Cipher::Mode mode) {
    return mode == Cipher::kECB ? Bytes() : Pattern(algorithm.block, 5);
}

TEST(CipherTest, EveryLengthComesToTheSameHoweverItIsSplit) {
    for (const Algorithm& algorithm : kAlgorithms) {
        const Bytes key = Pattern(algorithm.keys[0], 1);
        for (const Cipher::Mode mode : kModes) {
            for (const Cipher::Padding padding : kPaddings) {
                const bool needsBlocks =
                    padding == Cipher::kNoPadding && (mode == Cipher::kECB || mode == Cipher::kCBC);
                const auto encrypt = algorithm.make(mode, padding);
                const auto decrypt = algorithm.make(mode, padding);
                EXPECT_STREQ(encrypt->GetAlgorithmName(), algorithm.name);
                EXPECT_EQ(encrypt->GetBlockSize(), algorithm.block);
                const std::string vector = ToText(VectorFor(algorithm, mode));
                Init(*encrypt, Cipher::kEncrypt, key, VectorFor(algorithm, mode));
                Init(*decrypt, Cipher::kDecrypt, key, VectorFor(algorithm, mode));
                for (std::size_t length = 0; length <= 4 * std::size_t{algorithm.block}; ++length) {
                    const Bytes plain = Pattern(length);
                    if (needsBlocks && length % algorithm.block != 0) {
                        EXPECT_EQ(CryptoErrorOf([&] { Convert(*encrypt, plain); }), "incomplete block");
                        encrypt->Reset(vector);
                        continue;
                    }
                    Bytes whole;
                    for (std::size_t split = 0; split <= length; ++split) {
                        const Bytes secret = Convert(*encrypt, plain, split);
                        encrypt->Reset(vector);
                        if (split == 0) {
                            whole = secret;
                            ASSERT_EQ(whole.size(), padding == Cipher::kNoPadding
                                                        ? length
                                                        : (length / algorithm.block + 1) * algorithm.block);
                        }
                        ASSERT_EQ(secret, whole)
                            << algorithm.name << " " << mode << " " << length << " " << split;
                    }
                    for (std::size_t split = 0; split <= whole.size(); ++split) {
                        ASSERT_EQ(Convert(*decrypt, whole, split), plain);
                        decrypt->Reset();
                    }
                }
            }
        }
    }
}

TEST(CipherTest, OpenSslUnderstandsItAndIsUnderstood) {
    const test::TempDir folder;
    const Bytes plain = Pattern(1'000);
    folder.Write("plain", ToText(plain));
    for (const Algorithm& algorithm : kAlgorithms) {
        for (const unsigned int length : algorithm.keys) {
            for (const Cipher::Mode mode : kModes) {
                // openssl has no counter mode for blocks of 8 bytes and another name for triple DES in ECB.
                if (algorithm.openssl == nullptr || (mode == Cipher::kCTR && algorithm.block == 8)) {
                    continue;
                }
                char name[32];
                std::snprintf(name, sizeof name, "%s", algorithm.openssl);
                if (algorithm.block == 16) {
                    std::snprintf(name, sizeof name, "aes-%u", 8 * length);
                }
                const std::string cipherName =
                    std::string(length == 16 && algorithm.block == 8 && name[0] == 'd' ? "des-ede" : name) +
                    (name[0] == 'd' && name[3] == '-' && mode == Cipher::kECB
                         ? ""
                         : std::string("-") + kModeNames[mode]);
                const Bytes key = Pattern(length, 1);
                const Bytes vector = VectorFor(algorithm, mode);
                const auto cipher =
                    algorithm.make(mode, mode == Cipher::kECB || mode == Cipher::kCBC ? Cipher::kPKCS7Padding
                                                                                      : Cipher::kNoPadding);
                Init(*cipher, Cipher::kEncrypt, key, vector);
                folder.Write("ours", ToText(Convert(*cipher, plain)));
                const std::string options = "enc -" + cipherName + " -K " + ToHex(key) +
                                            (vector.empty() ? "" : " -iv " + ToHex(vector)) +
                                            " -provider default -provider legacy -in " + folder.Path();
                std::string output;
                ASSERT_EQ(test::RunOpenSsl(options + "/plain -e -out " + folder.File("theirs"), &output), 0)
                    << cipherName << output;
                EXPECT_EQ(folder.Read("theirs"), folder.Read("ours")) << cipherName;
                ASSERT_EQ(test::RunOpenSsl(options + "/ours -d -out " + folder.File("again"), &output), 0)
                    << output;
                EXPECT_EQ(folder.Read("again"), folder.Read("plain")) << cipherName;
            }
        }
    }
}

TEST(CipherTest, KeysAndVectorsOfAnotherLengthAreRefused) {
    for (const Algorithm& algorithm : kAlgorithms) {
        const Bytes bytes = Pattern(64, 1);
        const auto cipher = algorithm.make(Cipher::kCBC, Cipher::kPKCS7Padding);
        const auto init = [&](const unsigned char* key, unsigned int length, const unsigned char* vector,
                              unsigned int vectorLength) {
            return CryptoErrorOf([&] { cipher->Init(Cipher::kEncrypt, key, length, vector, vectorLength); });
        };
        const unsigned int block = algorithm.block;
        ASSERT_EQ(init(bytes.data(), algorithm.keys[0], bytes.data(), block), "no exception");
        unsigned char out[128];
        unsigned char expected[128];
        ASSERT_EQ(cipher->Update(bytes.data(), 3, expected, 0) + cipher->DoFinal(expected, 128), block);
        cipher->Reset(bytes.data(), block);
        ASSERT_EQ(cipher->Update(bytes.data(), 3, out, 0), 0U);
        for (unsigned int length = 0; length <= 64; ++length) {
            const bool isBlowfish = algorithm.name == std::string("Blowfish");
            if (isBlowfish ? length < 4 || length > 56
                           : std::count(algorithm.keys.begin(), algorithm.keys.end(), length) == 0) {
                EXPECT_EQ(init(bytes.data(), length, bytes.data(), block), "invalid key length") << length;
            }
            if (length != block) {
                EXPECT_EQ(init(bytes.data(), algorithm.keys[0], bytes.data(), length),
                          "invalid vector length");
            }
        }
        EXPECT_EQ(init(nullptr, 16, bytes.data(), block), "null key");
        EXPECT_EQ(init(bytes.data(), algorithm.keys[0], nullptr, block), "null vector");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Reset(bytes.data(), block - 1); }), "invalid vector length");
        // None of these errors has changed the object.
        ASSERT_EQ(cipher->DoFinal(out, 128), block);
        EXPECT_EQ(ToHex(out, block), ToHex(expected, block));
        const auto ecb = algorithm.make(Cipher::kECB, Cipher::kNoPadding);
        EXPECT_EQ(CryptoErrorOf([&] {
                      ecb->Init(Cipher::kEncrypt, bytes.data(), algorithm.keys[0], bytes.data(), block);
                  }),
                  "invalid vector length");
    }
}

TEST(CipherTest, BuffersThatAreTooSmallAreRefusedAndNothingIsLost) {
    for (const Algorithm& algorithm : kAlgorithms) {
        const Bytes bytes = Pattern(64, 1);
        const auto cipher = algorithm.make(Cipher::kCBC, Cipher::kPKCS7Padding);
        unsigned char out[128];
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Update(bytes.data(), 1, out, 128); }), "cipher has no key");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(out, 128); }), "cipher has no key");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Reset(); }), "cipher has no key");
        const unsigned int block = algorithm.block;
        cipher->Init(Cipher::kEncrypt, bytes.data(), algorithm.keys[0], bytes.data(), block);
        EXPECT_EQ(cipher->Update(bytes.data(), 3, out, 0), 0U);
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Update(bytes.data(), block, out, block - 1); }),
                  "invalid buffer length");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Update(bytes.data(), block, nullptr, 128); }),
                  "null output buffer");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(out, block - 1); }), "invalid buffer length");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(nullptr, 128); }), "null output buffer");
        EXPECT_EQ(cipher->Update(nullptr, 5, out, 128) + cipher->Update(bytes.data(), 0, nullptr, 0), 0U);
        ASSERT_EQ(cipher->DoFinal(out, block), block);
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Update(bytes.data(), 1, out, 128); }), "cipher is finished");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(out, 128); }), "cipher is finished");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Reset(); }), "another message needs another vector");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(out, 128); }), "cipher is finished");
        cipher->Reset(bytes.data(), block);
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Reset(); }), "another message needs another vector");
        EXPECT_EQ(ToHex(Convert(*cipher, Bytes(bytes.begin(), bytes.begin() + 3))), ToHex(out, block));
        // Another vector gives another result.
        cipher->Reset(bytes.data() + 7, block);
        EXPECT_NE(ToHex(Convert(*cipher, Bytes(bytes.begin(), bytes.begin() + 3))), ToHex(out, block));
    }
}

TEST(CipherTest, WeakKeysAreRefusedWithDES) {
    const char* const weak[] = {"0101010101010101", "fefefefefefefefe", "e0e0e0e0f1f1f1f1",
                                "1f1f1f1f0e0e0e0e",
                                "0000000000000000",  // the first key with other parity
                                "01fe01fe01fe01fe", "011f011f010e010e", "e0fee0fef1fef1fe"};
    const std::string good = "0123456789abcdef";
    const std::string better = "23456789abcdef01";
    const auto errorOf = [](Cipher& cipher, const std::string& hex) {
        const Bytes key = FromHex(hex);
        return CryptoErrorOf([&] { cipher.Init(Cipher::kEncrypt, key.data(), SizeOf(key)); });
    };
    DES des(Cipher::kECB);
    TripleDES triple(Cipher::kECB);
    for (const char* const key : weak) {
        EXPECT_EQ(errorOf(des, key), "weak key") << key;
        EXPECT_EQ(errorOf(triple, good + key + better), "weak key") << key;
    }
    EXPECT_EQ(errorOf(triple, good + better + good), "no exception");
    EXPECT_EQ(errorOf(triple, good + good + better), "weak key");
    EXPECT_EQ(errorOf(triple, good + better + better), "weak key");
    EXPECT_EQ(errorOf(triple, good + better + "22446688aacdee00"), "weak key")
        << "the same except for parity";
    EXPECT_EQ(errorOf(triple, good + good), "weak key");
}

TEST(CipherTest, EveryWrongPaddingIsRefusedInTheSameWayAndResetStartsOver) {
    const Bytes key = FromHex(kKey128);
    AES raw(Cipher::kECB);
    AES padded(Cipher::kECB, Cipher::kPKCS7Padding);
    Init(raw, Cipher::kEncrypt, key, {});
    Init(padded, Cipher::kDecrypt, key, {});
    for (unsigned int count = 0; count <= 255; ++count) {
        for (unsigned int changed = 0; changed < 16; ++changed) {
            // Changes the byte at `changed` from the end by one; the last byte stays.
            Bytes plain(16, static_cast<unsigned char>(count));
            plain[15 - changed] = static_cast<unsigned char>(plain[15 - changed] + (changed == 0 ? 0 : 1));
            const bool isGood = count >= 1 && count <= 16 && (changed == 0 || changed >= count);
            const Bytes secret = Convert(raw, plain);
            raw.Reset();
            Bytes out(16, 0xA5);
            EXPECT_EQ(padded.Update(secret.data(), 16, out.data(), 16), 0U);
            unsigned int written = 99;
            EXPECT_EQ(CryptoErrorOf([&] { written = padded.DoFinal(out.data(), 16); }),
                      isGood ? "no exception" : "invalid padding")
                << count << " " << changed;
            EXPECT_EQ(written, isGood ? 16 - count : 99);
            EXPECT_EQ(CryptoErrorOf([&] { padded.DoFinal(out.data(), 16); }), "cipher is finished");
            EXPECT_TRUE(isGood || out == Bytes(16, 0xA5)) << "plain text of a refused block";
            padded.Reset();
        }
    }
    for (const unsigned int length : {0U, 1U, 15U, 17U}) {
        EXPECT_EQ(CryptoErrorOf([&] { Convert(padded, Pattern(length)); }), "incomplete block");
        padded.Reset();
    }
}

TEST(CipherTest, InputAndOutputMayBeTheSameWhereTheyAreInStep) {
    const Bytes key = FromHex(kKey128);
    const Bytes plain = FromHex(kText);
    for (const Cipher::Mode mode : kModes) {
        AES cipher(mode);
        const std::string vector = mode == Cipher::kECB ? "" : ToText(FromHex(kVector));
        cipher.Init(Cipher::kEncrypt, SecureBuffer(key.data(), SizeOf(key)), vector);
        const Bytes secret = Convert(cipher, plain);
        cipher.Reset(vector);
        EXPECT_EQ(cipher.Update(ToText(plain)), ToText(secret));
        cipher.Reset(vector);
        Bytes data = plain;
        EXPECT_EQ(cipher.Update(data.data(), 64, data.data(), 64), 64U);
        EXPECT_EQ(data, secret);
        cipher.Reset(vector);
        data = plain;
        EXPECT_EQ(CryptoErrorOf([&] { cipher.Update(data.data(), 32, data.data() + 1, 63); }),
                  "overlapping buffers");
        EXPECT_EQ(CryptoErrorOf([&] { cipher.Update(data.data() + 31, 32, data.data(), 64); }),
                  "overlapping buffers");
        EXPECT_EQ(cipher.Update(data.data(), 32, data.data() + 32, 32), 32U) << "side by side";
    }
    AES cipher(Cipher::kECB);
    Init(cipher, Cipher::kEncrypt, key, {});
    Bytes data = plain;
    cipher.Update(data.data(), 1, nullptr, 0);
    EXPECT_EQ(CryptoErrorOf([&] { cipher.Update(data.data(), 32, data.data(), 64); }), "overlapping buffers");
}

TEST(CipherTest, StringsGoInAndComeOut) {
    const Bytes key = FromHex(kKey128);
    AES cipher(Cipher::kCBC, Cipher::kPKCS7Padding);
    const SecureBuffer buffer(key.data(), SizeOf(key));
    const std::string vector(16, 'v');
    cipher.Init(Cipher::kEncrypt, buffer, vector);
    std::string secret = cipher.Update("four");
    secret += cipher.Update(std::string(30, 'x'));
    secret += cipher.Finish();
    EXPECT_EQ(secret.size(), 48U);
    cipher.Init(Cipher::kDecrypt, buffer, vector);
    std::string plain = cipher.Update(secret);
    plain += cipher.Finish();
    EXPECT_EQ(plain, "four" + std::string(30, 'x'));
    cipher.Reset();
    EXPECT_EQ(CryptoErrorOf([&] { cipher.Reset("short"); }), "invalid vector length");
}

TEST(CipherTest, TheCounterRunsOverAndManyCiphersFitWhereSecureMemoryIsShort) {
    const Bytes key = FromHex(kKey128);
    AES counter(Cipher::kCTR);
    AES single(Cipher::kECB);
    Init(counter, Cipher::kEncrypt, key, Bytes(16, 0xFF));
    Init(single, Cipher::kEncrypt, key, {});
    Bytes expected(32, 0);
    std::fill_n(expected.begin(), 16, 0xFF);
    EXPECT_EQ(Convert(counter, Bytes(32, 0)), Convert(single, expected));

    std::vector<std::unique_ptr<Blowfish>> ciphers;  // each has more than 8 KiB of tables made from its key
    for (int i = 0; i < 40; ++i) {
        ciphers.push_back(std::make_unique<Blowfish>(Cipher::kECB));
        Init(*ciphers.back(), Cipher::kEncrypt, FromHex("0123456789abcdef"), {});
    }
    for (const auto& cipher : ciphers) {
        EXPECT_EQ(ToHex(Convert(*cipher, FromHex("1111111111111111"))), "61f9c3802281b096");
    }
}

}  // namespace
}  // namespace zarip::crypto
