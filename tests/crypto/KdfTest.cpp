// SPDX-License-Identifier: MIT

#include <zarip/crypto/CryptoUtils.h>
#include <zarip/crypto/Hmac.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "Bytes.h"

namespace zarip::crypto {
namespace {

std::string Derive(const std::string& passPhrase, const std::string& salt, unsigned int iterations,
                   unsigned int length) {
    const SecureBuffer key =
        CryptoUtils::DeriveWeakKey(passPhrase.data(), static_cast<unsigned int>(passPhrase.size()),
                                   salt.data(), static_cast<unsigned int>(salt.size()), iterations, length);
    return ToHex(key.GetData(), key.GetSize());
}

TEST(KdfTest, PassPhrasesGiveThePublishedKeys) {
    EXPECT_EQ(Derive("password", "salt", 1, 32),
              "120fb6cffcf8b32c43e7225256c4f837a86548c92ccc35480805987cb70be17b");
    EXPECT_EQ(Derive("password", "salt", 2, 32),
              "ae4d0c95af6b46d32d0adff928f06dd02a303f8ef3c251dfd6e2d85a95474c43");
    EXPECT_EQ(Derive("password", "salt", 4096, 32),
              "c5e478d59288c841aa530db6845c4c8d962893a001ce4e11a4963873aa98134a");
    EXPECT_EQ(Derive("passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096, 40),
              "348c89dbcbd32b2f32d814b8116e84cf2b17347ebc1800181c4e2a1fb8dd53e1c635518c7dac47e9");
    EXPECT_EQ(Derive(std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, 16),
              "89b69d0516f829893c696226650a8687");
    // RFC 7914
    EXPECT_EQ(Derive("passwd", "salt", 1, 64),
              "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
              "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783");
    EXPECT_EQ(CryptoErrorOf([] { Derive("", "salt", 1, 32); }), "empty pass phrase");
    EXPECT_EQ(CryptoErrorOf([] { Derive("password", "", 1, 32); }), "empty salt");
    EXPECT_EQ(CryptoErrorOf([] { Derive("password", "salt", 0, 32); }), "no iterations");
    EXPECT_EQ(CryptoErrorOf([] { Derive("password", "salt", 1, 0); }), "invalid key length");
}

TEST(KdfTest, WeakParametersHaveToBeAskedForByName) {
    const auto derive = [](unsigned int salt, unsigned int iterations) {
        return CryptoErrorOf(
            [&] { CryptoUtils::DeriveKey("phrase", 6, "0123456789abcdef", salt, iterations, 32); });
    };
    EXPECT_EQ(derive(16, 10'000), "no exception");
    EXPECT_EQ(derive(15, 10'000), "salt too short");
    EXPECT_EQ(derive(16, 9'999), "too few iterations");
    EXPECT_EQ(derive(0, 10'000), "empty salt");
    EXPECT_EQ(derive(16, 0), "no iterations");
    const SecureBuffer key = CryptoUtils::DeriveKey("phrase", 6, "0123456789abcdef", 16, 10'000, 32);
    EXPECT_EQ(ToHex(key.GetData(), 32), Derive("phrase", "0123456789abcdef", 10'000, 32));
}

TEST(KdfTest, ScryptGivesTheKeysOfOthers) {
    const auto derive = [](const std::string& passPhrase, unsigned int salt, unsigned int cost,
                           unsigned int parallelization, unsigned int length) {
        const SecureBuffer key =
            CryptoUtils::DeriveKeyScrypt(passPhrase.data(), static_cast<unsigned int>(passPhrase.size()),
                                         "0123456789abcdef", salt, cost, parallelization, length);
        return ToHex(key.GetData(), key.GetSize());
    };
    EXPECT_EQ(derive("pass phrase", 16, 16'384, 1, 32),
              "9928d3915ce01ea8c3ff96d2918c51042db34ee3f79cbf8d1335c4bd002c6036");
    EXPECT_EQ(derive("pleaseletmein", 16, 32'768, 2, 40),
              "3581a6e5269f69b9d0cce59096a53dbc3ab7b08cf8e6c29241ffe829c5d41e0dda04a106172b8eb8");
    const struct {
        unsigned int salt, cost, parallelization, length;
        const char* error;
    } rows[] = {{15, 16'384, 1, 32, "salt too short"},   {16, 8'192, 1, 32, "invalid cost"},
                {16, 20'000, 1, 32, "invalid cost"},     {16, 2'097'152, 1, 32, "invalid cost"},
                {16, 16'384, 0, 32, "invalid cost"},     {16, 16'384, 17, 32, "invalid cost"},
                {16, 16'384, 1, 0, "invalid key length"}};
    for (const auto& row : rows) {
        EXPECT_EQ(CryptoErrorOf([&] { derive("p", row.salt, row.cost, row.parallelization, row.length); }),
                  row.error);
    }
    EXPECT_EQ(CryptoErrorOf([&] { derive("", 16, 16'384, 1, 32); }), "empty pass phrase");
}

std::string Finish(Digest& digest) {
    Bytes out(digest.GetDigestSize());
    EXPECT_EQ(CryptoErrorOf([&] { digest.DoFinal(out.data(), SizeOf(out) - 1); }), "invalid buffer length");
    EXPECT_EQ(CryptoErrorOf([&] { digest.DoFinal(nullptr, SizeOf(out)); }), "null output buffer");
    digest.DoFinal(out.data(), SizeOf(out));
    return ToHex(out);
}

TEST(HmacTest, KeyedDigestsAreThePublishedOnes) {
    const Bytes key(20, 0x0b);
    const Bytes longKey(131, 0xaa);
    HmacSHA1 sha1(key.data(), SizeOf(key));
    HmacSHA256 sha256(key.data(), SizeOf(key));
    HmacSHA512 sha512(key.data(), SizeOf(key));
    const std::pair<Digest*, const char*> rows[] = {
        {&sha1, "b617318655057264e28bc0b6fb378c8ef146be00"},
        {&sha256, "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {&sha512,
         "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cde"
         "daa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1702e696c203a126854"},
    };
    const unsigned char text[] = "Hi There";
    for (const auto& [digest, expected] : rows) {
        digest->Update(text, 3);
        digest->Reset();
        for (int round = 0; round < 2; ++round) {
            digest->Update('H');
            digest->Update(nullptr, 4);
            digest->Update(text + 1, 7);
            EXPECT_EQ(Finish(*digest), expected);
        }
        digest->Update("Hi ");
        digest->Update(std::string("There"));
        EXPECT_EQ(ToHex(ToBytes(digest->Finish())), expected);
    }
    HmacSHA256 hashed(longKey.data(), SizeOf(longKey));
    const Bytes message = ToBytes("Test Using Larger Than Block-Size Key - Hash Key First");
    hashed.Update(message.data(), SizeOf(message));
    EXPECT_EQ(Finish(hashed), "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
    HmacSHA256 none(nullptr, 0);
    EXPECT_EQ(Finish(none), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
    EXPECT_EQ(CryptoErrorOf([] { Hmac(12'345, nullptr, 0); }).substr(0, 6), "HMAC: ");
    HmacSHA512 secret(SecureBuffer(key.data(), SizeOf(key)));
    secret.Update("Hi There");
    EXPECT_EQ(ToHex(ToBytes(secret.Finish())), rows[2].second);
}

TEST(HmacTest, OnlyTheWholeDigestVerifies) {
    const Bytes key(20, 0x0b);
    HmacSHA256 checked(ToText(key));
    checked.Update("Hi There");
    const std::string good = checked.Finish();
    const std::pair<std::string, bool> checks[] = {
        {good, true},         {good.substr(0, 31), false},    {good + '\0', false}, {"", false},
        {ToText(key), false}, {'\1' + good.substr(1), false}, {good, true},
    };
    for (const auto& [expected, isGood] : checks) {
        checked.Update("Hi There");
        EXPECT_EQ(checked.Verify(expected), isGood) << ToHex(ToBytes(expected));
    }
    checked.Update("Hi There");
    EXPECT_TRUE(checked.Verify(reinterpret_cast<const unsigned char*>(good.data()), 32));
    EXPECT_FALSE(checked.Verify(nullptr, 32));
}

TEST(CryptoUtilsTest, BytesAreComparedAndMadeAtRandom) {
    const unsigned char bytes[] = {1, 2, 3, 4};
    for (unsigned int i = 0; i < 4; ++i) {
        unsigned char other[] = {1, 2, 3, 4};
        EXPECT_TRUE(CryptoUtils::AreEqual(bytes, other, 4));
        other[i] = static_cast<unsigned char>(other[i] ^ 0x80);
        EXPECT_FALSE(CryptoUtils::AreEqual(bytes, other, 4)) << i;
        EXPECT_TRUE(CryptoUtils::AreEqual(bytes, other, i)) << i;
    }
    const SecureBuffer one = CryptoUtils::GenerateKey(32);
    SecureBuffer two(34);
    CryptoUtils::Randomize(two.GetData(), 32);
    EXPECT_FALSE(CryptoUtils::AreEqual(one.GetData(), two.GetData(), 32));
    EXPECT_GT(std::count_if(one.GetData(), one.GetData() + 32, [](unsigned char c) { return c != 0; }), 20);
    EXPECT_EQ(two.GetData()[32] + two.GetData()[33], 0) << "written after the buffer";
    CryptoUtils::Wipe(two.GetData(), 32);
    EXPECT_EQ(std::count(two.GetData(), two.GetData() + 34, 0), 34);
}

TEST(SecureBufferTest, BuffersAreCopiedMovedAndCutAndThereAreEnough) {
    SecureBuffer buffer("secret", 6);
    EXPECT_TRUE(buffer.IsSecure());
    const SecureBuffer copy = buffer;
    buffer.GetData()[0] = 'S';
    EXPECT_EQ(ToHex(copy.GetData(), 6), ToHex(ToBytes("secret")));
    SecureBuffer moved = std::move(buffer);
    moved.Shrink(9);
    EXPECT_EQ(moved.GetSize(), 6U);
    unsigned char* const data = moved.GetData();
    moved.Shrink(2);
    EXPECT_EQ(moved.GetSize(), 2U);
    EXPECT_EQ(ToHex(data, 6), "536500000000") << "the rest is wiped";
    buffer = copy;
    EXPECT_EQ(buffer.GetSize(), 6U);
    SecureBuffer target("old secret", 10);
    target = std::move(buffer);
    EXPECT_EQ(target.GetSize(), 6U);
    EXPECT_EQ(buffer.GetSize(), 0U) << "not what the target held";
    EXPECT_EQ(buffer.GetData(), nullptr);
    SecureBuffer& itself = target;
    target = std::move(itself);
    EXPECT_EQ(target.GetSize(), 6U);
    EXPECT_EQ(SecureBuffer().GetSize(), 0U);
    EXPECT_EQ(SecureBuffer(0).GetData(), nullptr);

    std::vector<SecureBuffer> many;
    for (unsigned char i = 0; i < 50; ++i) {
        many.emplace_back(8'192U);
        std::fill_n(many.back().GetData(), 8'192, i);
    }
    for (unsigned char i = 0; i < 50; ++i) {
        EXPECT_EQ(std::count(many[i].GetData(), many[i].GetData() + 8'192, i), 8'192);
    }
    const SecureBuffer large(SecureBuffer::kMaxLocked + 1);
    EXPECT_FALSE(large.IsSecure());
    EXPECT_EQ(std::count(large.GetData(), large.GetData() + large.GetSize(), 0), large.GetSize());
}

}  // namespace
}  // namespace zarip::crypto
