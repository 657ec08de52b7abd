// What was verified is what is installed: the image may change, or the medium below it fail, after
// the verifier has looked at it.

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/fd.h"
#include "support/advised-memory.h"
#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kImage[] = "/opt/media/USBDriveA/alpha.bin";
constexpr std::size_t kLargePayload = 5U << 20U;

Bytes withoutTrailer(const Bytes& image)
{
    return Bytes(image.begin(), image.end() - static_cast<std::ptrdiff_t>(kTrailerSize));
}

Bytes trailerOf(const Bytes& image)
{
    return Bytes(image.end() - static_cast<std::ptrdiff_t>(kTrailerSize), image.end());
}

Bytes sha256(const Bytes& bytes)
{
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(bytes.data(), bytes.size(), digest.data());
    return digest;
}

// A verifier that stands by one image's content and trailer, and a plug-in that is asked for its
// context between the verifier's first answer and the reading.
class ReadImage : public UsbImages
{
protected:
    ReadImage() { device.addVerifier("verifier-of-digests"); }

    void standBy(const Bytes& image)
    {
        stick.addImage("alpha", image);
        platform().verifyDigest.always(
            [digest = sha256(withoutTrailer(image)), trailer = trailerOf(image)](
                const Bytes& askedDigest, const Bytes& askedTrailer) {
                return askedDigest == digest && askedTrailer == trailer ? 1 : 0;
            });
    }

    void afterVerification(std::function<void()> meddle)
    {
        install(Module().needsUpdate());
        device.changeModule("alpha",
                            Module().needsUpdate().onSetContext(
                                [meddle = std::move(meddle)](const char*, char*) { meddle(); }));
    }

    void expectNotSigned()
    {
        EXPECT_EQ(estimate(), -1);
        expectSteps({verified, saidSigned, contextSet, digestRefused,
                     LogFrom("getNeedUpdateList", ERROR,
                             "Error: /opt/media/USBDriveA/alpha.bin is NOT signed ")});
        EXPECT_FALSE(module.getNeedUpdate());
        clear();
        EXPECT_EQ(update(), -1);
        expectSteps({verified, saidSigned, contextSet, digestRefused,
                     LogFrom("updateUSB", ERROR,
                             "Error: /opt/media/USBDriveA/alpha.bin file is NOT signed ")});
        EXPECT_TRUE(payloadsOf("alpha").empty());
    }

    void expectNoData()
    {
        EXPECT_EQ(estimate(), -1);
        EXPECT_EQ(update(), -1);
        expectSteps({verified, saidSigned, contextSet,
                     LogFrom("getNeedUpdateList", ERROR, "Error: Decryption data is null"),
                     verified, saidSigned, contextSet,
                     LogFrom("updateUSB", ERROR, "Error: Decryption data is null")});
        EXPECT_EQ(cipher_buf_all, nullptr);
    }

    const Step digestAccepted =
        Plugin("verifyDigest(null, \"/opt/media/USBDriveA/alpha.bin\", \"UserCaller\") = 1");
    const Step digestRefused =
        Plugin("verifyDigest(null, \"/opt/media/USBDriveA/alpha.bin\", \"UserCaller\") = 0");
};

TEST_F(ReadImage, IsAskedAboutOnceItIsReadAndBeforeItsVersionIs)
{
    install(Module().needsUpdate());
    standBy(Image().payload(noise(50000)).bytes());

    EXPECT_EQ(estimate(), 1);
    EXPECT_EQ(update(), 0);

    expectSteps({verified, saidSigned, contextSet, digestAccepted, checked,
                 Plugin("alpha.getExpectedTime(0)"), verified, saidSigned, contextSet,
                 digestAccepted, checked,
                 Log(ERROR, "========== [ alpha update start ] =========="),
                 Plugin("alpha.doUpdate_decryption(50000 bytes)"),
                 Log(ERROR, "========== [ alpha update succeeded ] ==========")});
}

