// Whose packages are opened, and that nothing else is.

#include "platform/storage/signed-package.h"
#include "base/secret-bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "makers.h"
#include "platform/storage/provisioning-content.h"
#include "platform/verifier/image-error.h"
#include "support/texts.h"

namespace quillon::test {
namespace {

const std::string kContent = contentFor("quillon", "0123456789abcdef");

std::string textOf(const SecretBytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class SignedPackage : public testing::Test
{
protected:
    std::string open(const std::string& package) const
    {
        return textOf(openSignedPackage(package, trusted).bytes);
    }

    void expectRefused(const std::string& package, ImageFault fault, const char* reason) const
    {
        try {
            open(package);
            ADD_FAILURE() << "opened; expected: " << reason;
        } catch (const ImageError& error) {
            EXPECT_EQ(error.fault(), fault) << error.what();
            expectText(error.what(), like("*" + std::string(reason) + "*"));
        }
    }

    /// Opened to what was signed or refused, but never opened to anything else.
    void expectNothingElse(const std::string& package) const
    {
        try {
            EXPECT_EQ(open(package), kContent);
        } catch (const ImageError& error) {
            EXPECT_THAT(error.fault(), testing::AnyOf(ImageFault::kFormat, ImageFault::kSignature));
        }
    }

    Maker maker = makeMaker();
    Certificates trusted = trusting({&maker});
    SigningWishes wishes;
};

TEST_F(SignedPackage, OfATrustedMakerIsOpened)
{
    const SignedContent opened = openSignedPackage(signedBy(maker, kContent), trusted);
    EXPECT_EQ(textOf(opened.bytes), kContent);
    EXPECT_EQ(opened.signer, "CN = a maker");
}

TEST_F(SignedPackage, MadeByUsIsOpened)
{
    const SecretBytes content(kContent.begin(), kContent.end());
    EXPECT_EQ(open(makeSignedPackage(content, maker.key.get(), trusted)), kContent);
}

TEST_F(SignedPackage, IsOpenedForKeysAndDigestsThatAreStrong)
{
    for (const char* curve : {"P-256", "P-384", "P-521"}) {
        maker = makeMaker({}, curveKey(curve));
        trusted = trusting({&maker});
        EXPECT_EQ(open(signedBy(maker, kContent)), kContent) << curve;
    }
    maker = makeMaker({}, rsaKey(2048));
    trusted = trusting({&maker});
    for (const EVP_MD* digest : {EVP_sha256(), EVP_sha384(), EVP_sha512()}) {
        wishes.signers = {&maker};
        wishes.digest = digest;
        EXPECT_EQ(open(signedBy(wishes, kContent)), kContent);
    }
}

TEST_F(SignedPackage, OfAStrangerIsRefused)
{
    const Maker stranger = makeMaker();
    expectRefused(signedBy(stranger, kContent), ImageFault::kSignature, "certificate verify error");
}

TEST_F(SignedPackage, IsRefusedByADeviceThatTrustsNobody)
{
    trusted.clear();
    expectRefused(signedBy(maker, kContent), ImageFault::kSignature, "certificate verify error");
}

TEST_F(SignedPackage, IsOpenedWithoutItsCertificateWhenTheDeviceHasThat)
{
    wishes.signers = {&maker};
    wishes.flags = CMS_NOCERTS;
    EXPECT_EQ(open(signedBy(wishes, kContent)), kContent);
    trusted = trusting({});
    expectRefused(signedBy(wishes, kContent), ImageFault::kSignature, "certificate");
}

TEST_F(SignedPackage, OfASignerWhomATrustedAuthorityVouchesForIsOpened)
{
    CertificateWishes authorityWishes;
    authorityWishes.name = "an authority";
    authorityWishes.isAuthority = true;
    const Maker authority = makeMaker(authorityWishes);
    authorityWishes.name = "a lower authority";
    authorityWishes.issuer = &authority;
    const Maker lower = makeMaker(authorityWishes);
    CertificateWishes signerWishes;
    signerWishes.issuer = &lower;
    const Maker signer = makeMaker(signerWishes);

    trusted = trusting({&lower});  // not a root's
    EXPECT_EQ(open(signedBy(signer, kContent)), kContent);
    trusted = trusting({&authority});
    expectRefused(signedBy(signer, kContent), ImageFault::kSignature, "certificate verify error");
    wishes.signers = {&signer};
    wishes.bringsAlong = {&lower};
    EXPECT_EQ(open(signedBy(wishes, kContent)), kContent);
}

TEST_F(SignedPackage, OfSomebodyWhomAMereSignerVouchesForIsRefused)
{
    CertificateWishes signerWishes;
    signerWishes.name = "a friend";
    signerWishes.issuer = &maker;
    const Maker forger = makeMaker(signerWishes);
    expectRefused(signedBy(forger, kContent), ImageFault::kSignature, "certificate verify error");
}

TEST_F(SignedPackage, WithACertificateOutOfItsTimeIsOpened)
{
    CertificateWishes expired;
    expired.endsAfter = -3600;
    maker = makeMaker(expired);
    trusted = trusting({&maker});
    EXPECT_EQ(open(signedBy(maker, kContent)), kContent);
}

TEST_F(SignedPackage, WithACertificateForAnotherPurposeIsOpened)
{
    CertificateWishes forServers;
    forServers.purpose = "serverAuth";
    maker = makeMaker(forServers);
    trusted = trusting({&maker});
    EXPECT_EQ(open(signedBy(maker, kContent)), kContent);
}

TEST_F(SignedPackage, WithAWeakDigestIsRefused)
{
    wishes.signers = {&maker};
    for (const EVP_MD* digest : {EVP_sha1(), EVP_sha224()}) {
        wishes.digest = digest;
        expectRefused(signedBy(wishes, kContent), ImageFault::kSignature, "digest is not SHA-256");
    }
    maker = makeMaker({}, rsaKey(2048));
    trusted = trusting({&maker});
    wishes.digest = EVP_md5();
    expectRefused(signedBy(wishes, kContent), ImageFault::kSignature, "digest is not SHA-256");
}

TEST_F(SignedPackage, WithAWeakKeyIsRefused)
{
    maker = makeMaker({}, rsaKey(1024));
    trusted = trusting({&maker});
    expectRefused(signedBy(maker, kContent), ImageFault::kSignature, "certificate verify error");
    maker = makeMaker({}, curveKey("secp224r1"));
    trusted = trusting({&maker});
    expectRefused(signedBy(maker, kContent), ImageFault::kSignature, "signer's key is neither");
}

TEST_F(SignedPackage, WithACertificateThatWasVouchedForWeaklyIsRefused)
{
    CertificateWishes authorityWishes;
    authorityWishes.name = "an authority";
    authorityWishes.isAuthority = true;
    const Maker authority = makeMaker(authorityWishes);
    CertificateWishes weak;
    weak.issuer = &authority;
    weak.digest = EVP_sha1();
    const Maker signer = makeMaker(weak);
    trusted = trusting({&authority});
    expectRefused(signedBy(signer, kContent), ImageFault::kSignature, "certificate verify error");
}

TEST_F(SignedPackage, HasExactlyOneSigner)
{
    const Maker second = makeMaker();
    trusted = trusting({&maker, &second});
    wishes.signers = {&maker, &second};
    expectRefused(signedBy(wishes, kContent), ImageFault::kFormat, "exactly one signer");
    wishes.signers = {};
    expectRefused(signedBy(wishes, kContent), ImageFault::kFormat, "exactly one signer");
}

TEST_F(SignedPackage, HasSignedAttributes)
{
    wishes.signers = {&maker};
    wishes.flags = CMS_NOATTR;
    expectRefused(signedBy(wishes, kContent), ImageFault::kFormat, "no signed attributes");
}

TEST_F(SignedPackage, HasItsContentInside)
{
    wishes.signers = {&maker};
    wishes.flags = CMS_DETACHED;
    expectRefused(signedBy(wishes, kContent), ImageFault::kFormat, "content is not inside");
}

TEST_F(SignedPackage, HoldsNoContentOfAnotherKind)
{
    wishes.signers = {&maker};
    wishes.contentType = NID_id_smime_ct_TSTInfo;
    expectRefused(signedBy(wishes, kContent), ImageFault::kFormat, "content is not inside");
}

TEST_F(SignedPackage, IsNothingButSignedData)
{
    const UniqueBio source(BIO_new_mem_buf("content", -1));
    CMS_ContentInfo* data = CMS_data_create(source.get(), CMS_BINARY);
    const UniqueBio der(BIO_new(BIO_s_mem()));
    i2d_CMS_bio(der.get(), data);
    CMS_ContentInfo_free(data);
    char* text = nullptr;
    const long length = BIO_get_mem_data(der.get(), &text);
    expectRefused(std::string(text, static_cast<std::size_t>(length)), ImageFault::kFormat,
                  "not CMS SignedData");
    expectRefused("", ImageFault::kFormat, "not CMS SignedData");
    expectRefused("{}", ImageFault::kFormat, "not CMS SignedData");
    expectRefused(pemOf(maker), ImageFault::kFormat, "not CMS SignedData");
}

TEST_F(SignedPackage, IsNotItsBareContent)
{
    expectRefused(kContent, ImageFault::kFormat, "bears no signature");
}

TEST_F(SignedPackage, HasNothingBehindIt)
{
    const std::string package = signedBy(maker, kContent);
    expectRefused(package + '\0', ImageFault::kFormat, "something follows");
    expectRefused(package + package, ImageFault::kFormat, "something follows");
}

TEST_F(SignedPackage, IsRefusedWhereverItIsCut)
{
    const std::string package = signedBy(maker, kContent);
    for (std::size_t length = 0; length < package.size(); ++length) {
        expectRefused(package.substr(0, length), ImageFault::kFormat, "not CMS SignedData");
    }
}

TEST_F(SignedPackage, NeverGivesAnythingElseForAFlippedBit)
{
    const std::string package = signedBy(maker, kContent);
    const std::size_t content = package.find(kContent);
    ASSERT_NE(content, std::string::npos);
    for (std::size_t bit = 0; bit < package.size() * 8; ++bit) {
        std::string damaged = package;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
        expectNothingElse(damaged);
        if (bit / 8 >= content && bit / 8 < content + kContent.size()) {
            EXPECT_THROW(open(damaged), ImageError) << bit;
        }
    }
}

TEST_F(SignedPackage, NeverGivesAnythingElseForNoiseInIt)
{
    constexpr int kRounds = 20000;
    const std::string package = signedBy(maker, kContent);
    std::mt19937 random(4);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    for (int round = 0; round < kRounds; ++round) {
        std::string damaged = package;
        for (std::size_t change = 0; change <= below(4); ++change) {
            const std::size_t at = below(damaged.size());
            switch (below(4)) {
                case 0:
                    damaged[at] = static_cast<char>(below(256));
                    break;
                case 1:
                    damaged.insert(at, 1 + below(8), static_cast<char>(below(256)));
                    break;
                case 2:
                    damaged.erase(at, 1 + below(8));
                    break;
                default:
                    damaged.replace(at, below(32),
                                    package.substr(below(package.size()), below(32)));
                    break;
            }
        }
        expectNothingElse(damaged);
    }
}

TEST_F(SignedPackage, HasALargestSize)
{
    const std::string large = contentFor("quillon", std::string(kLargestItem, 'k'));
    EXPECT_EQ(open(signedBy(maker, large)), large);
    expectRefused(signedBy(maker, std::string(kLargestPackage, 'k')), ImageFault::kFormat,
                  "too large");
}

TEST_F(SignedPackage, CanBeLookedIntoWhoeverSignedIt)
{
    const Maker stranger = makeMaker();
    EXPECT_EQ(textOf(peekIntoPackage(signedBy(stranger, kContent))), kContent);
    EXPECT_THROW(peekIntoPackage(kContent), ImageError);
}

TEST_F(SignedPackage, IsNotMadeWithAKeyThatDevicesRefuse)
{
    const auto faultOf = [](EVP_PKEY* key, const Certificates& certificates) {
        try {
            makeSignedPackage({'x'}, key, certificates);
        } catch (const ImageError& error) {
            return error.fault();
        }
        return ImageFault{};
    };
    const Maker other = makeMaker();
    EXPECT_EQ(faultOf(other.key.get(), trusted), ImageFault::kKey);
    const Maker weak = makeMaker({}, rsaKey(1024));
    EXPECT_EQ(faultOf(weak.key.get(), trusting({&weak})), ImageFault::kKey);
    EXPECT_EQ(faultOf(maker.key.get(), trusted), ImageFault{});
}

}  // namespace
}  // namespace quillon::test
