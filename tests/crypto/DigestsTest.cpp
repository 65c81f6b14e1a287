// SPDX-License-Identifier: MIT

#include <zarip/crypto/CryptoException.h>
#include <zarip/crypto/DigestUtils.h>
#include <zarip/crypto/Digests.h>
#include <zarip/crypto/GCryptInit.h>

#include <gcrypt.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Bytes.h"
#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/TempDir.h"

namespace zarip::crypto {
namespace {

std::string Finish(Digest& digest) {
    std::vector<unsigned char> out(digest.GetDigestSize() + 1, 0x5A);
    digest.DoFinal(out.data(), static_cast<unsigned int>(out.size()));
    EXPECT_EQ(out.back(), 0x5A) << "written after the digest";
    std::string text;
    for (std::size_t i = 0; i + 1 < out.size(); ++i) {
        char byte[3];
        std::snprintf(byte, sizeof byte, "%02x", out[i]);
        text += byte;
    }
    return text;
}

void Feed(Digest& digest, const std::string& text) {
    digest.Update(reinterpret_cast<const unsigned char*>(text.data()),
                  static_cast<unsigned int>(text.size()));
}

template <class D>
std::unique_ptr<Digest> Make() {
    return std::make_unique<D>();
}

const struct Algorithm {
    std::unique_ptr<Digest> (*make)();
    const char* name;
    const char* abc;  // the published digest of "abc"
} kAlgorithms[] = {
    {Make<MD5>, "MD5", "900150983cd24fb0d6963f7d28e17f72"},
    {Make<SHA1>, "SHA1", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {Make<SHA256>, "SHA256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {Make<SHA384>, "SHA384",
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
    {Make<SHA512>, "SHA512",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    {Make<MD4>, "MD4", "a448017aaf21d8525fc10ae87aa6729d"},
    {Make<CRC32>, "CRC32", "352441c2"},
};

TEST(DigestsTest, EveryAlgorithmGivesItsPublishedDigestAgainAndAgain) {
    for (const Algorithm& algorithm : kAlgorithms) {
        const std::unique_ptr<Digest> digest = algorithm.make();
        EXPECT_STREQ(digest->GetAlgorithmName(), algorithm.name);
        EXPECT_EQ(digest->GetDigestSize() * 2, std::string(algorithm.abc).size());
        Feed(*digest, "abc");
        EXPECT_EQ(Finish(*digest), algorithm.abc);
        // The context was reset. Single bytes, pieces and empty updates give the same digest.
        digest->Update('a');
        digest->Update(nullptr, 5);
        digest->Update(reinterpret_cast<const unsigned char*>("xyz"), 0);
        Feed(*digest, "bc");
        EXPECT_EQ(Finish(*digest), algorithm.abc);
        Feed(*digest, "something else");
        digest->Reset();
        Feed(*digest, "abc");
        EXPECT_EQ(Finish(*digest), algorithm.abc);
    }
}

TEST(DigestsTest, ABufferThatDoesNotDoIsRefusedAndNothingIsLost) {
    unsigned char out[16] = {};
    SHA1 sha1;
    Feed(sha1, "abc");
    EXPECT_EQ(CryptoErrorOf([&] { sha1.DoFinal(out, 16); }), "invalid buffer length");
    EXPECT_EQ(CryptoErrorOf([&] { sha1.DoFinal(nullptr, 20); }), "null output buffer");
    EXPECT_EQ(std::count(out, out + 16, 0), 16);
    EXPECT_EQ(Finish(sha1), "a9993e364706816aba3e25717850c26c9cd0d89d");
    MD5 md5;
    EXPECT_EQ(CryptoErrorOf([&] { md5.DoFinal(out, 16); }), "no exception");
}

TEST(DigestsTest, DeliberatelyACopyHasNoContext) {
    SHA256 source;
    SHA256 copy(source);
    GCryptDigest assigned(8);
    Feed(assigned, "abc");
    assigned = source;
    GCryptDigest unknown(12'345);  // like an algorithm that libgcrypt refuses
    GCryptDigest none(0);
    GCryptDigest sizeless(316);  // SHAKE128, for which newer libraries choose a length
    for (GCryptDigest* digest : {static_cast<GCryptDigest*>(&copy), &assigned, &unknown, &none, &sizeless}) {
        if (digest == &sizeless && digest->GetDigestSize() != 0) {
            continue;
        }
        digest->Update('a');
        Feed(*digest, "bc");
        digest->Reset();
        unsigned char out[64];
        EXPECT_EQ(CryptoErrorOf([&] { digest->DoFinal(out, sizeof out); }), "no digest context");
    }
    EXPECT_STREQ(copy.GetAlgorithmName(), "SHA256");
    EXPECT_EQ(assigned.GetDigestSize(), 32U);
    Feed(source, "abc");
    EXPECT_EQ(Finish(source), kAlgorithms[2].abc);
}

// Digests also work at the very end of a thread, when its kept digest has been destroyed.
TEST(DigestsTest, ManyThreadsMayDigestFromTheStart) {
    struct AtTheEnd {
        ~AtTheEnd() {
            if (result != nullptr) {
                *result = DigestUtils::GenerateMd5("abc");
            }
        }
        std::string* result = nullptr;
    };
    std::vector<std::string> results(8);
    test::InThreads(8, [&](int i) {
        thread_local AtTheEnd atTheEnd;
        atTheEnd.result = &results[static_cast<std::size_t>(i)];
        DigestUtils::GenerateMd5("not kept");
    });
    EXPECT_EQ(results, std::vector<std::string>(8, kAlgorithms[0].abc));
}

TEST(DigestUtilsTest, TextsAndFilesAreDigestedAndChecked) {
    const std::string empty = "d41d8cd98f00b204e9800998ecf8427e";
    EXPECT_EQ(DigestUtils::GenerateMd5(""), empty);
    EXPECT_EQ(DigestUtils::GenerateMd5(std::string(1'000'000, 'a')), "7707d6ae4e027c70eea2a935c2296f21");
    EXPECT_TRUE(DigestUtils::ValidateMd5(empty, ""));
    for (const std::string& wrong :
         {std::string("D41D8CD98F00B204E9800998ECF8427E"), empty + "0", empty.substr(1), std::string(),
          std::string("d41d8cd98f00b204e9800998ecf8427f")}) {
        EXPECT_FALSE(DigestUtils::ValidateMd5(wrong, "")) << wrong;
    }

    const test::TempDir folder;
    const std::string path = folder.Write("image", std::string(1'000'000, 'a'));
    EXPECT_EQ(DigestUtils::GenerateFileMd5(path), "7707d6ae4e027c70eea2a935c2296f21");
    EXPECT_TRUE(DigestUtils::ValidateFileMd5("7707d6ae4e027c70eea2a935c2296f21", path));
    EXPECT_FALSE(DigestUtils::ValidateFileMd5(empty, path));
    EXPECT_TRUE(DigestUtils::ValidateFileMd5(empty, folder.Write("empty", "")));
    const std::string missing = folder.File("missing");
    EXPECT_EQ(test::ErrorOf([&] { DigestUtils::GenerateFileMd5(missing); }),
              "File '" + missing + "' does not exist");
    EXPECT_EQ(test::ErrorOf([] { DigestUtils::GenerateFileMd5("/dev/zero"); }),
              "File '/dev/zero' is a pipe or a device");
}

TEST(GCryptInitTest, LibgcryptWritesNothingToStandardError) {
    GCryptInit::InitializeGcrypt();
    ::testing::internal::CaptureStderr();
    ::gcry_log_debug("%s", "not there");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace zarip::crypto