TEST_F(ReadImage, IsDigestedWholeWhateverItsSize)
{
    install(Module().needsUpdate());
    // The trailer begins anywhere in the blocks of 10240 bytes that are read.
    for (const std::size_t size : {0U, 1U, 9000U, 10146U, 10160U, 10162U, 20400U, 3U << 20U}) {
        standBy(Image().payload(noise(size)).bytes());

        EXPECT_EQ(estimate(), 1) << size;
        EXPECT_EQ(update(), 0) << size;
    }
}

TEST_F(ReadImage, OverwrittenAfterVerificationIsNotSigned)
{
    const Bytes evil = Image().payload(noise(50000, 2)).bytes();
    standBy(Image().payload(noise(50000)).bytes());
    afterVerification([this, evil] { stick.addImage("alpha", evil); });

    expectNotSigned();
}

TEST_F(ReadImage, LargeAndOverwrittenAfterVerificationIsNotSigned)
{
    const Bytes image = Image().payload(noise(kLargePayload)).bytes();
    Bytes evil = image;
    evil[evil.size() / 2] ^= 1U;
    afterVerification([this, evil] { stick.addImage("alpha", evil); });
    standBy(image);

    expectNotSigned();
}

TEST_F(ReadImage, ChangedThroughAMappingAfterVerificationIsNotSigned)
{
    const Bytes image = Image().payload(noise(50000)).bytes();
    standBy(image);
    const UniqueFd file(open(kImage, O_RDWR | O_CLOEXEC));
    auto* mapped = static_cast<unsigned char*>(
        mmap(nullptr, image.size(), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
    ASSERT_NE(mapped, MAP_FAILED);
    mapped[0] = image[0];  // its page is writable from now on: no later store is noticed
    const unsigned char changed = image[0] ^ 1U;
    afterVerification([mapped, changed] { mapped[0] = changed; });

    expectNotSigned();
    munmap(mapped, image.size());
}

TEST_F(ReadImage, WithAnotherTrailerAfterVerificationIsNotSigned)
{
    Bytes evil = Image().bytes();
    standBy(evil);
    evil.back() ^= 1U;
    afterVerification([this, evil] { stick.addImage("alpha", evil); });

    expectNotSigned();
}

TEST_F(ReadImage, GrownAfterVerificationIsTakenAsItWasOpened)
{
    const Bytes image = Image().payload(noise(50000)).bytes();
    standBy(image);
    afterVerification([this, image] { stick.addImage("alpha", image + noise(70000)); });

    EXPECT_EQ(estimate(), 1);
    standBy(image);
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{noise(50000)});
}

TEST_F(ReadImage, ThatGrowsWithoutAnEndIsReadNoFurther)
{
    const Bytes image = Image().payload(noise(50000)).bytes();
    standBy(image);
    afterVerification([] { ASSERT_EQ(truncate(kImage, off_t{1} << 40), 0); });
    alarm(20);

    EXPECT_EQ(estimate(), 1);
    standBy(image);
    EXPECT_EQ(update(), 0);
}

TEST_F(ReadImage, IsAskedAboutUnderTheModulesOwnName)
{
    // A directory without its final "/" lends the file the name of another module.
    install(Module().needsUpdate());
    stick.addImage("xalpha", Image().bytes());
    const Step asked =
        Plugin("verifyDigest(null, \"/opt/media/USBDriveA/x/alpha.bin\", \"UserCaller\") = 1");

    EXPECT_EQ(module.getNeedUpdateList(key, "/opt/media/USBDriveA/x"), 1);
    expectStep(asked);
    clear();
    EXPECT_EQ(module.updateUSB(key, "/opt/media/USBDriveA/x"), 0);
    expectStep(asked);
}

TEST_F(ReadImage, TheEmptyArgumentBeforeItStaysValidAndEmpty)
{
    std::vector<char*> arguments;
    std::vector<std::string> texts;
    install(Module());
    device.changeModule("alpha", Module().needsUpdate().onSetContext([&](const char*, char* text) {
        arguments.push_back(text);
        texts.emplace_back(text);
        text[0] = 'Z';  // a module that breaks its contract harms no other
    }));
    standBy(Image().bytes());
    std::array<char, 128> version{};

    EXPECT_EQ(estimate(), 1);
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(module.getActiveVersion(version.data()), 0);

    EXPECT_EQ(arguments, std::vector(3, arguments.front()));
    expectTexts(texts, {"", "", ""});
}

TEST_F(ReadImage, ShorterThanATrailerIsNotSigned)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image().cutTo(500));

    EXPECT_EQ(estimate(), -1);
    EXPECT_EQ(update(), -1);

    expectTexts(logTexts(),
                {like("*"), "Error: /opt/media/USBDriveA/alpha.bin is NOT signed ", like("*"),
                 "Error: /opt/media/USBDriveA/alpha.bin file is NOT signed "});
    expectNoStep(Plugin(like("*checkVersion*")));
}

