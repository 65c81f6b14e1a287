// SPDX-License-Identifier: MIT

#include <zarip/crypto/Ciphers.h>

#include <gtest/gtest.h>

#include <algorithm>
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

/// The whole message, fed in two pieces; checks that nothing is written behind what is announced.
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
    EXPECT_EQ(out.back(), 0xA5) << "written behind the buffer";
    out.resize(written);
    return out;
}

const char kText[] =
    "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710";
const char kKey128[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char kKey192[] = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
const char kKey256[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char kVector[] = "000102030405060708090a0b0c0d0e0f";
const char kCounter[] = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
const char kNow[] = "4e6f77206973207468652074696d6520666f7220616c6c20";  // "Now is the time for all "

// NIST's SP 800-38A, SP 800-67, FIPS 81 and files of its Cryptographic Algorithm Validation Program (CAVP);
// for Blowfish and Twofish what their authors published.
const struct Published {
    const char* where;
    MakeCipher make;
    Cipher::Mode mode;
    const char* key;
    const char* vector;
    const char* plain;
    const char* cipher;
} kPublished[] = {
    {"SP 800-38A F.1.1", Make<AES>, Cipher::kECB, kKey128, "", kText,
     "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
     "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"},
    {"SP 800-38A F.1.3", Make<AES>, Cipher::kECB, kKey192, "", kText,
     "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
     "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e"},
    {"SP 800-38A F.1.5", Make<AES>, Cipher::kECB, kKey256, "", kText,
     "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
     "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"},
    {"SP 800-38A F.2.1", Make<AES>, Cipher::kCBC, kKey128, kVector, kText,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {"SP 800-38A F.2.3", Make<AES>, Cipher::kCBC, kKey192, kVector, kText,
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a571b242012fb7ae07fa9baac3df102e0"
     "08b0e27988598881d920a9e64f5615cd"},
    {"SP 800-38A F.2.5", Make<AES>, Cipher::kCBC, kKey256, kVector, kText,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
    {"SP 800-38A F.3.13", Make<AES>, Cipher::kCFB, kKey128, kVector, kText,
     "3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
     "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6"},
    {"SP 800-38A F.3.15", Make<AES>, Cipher::kCFB, kKey192, kVector, kText,
     "cdc80d6fddf18cab34c25909c99a417467ce7f7f81173621961a2b70171d3d7a"
     "2e1e8a1dd59b88b1c8e60fed1efac4c9c05f9f9ca9834fa042ae8fba584b09ff"},
    {"SP 800-38A F.3.17", Make<AES>, Cipher::kCFB, kKey256, kVector, kText,
     "dc7e84bfda79164b7ecd8486985d386039ffed143b28b1c832113c6331e5407bdf10132415e54b92a13ed0a8267ae2f9"
     "75a385741ab9cef82031623d55b1e471"},
    {"SP 800-38A F.5.1", Make<AES>, Cipher::kCTR, kKey128, kCounter, kText,
     "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
     "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
    {"SP 800-38A F.5.3", Make<AES>, Cipher::kCTR, kKey192, kCounter, kText,
     "1abc932417521ca24f2b0459fe7e6e0b090339ec0aa6faefd5ccc2c6f4ce8e941e36b26bd1ebc670d1bd1d665620abf7"
     "4f78a7f6d29809585a97daec58c6b050"},
    {"SP 800-38A F.5.5", Make<AES>, Cipher::kCTR, kKey256, kCounter, kText,
     "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
     "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"},
    {"RFC 3686, vector 6", Make<AES>, Cipher::kCTR, "02bf391ee8ecb159b959617b0965279bf59b60a786d3e0fe",
     "0007bdfd5cbd60278dcc091200000001",
     "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20212223",
     "96893fc55e5c722f540b7dd1ddf7e758d288bc95c69165884536c811662f2188abee0935"},
    {"FIPS 81 B1", Make<DES>, Cipher::kECB, "0123456789abcdef", "", kNow,
     "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53"},
    {"FIPS 81 C1", Make<DES>, Cipher::kCBC, "0123456789abcdef", "1234567890abcdef", kNow,
     "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
    {"FIPS 81 D3", Make<DES>, Cipher::kCFB, "0123456789abcdef", "1234567890abcdef", kNow,
     "f3096249c7f46e51a69e839b1a92f78403467133898ea622"},
    {"SP 800-67 B.1", Make<TripleDES>, Cipher::kECB, "0123456789abcdef23456789abcdef01456789abcdef0123", "",
     "54686520717566636b2062726f776e20666f78206a756d70", "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900"},
    {"CAVP TCBCMMT3, 2", Make<TripleDES>, Cipher::kCBC, "1a5d4c0825072a15a8ad9dfdaeda8c048adffb85bc4fced0",
     "7fcfa736f7548b6f", "983c3edacd939406010e1bc6ff9e12320ac5008117fa8f84",
     "d84fa24f38cf451ca2c9adc960120bd8ff9871584fe31cee"},
    {"CAVP TCFB64MMT3, 2", Make<TripleDES>, Cipher::kCFB, "9e32daa42679a898c2627a2f4ac4975885cb2a68c8c81920",
     "cc20aa6c34214217", "6b7acd01c975d53f544b35b76103a7d00c63ad9091bd1a10",
     "39be9a6d7702b3477bade6e1664d3d922ccb124204eff794"},
    {"Blowfish, zeros", Make<Blowfish>, Cipher::kECB, "0000000000000000", "", "0000000000000000",
     "4ef997456198dd78"},
    {"Blowfish", Make<Blowfish>, Cipher::kECB, "0123456789abcdef", "", "1111111111111111",
     "61f9c3802281b096"},
    {"Blowfish, a key that is called weak, by openssl", Make<Blowfish>, Cipher::kECB, "0000000000002e8f", "",
     "1111111111111111", "695b186a9e340fa9"},
    {"Blowfish, 4 bytes", Make<Blowfish>, Cipher::kECB, "f0e1d2c3", "", "fedcba9876543210",
     "be1e639408640f05"},
    {"Blowfish, 24 bytes", Make<Blowfish>, Cipher::kECB, "f0e1d2c3b4a5968778695a4b3c2d1e0f0011223344556677",
     "", "fedcba9876543210", "05044b62fa52d080"},
    {"Blowfish, CBC", Make<Blowfish>, Cipher::kCBC, "0123456789abcdeff0e1d2c3b4a59687", "fedcba9876543210",
     "37363534333231204e6f77206973207468652074696d6520666f722000000000",
     "6b77b4d63006dee605b156e27403979358deb9e7154616d959f1652bd5ff92cc"},
    {"Blowfish, CFB", Make<Blowfish>, Cipher::kCFB, "0123456789abcdeff0e1d2c3b4a59687", "fedcba9876543210",
     "37363534333231204e6f77206973207468652074696d6520666f722000",
     "e73214a2822139caf26ecf6d2eb9e76e3da3de04d1517200519d57a6c3"},
    {"Twofish, zeros", Make<Twofish>, Cipher::kECB, "00000000000000000000000000000000", "",
     "00000000000000000000000000000000", "9f589f5cf6122c32b6bfec2f2ae8c35a"},
    {"Twofish, 32 bytes", Make<Twofish>, Cipher::kECB,
     "0123456789abcdeffedcba987654321000112233445566778899aabbccddeeff", "",
     "00000000000000000000000000000000", "37527be0052334b89f0cfccae87cfa20"},
};

TEST(CipherTest, EveryAlgorithmGivesItsPublishedResults) {
    for (const Published& row : kPublished) {
        const auto cipher = row.make(row.mode, Cipher::kNoPadding);
        const Bytes plain = FromHex(row.plain);
        const Bytes key = FromHex(row.key);
        Init(*cipher, Cipher::kEncrypt, key, FromHex(row.vector));
        EXPECT_EQ(ToHex(Convert(*cipher, plain)), row.cipher) << row.where;
        cipher->Reset(ToText(FromHex(row.vector)));
        EXPECT_EQ(ToHex(Convert(*cipher, plain, 3)), row.cipher) << row.where;
        Init(*cipher, Cipher::kDecrypt, key, FromHex(row.vector));
        EXPECT_EQ(Convert(*cipher, FromHex(row.cipher)), plain) << row.where;
    }
}

const struct Algorithm {
    MakeCipher make;
    const char* name;
    unsigned int block;
    std::vector<unsigned int> keys;
    const char* openssl;  // how that calls it, with %u for the bits of the key; null when it has none
} kAlgorithms[] = {
    {Make<AES>, "AES", 16, {16, 24, 32}, "aes-%u"},     {Make<DES>, "DES", 8, {8}, "des"},
    {Make<TripleDES>, "3DES", 8, {24, 16}, "des-ede3"}, {Make<Blowfish>, "Blowfish", 8, {16}, "bf"},
    {Make<Twofish>, "Twofish", 16, {16, 32}, nullptr},
};

constexpr Cipher::Mode kModes[] = {Cipher::kECB, Cipher::kCBC, Cipher::kCTR, Cipher::kCFB};
constexpr const char* kModeNames[] = {"ecb", "cbc", "ctr", "cfb"};
constexpr Cipher::Padding kPaddings[] = {Cipher::kNoPadding, Cipher::kPKCS7Padding};

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
                // It has no counter mode for blocks of 8 bytes, and calls triple DES in ECB by another name.
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

TEST(CipherTest, KeysVectorsAndBuffersThatDoNotDoAreRefusedAndNothingIsLost) {
    for (const Algorithm& algorithm : kAlgorithms) {
        const Bytes bytes = Pattern(64, 1);
        const auto cipher = algorithm.make(Cipher::kCBC, Cipher::kPKCS7Padding);
        const auto init = [&](const unsigned char* key, unsigned int length, const unsigned char* vector,
                              unsigned int vectorLength) {
            return CryptoErrorOf([&] { cipher->Init(Cipher::kEncrypt, key, length, vector, vectorLength); });
        };
        unsigned char out[128];
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Update(bytes.data(), 1, out, 128); }), "cipher has no key");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->DoFinal(out, 128); }), "cipher has no key");
        EXPECT_EQ(CryptoErrorOf([&] { cipher->Reset(); }), "cipher has no key");
        const unsigned int block = algorithm.block;
        ASSERT_EQ(init(bytes.data(), algorithm.keys[0], bytes.data(), block), "no exception");
        EXPECT_EQ(cipher->Update(bytes.data(), 3, out, 0), 0U);
        // The object goes on as it was after each of these.
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
        // Another vector gives something else; ECB takes none.
        cipher->Reset(bytes.data() + 7, block);
        EXPECT_NE(ToHex(Convert(*cipher, Bytes(bytes.begin(), bytes.begin() + 3))), ToHex(out, block));
        const auto ecb = algorithm.make(Cipher::kECB, Cipher::kNoPadding);
        EXPECT_EQ(CryptoErrorOf([&] {
                      ecb->Init(Cipher::kEncrypt, bytes.data(), algorithm.keys[0], bytes.data(), block);
                  }),
                  "invalid vector length");
    }
}

TEST(CipherTest, WeakKeysAreRefusedWithDES) {
    const char* const weak[] = {"0101010101010101", "fefefefefefefefe", "e0e0e0e0f1f1f1f1",
                                "1f1f1f1f0e0e0e0e",
                                "0000000000000000",  // the first with other parity
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
    EXPECT_EQ(errorOf(triple, good + better + "22446688aacdee00"), "weak key") << "the same but for parity";
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
            // The byte at `changed` from the end is one off; the last one stays.
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
