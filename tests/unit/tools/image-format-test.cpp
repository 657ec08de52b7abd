// The image as the service reads it: layout, sizes, round trips.

#include <openssl/evp.h>

#include "base/handles.h"
#include "platform/verifier/image-trailer.h"
#include "platform/verifier/signed-file.h"
#include "support/texts.h"
#include "unit/tools/image-files.h"

namespace quillon::test {
namespace {

class ImageFormat : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        image = directory + "tuner.bin";
        payload = directory + "payload";
        key = loadImageKey(keyPath("a", kImageKeyFile));
        signingKey = loadSigningKey(keyPath("a", kSigningKeyFile));
    }

    void build(const std::string& version, const std::string& content)
    {
        writeFile(payload, content);
        buildStickImage(version, payload, key, signingKey.get(), image);
    }

    std::string image;
    std::string payload;
    ImageKey key{};
    UniqueKey signingKey;
};

/// Deciphers a whole image in one piece, straight from the table of the format.
std::string plaintextOf(const std::string& image, const std::string& keyText)
{
    const std::string ciphertext = image.substr(16, image.size() - 16 - 534);
    const auto bytes = [](const std::string& text) {
        return reinterpret_cast<const unsigned char*>(text.data());
    };
    const UniqueCipherContext context(EVP_CIPHER_CTX_new());
    std::string plaintext(ciphertext.size() + 16, '\0');
    auto* output = reinterpret_cast<unsigned char*>(plaintext.data());
    int length = 0;
    int rest = 0;
    EXPECT_EQ(
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytes(keyText), bytes(image)),
        1);
    EXPECT_EQ(EVP_DecryptUpdate(context.get(), output, &length, bytes(ciphertext),
                                static_cast<int>(ciphertext.size())),
              1);
    EXPECT_EQ(EVP_DecryptFinal_ex(context.get(), output + length, &rest), 1);
    plaintext.resize(static_cast<std::size_t>(length + rest));
    return plaintext;
}

std::string numbered(std::size_t length)
{
    std::string content;
    for (std::size_t i = 0; i < length; ++i) {
        content += static_cast<char>(i * 7 + i / 251);
    }
    return content;
}

std::string someKey()
{
    return std::string("\x00\x01\x02\x9A\xBC\xDE\xF0\xFF", 8) + "12345678" + "not used any more";
}

TEST_F(ImageFormat, TheCipherKeyIsTheHexadecimalTextOfTheFirstSixteenBytes)
{
    const ImageKey derived = imageKeyOf(someKey());

    EXPECT_EQ(std::string(derived.begin(), derived.end()), "0001029abcdef0ff3132333435363738");
}

TEST_F(ImageFormat, AnImageKeyShorterThanSixteenBytesIsUnusable)
{
    EXPECT_EQ(faultOf([] { imageKeyOf(std::string(15, 'x')); }), ImageFault::kKey);
    EXPECT_NO_THROW(imageKeyOf(std::string(16, 'x')));
}

TEST_F(ImageFormat, HoldsVectorCiphertextAndTrailerInThisOrder)
{
    key = imageKeyOf(someKey());
    build("2.0", "payload");

    const std::string content = readAll(image);
    ASSERT_EQ(content.size(), 16U + 80U + 534U);
    EXPECT_EQ(plaintextOf(content, "0001029abcdef0ff3132333435363738"),
              "2.0" + std::string(61, '\0') + "payload");
    const std::string trailer = content.substr(content.size() - 534);
    EXPECT_EQ(trailer.substr(0, 14), std::string("QUILLSIG\1\0\1\0\0\2", 14));
}

TEST_F(ImageFormat, HasAnotherVectorEachTime)
{
    build("2.0", "payload");
    const std::string first = readAll(image);
    build("2.0", "payload");

    EXPECT_NE(readAll(image).substr(0, 96), first.substr(0, 96));
}

TEST_F(ImageFormat, KeepsEveryPayloadWhateverItsLength)
{
    std::vector<std::size_t> lengths;
    for (std::size_t length = 0; length <= 200; ++length) {
        lengths.push_back(length);
    }
    for (const std::size_t length : {10240U, 20480U, 30720U, 65536U, 131072U}) {
        for (std::size_t around = length - 130; around <= length + 18; around += 3) {
            lengths.push_back(around);
        }
    }
    const std::string extracted = directory + "extracted";
    for (const std::size_t length : lengths) {
        const std::string content = numbered(length);
        build("1.2.3", content);
        ASSERT_EQ(extractStickImage(image, key, extracted), "1.2.3") << length;
        ASSERT_EQ(readAll(extracted), content) << length;
        ASSERT_EQ(readStickImageVersion(image, key), "1.2.3") << length;
        ASSERT_NO_THROW(verifyStickImage(image, {keyPath("a", kPublicKeyFile), "", {}})) << length;
        ASSERT_EQ(readAll(image).size(), 16 + (64 + length) / 16 * 16 + 16 + 534) << length;
    }
}

TEST_F(ImageFormat, TellsWhatStandsAroundTheCiphertext)
{
    build("2.0", "payload");
    const std::string content = readAll(image);

    const StickImageInfo info = inspectStickImage(image);
    EXPECT_EQ(info.size, content.size());
    EXPECT_EQ(info.ciphertextSize, 80U);
    EXPECT_EQ(std::string(info.vector.begin(), info.vector.end()), content.substr(0, 16));
    EXPECT_EQ(std::string(info.trailer.keyId.begin(), info.trailer.keyId.end()),
              content.substr(content.size() - 520, 8));
}