TEST_F(ReadImage, IsNotAskedAboutWhereTheVerifierHasNoSuchEntry)
{
    device.addVerifier("verifier");
    const Bytes evil = Image().payload(bytesOf("another")).bytes();
    standBy(Image().payload(bytesOf("a signed")).bytes());
    afterVerification([this, evil] { stick.addImage("alpha", evil); });

    EXPECT_EQ(estimate(), 1);

    expectNoStep(Plugin(like("*verifyDigest*")));
}

TEST_F(ReadImage, TruncatedAfterVerificationHasNoData)
{
    const Bytes image = Image().payload(noise(50000)).bytes();
    afterVerification([] { ASSERT_EQ(truncate(kImage, 30000), 0); });
    standBy(image);
    EXPECT_EQ(estimate(), -1);
    standBy(image);
    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, contextSet,
                 LogFrom("getNeedUpdateList", ERROR, "Error: Decryption data is null"), verified,
                 saidSigned, contextSet,
                 LogFrom("updateUSB", ERROR, "Error: Decryption data is null")});
}

TEST_F(ReadImage, ThatCannotBeReadToItsEndHasNoData)
{
    install(Module().needsUpdate());
    standBy(Image().payload(noise(50000)).bytes());
    failCall("fread", EIO, 1, 3);
    EXPECT_EQ(estimate(), -1);
    failCall("fread", EIO, 1, 3);
    EXPECT_EQ(update(), -1);

    expectTexts(logTexts(), {like("*"), "Error: Decryption data is null", like("*"),
                             "Error: Decryption data is null"});
    EXPECT_EQ(cipher_buf_all, nullptr);
    EXPECT_TRUE(payloadsOf("alpha").empty());
}

TEST_F(ReadImage, WhoseTrailerAloneCannotBeReadHasNoDataEither)
{
    device.addVerifier("verifier");
    install(Module().needsUpdate());
    // The cipher text ends with the first block that is read.
    stick.addImage("alpha", Image().payload(noise(10160)));
    failCall("fread", EIO, 1, 2);

    EXPECT_EQ(update(), -1);

    expectTexts(logTexts(), {like("*"), "Error: Decryption data is null"});
}

TEST_F(ReadImage, OfAnEstimateKeepsItsBufferButNotItsPages)
{
    install(Module().needsUpdate());
    standBy(Image().payload(noise(kLargePayload)).bytes());

    ASSERT_EQ(estimate(), 1);

    EXPECT_LE(residentPages(cipher_buf_all, kLargePayload), 2U) << "the page of its first bytes";
}

TEST_F(ReadImage, OfARunStaysForThePlugin)
{
    install(Module().needsUpdate());
    const Bytes payload = noise(kLargePayload);
    standBy(Image().payload(payload).bytes());

    ASSERT_EQ(update(), 0);

    EXPECT_EQ(std::memcmp(cipher_buf_all + kHeaderSize, payload.data(), payload.size()), 0);
}

TEST_F(ReadImage, ThatThePluginNeverSawGivesItsPagesBack)
{
    install(Module().upToDate());
    standBy(Image().payload(noise(kLargePayload)).bytes());

    ASSERT_EQ(update(), -1);

    EXPECT_LE(residentPages(cipher_buf_all, kLargePayload), 2U);
}

}  // namespace
}  // namespace quillon::test