TEST_F(ImageFormat, AVersionHasOneToSixtyThreePrintableCharacters)
{
    EXPECT_NO_THROW(build(std::string(63, '1'), ""));
    EXPECT_EQ(readStickImageVersion(image, key), std::string(63, '1'));

    EXPECT_EQ(faultOf([&] { build(std::string(64, '1'), ""); }), ImageFault::kUsage);
    EXPECT_EQ(faultOf([&] { build("", ""); }), ImageFault::kUsage);
    EXPECT_EQ(faultOf([&] { build("1\n", ""); }), ImageFault::kUsage);
    EXPECT_EQ(faultOf([&] { build(std::string("1\0", 2), ""); }), ImageFault::kUsage);
}

TEST_F(ImageFormat, AModuleNameHasLettersAndDigitsOnly)
{
    EXPECT_EQ(stickImagePath("/stick", "tunerA1"), "/stick/tunerA1.bin");
    EXPECT_EQ(stickImagePath("/stick/", "tuner"), "/stick/tuner.bin");
    for (const char* name : {"", "../tuner", "tu-ner", "tuner.bin", "t\xC3\xBCner"}) {
        EXPECT_EQ(faultOf([&] { stickImagePath("/stick", name); }), ImageFault::kUsage) << name;
    }
}

TEST_F(ImageFormat, ASizeThatNoImageCanHaveIsNamed)
{
    const auto faultAt = [&](std::uintmax_t size, const char* reason) {
        writeFile(image, "");
        std::filesystem::resize_file(image, size);
        std::string line;
        EXPECT_EQ(faultOf([&] { inspectStickImage(image); }, &line), ImageFault::kFormat) << size;
        expectText(line, like("*" + std::string(reason) + "*"));
    };
    faultAt(0, "are too few");
    faultAt(16 + 16 + 534 - 1, "are too few");
    faultAt(16 + 16 + 534 + 1, "leave no whole number of cipher blocks");
    faultAt(0x7FFFFFFFULL + 3, "are too many");
    faultAt(3ULL << 30U, "are too many");
}

TEST_F(ImageFormat, APossibleSizeWithoutATrailerIsNoSignature)
{
    writeFile(image, std::string(16 + 80 + 534, 'x'));

    EXPECT_EQ(faultOf([&] { inspectStickImage(image); }), ImageFault::kSignature);
}

TEST_F(ImageFormat, APlaintextWithoutAWholeHeaderIsNoImage)
{
    // The second block of a header's ciphertext, cut out, deciphers to less than a header.
    build("2.0", "");
    const std::string content = readAll(image);
    writeFile(image, content.substr(64, 16) + content.substr(80, 16) +
                         content.substr(content.size() - 534));

    EXPECT_EQ(faultOf([&] { extractStickImage(image, key, directory + "out"); }),
              ImageFault::kFormat);
    EXPECT_EQ(faultOf([&] { readStickImageVersion(image, key); }), ImageFault::kFormat);
}

TEST_F(ImageFormat, AWrongKeyIsToldApartAndLeavesNoFile)
{
    build("2.0", "payload");
    for (int i = 0; i < 300; ++i) {  // one wrong key in 256 gives a right-looking padding
        const ImageKey wrong = imageKeyOf(std::to_string(1000 + i) + " wrong keys ..");
        ASSERT_EQ(faultOf([&] { extractStickImage(image, wrong, directory + "payload-out"); }),
                  ImageFault::kKey);
        ASSERT_EQ(faultOf([&] { readStickImageVersion(image, wrong); }), ImageFault::kKey);
    }
    expectTexts(names(), {"payload", "tuner.bin"});
}

TEST_F(ImageFormat, ADamagedLastBlockIsFoundByItsPadding)
{
    build("2.0", std::string(100, 'x'));
    std::string content = readAll(image);
    content[content.size() - 534 - 17] ^= 1;  // flips the same bit of the last padding byte
    writeFile(image, content);

    std::string line;
    EXPECT_EQ(faultOf([&] { extractStickImage(image, key, directory + "out"); }, &line),
              ImageFault::kKey);
    expectText(line, like("*wrong padding*"));
}

TEST_F(ImageFormat, AFailedBuildKeepsTheEarlierImage)
{
    build("2.0", "payload");
    const std::string before = readAll(image);

    EXPECT_EQ(faultOf([&] {
                  buildStickImage("2.1", directory + "missing", key, signingKey.get(), image);
              }),
              ImageFault::kFile);
    EXPECT_EQ(readAll(image), before);
    expectTexts(names(), {"payload", "tuner.bin"});
}

TEST_F(ImageFormat, APayloadThatWouldPassTwoGiBIsRefusedBeforeAnythingIsWritten)
{
    writeFile(payload, "");
    std::filesystem::resize_file(payload, 0x7FFFFFFFULL - 600);

    EXPECT_EQ(faultOf([&] { buildStickImage("2.0", payload, key, signingKey.get(), image); }),
              ImageFault::kFormat);
    expectTexts(names(), {"payload"});
}

}  // namespace
}  // namespace quillon::test
