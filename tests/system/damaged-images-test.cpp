#include <gmock/gmock.h>

#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/verifier/public-key.h"
#include "platform/verifier/signed-file.h"
#include "support/texts.h"
#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::AnyOf;

constexpr std::uintmax_t kThreeGibibytes = 3ULL << 30U;

const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

/// Puts a maker's good signature behind any content.
std::string withSignature(const std::string& content, const std::string& maker = "a")
{
    const UniqueKey key = loadSigningKey(keyPath(maker, kSigningKeyFile));
    ImageTrailer trailer;
    trailer.keyId = keyIdOf(key.get());
    std::size_t length = trailer.signature.size();

    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_PKEY_CTX* padding = nullptr;
    const bool signedWell =
        EVP_DigestSignInit(context, &padding, EVP_sha256(), nullptr, key.get()) == 1 &&
        useImagePadding(padding) &&
        EVP_DigestSign(context, trailer.signature.data(), &length, bytesOf(content),
                       content.size()) == 1;
    EVP_MD_CTX_free(context);
    EXPECT_TRUE(signedWell);

    const TrailerBytes bytes = encodeTrailer(trailer);
    return content + std::string(bytes.begin(), bytes.end());
}

/// An initialisation vector and the ciphertext of any plaintext.
std::string enciphered(const std::string& plaintext, const std::string& maker = "a")
{
    const ImageKey key = loadImageKey(keyPath(maker, kImageKeyFile));
    const std::string vector(kInitialisationVectorSize, 'v');
    std::string output(plaintext.size() + kCipherBlockSize, '\0');
    auto* to = reinterpret_cast<unsigned char*>(output.data());
    int written = 0;
    int last = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_CipherInit(context, EVP_aes_256_cbc(), key.data(), bytesOf(vector), 1);
    EVP_CipherUpdate(context, to, &written, bytesOf(plaintext), static_cast<int>(plaintext.size()));
    EVP_CipherFinal(context, to + written, &last);
    EVP_CIPHER_CTX_free(context);
    output.resize(static_cast<std::size_t>(written + last));
    return vector + output;
}

std::string withFlippedBit(std::string content, std::size_t bit)
{
    content[bit / 8] = static_cast<char>(content[bit / 8] ^ (1 << bit % 8));
    return content;
}

/// One module, "tuner", that has been updated once: now a start does not ask for an estimate any
/// more, so that every image reaches the update itself.
class DamagedImages : public SystemTest
{
protected:
    static constexpr const char* kModule = "tuner";
    static constexpr std::size_t kSmallImage = 16 + 96 + kTrailerSize;

    void SetUp() override
    {
        SystemTest::SetUp();
        removeModule("panel");
        removeModule("camera");
        putImage(kModule, "2.0", "the good payload");
        startDaemon();
        ASSERT_EQ(update(), MQ_RESULT_DONE);

        putImage(kModule, "3.0", "a newer good payload");
        image = readAll(imagePath(kModule));
        ASSERT_EQ(image.size(), kSmallImage);
    }

    /// Puts any bytes where the module's image belongs.
    static void put(const std::string& content) { writeFile(imagePath(kModule), content); }

    /// That what is on the stick is refused by an estimate and by an update, and changes nothing.
    void expectRefused(const std::string& what)
    {
        SCOPED_TRACE(what);
        EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
        ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
        EXPECT_EQ(waitForRun().result, MQ_RESULT_FAILED);
        EXPECT_EQ(version(kModule), "2.0");
        ASSERT_EQ(flashed(kModule), "the good payload");
        ASSERT_TRUE(daemon.isRunning());
    }

    void expectTheGoodImageIsTaken()
    {
        fs::remove_all(imagePath(kModule));
        put(image);
        EXPECT_EQ(update(), MQ_RESULT_DONE);
        EXPECT_EQ(version(kModule), "3.0");
        EXPECT_EQ(flashed(kModule), "a newer good payload");
    }

    std::string image;  ///< good and newer than what the module has
};

TEST_F(DamagedImages, AreRefusedCutOffAtEveryByte)
{
    for (std::size_t size = 0; size < image.size(); ++size) {
        put(image.substr(0, size));
        ASSERT_NO_FATAL_FAILURE(expectRefused(std::to_string(size) + " bytes"));
    }
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWithAnyBitChanged)
{
    const std::size_t bits = image.size() * 8;
    int count = 0;
    for (std::size_t bit = 0; bit < bits; bit += 13) {  // each byte's turn comes, all its bits do
        put(withFlippedBit(image, bit));
        ASSERT_NO_FATAL_FAILURE(expectRefused("bit " + std::to_string(bit)));
        ++count;
    }
    EXPECT_GT(count, 300);
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWithBytesAddedAnywhere)
{
    for (const std::size_t place :
         {std::size_t{0}, std::size_t{16}, std::size_t{112}, image.size()}) {
        std::string longer = image;
        longer.insert(place, 1, '\0');
        put(longer);
        ASSERT_NO_FATAL_FAILURE(expectRefused("a byte at " + std::to_string(place)));
    }
    put(image + image);
    expectRefused("twice");
}

TEST_F(DamagedImages, AreRefusedFromAnotherMaker)
{
    put(withSignature(image.substr(0, image.size() - kTrailerSize), "b"));
    expectRefused("signed by b");
    const std::string header = std::string("3.0") + std::string(61, '\0');
    put(withSignature(enciphered(header + "payload", "b")));
    expectRefused("enciphered by b");
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWithAGoodSignatureOverNonsense)
{
    for (const std::size_t size :
         {0, 1, 15, 16, 17, 31, 32, 33, 48, 64, 79, 80, 81, 1000, 10240, 10256, 10257, 30000}) {
        put(withSignature(randomBytes(size, 3)));
        ASSERT_NO_FATAL_FAILURE(expectRefused("random bytes: " + std::to_string(size)));
    }
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWithAnythingButAVersionInTheHeader)
{
    for (const std::size_t size : {0, 1, 15, 16, 17, 48, 62, 63, 64, 65, 200}) {
        put(withSignature(enciphered(std::string(size, 'x'))));
        ASSERT_NO_FATAL_FAILURE(expectRefused("letters without an end: " + std::to_string(size)));
        put(withSignature(enciphered(std::string(size, '\0'))));
        ASSERT_NO_FATAL_FAILURE(expectRefused("zeros: " + std::to_string(size)));
    }
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWithAVersionButNoWholeHeader)
{
    for (const std::size_t size : {4U, 16U, 63U}) {
        std::string plaintext = "3.0";
        plaintext.resize(size, '\0');
        put(withSignature(enciphered(plaintext)));
        EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED) << "its version can be read";
        ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
        EXPECT_EQ(waitForRun().result, MQ_RESULT_FAILED) << "there is no payload to flash";
        EXPECT_EQ(flashed(kModule), "the good payload");
    }
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreRefusedWhereTheyAreNoRegularFile)
{
    const std::string path = imagePath(kModule);
    const auto refusedAs = [&](const char* what) {
        expectRefused(what);
        fs::remove_all(path);
    };
    fs::remove(path);
    expectRefused("nothing there");

    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    refusedAs("a FIFO");
    fs::create_directory(path);
    refusedAs("a directory");

    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(listener);
    refusedAs("a socket");

    for (const char* target :
         {"tuner.bin", "/nowhere", "/dev/zero", "/dev/full", "/dev/random", "/dev/tty",
          "/proc/self", "/proc/self/mem", "/proc/self/environ", "/proc/self/fd/0"}) {
        fs::create_symlink(target, path);
        refusedAs(target);
    }
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, AreTakenThroughALinkToAGoodOne)
{
    put("");
    writeFile("/opt/media/elsewhere.bin", image);
    fs::remove(imagePath(kModule));
    fs::create_symlink("/opt/media/elsewhere.bin", imagePath(kModule));
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    EXPECT_EQ(flashed(kModule), "a newer good payload");
}

TEST_F(DamagedImages, AreRefusedWhenTheyCannotBeRead)
{
    if (geteuid() == 0) {
        GTEST_SKIP() << "nothing is unreadable for root; /proc/self/mem stands for it elsewhere";
    }
    fs::permissions(imagePath(kModule), fs::perms::none);
    expectRefused("mode 000");
}

TEST_F(DamagedImages, AreRefusedWithThreeGibibytesOfNothing)
{
    put("");
    fs::resize_file(imagePath(kModule), kThreeGibibytes);
    expectRefused("no trailer");
}

TEST_F(DamagedImages, AreRefusedWithThreeGibibytesAndATrailerThatIsNotTheirs)
{
    const std::string trailer = image.substr(image.size() - kTrailerSize);
    put(image);
    fs::resize_file(imagePath(kModule), kThreeGibibytes - kTrailerSize);
    std::ofstream(imagePath(kModule), std::ios::binary | std::ios::app) << trailer;
    expectRefused("another image's trailer");
    expectTheGoodImageIsTaken();
}

TEST_F(DamagedImages, NeverGetInByBeingSwappedWhileTheyAreVerified)
{
    // The attacker knows the image key, but no signing key, and swaps files while the daemon works.
    const std::string evilPayload = "evil" + randomBytes(2000000, 5);
    const std::string evil = enciphered("9.0" + std::string(61, '\0') + evilPayload);
    putImage(kModule, "3.0", randomBytes(2000000, 6));
    fs::rename(imagePath(kModule), std::string(kStick) + "good");
    writeFile(std::string(kStick) + "evil", evil + image.substr(image.size() - kTrailerSize));

    std::atomic<bool> stopped{false};
    std::thread attacker([&] {
        for (int i = 0; !stopped; ++i) {
            // A new file each time, as a copied-over one would be.
            const std::string temporary = std::string(kStick) + "temporary";
            fs::copy_file(std::string(kStick) + (i % 2 == 0 ? "good" : "evil"), temporary);
            fs::rename(temporary, imagePath(kModule));
            std::this_thread::sleep_for(milliseconds(i % 7));
        }
    });
    ASSERT_TRUE(eventually([&] { return fs::exists(imagePath(kModule)); }));

    for (int i = 0; i < 40; ++i) {
        estimate();
        if (start() == MQ_RESULT_ACCEPTED) {
            EXPECT_THAT(waitForRun().result, AnyOf(MQ_RESULT_DONE, MQ_RESULT_FAILED));
        }
        EXPECT_NE(version(kModule), "9.0");
        EXPECT_NE(flashed(kModule), evilPayload);
        writeFile("/var/lib/quillon/examples/tuner/version", "1.0");
    }
    stopped = true;
    attacker.join();
    EXPECT_TRUE(daemon.isRunning());
}

/// No verifier, and a module that wants everything: whatever is on the stick reaches the cipher,
/// and what comes out of it the module.
class UnverifiedImages : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        for (const std::string& name : allModules()) {
            removeModule(name);
        }
        removeVerifier();
        installTestModule("alpha", "need=1\nseconds=5\ncapture=/var/lib/quillon/alpha.payload\n");
        putImage("alpha", "2.0", "a payload of 24 letters.");
        image = readAll(imagePath("alpha"));
        startDaemon();
    }

    static void put(const std::string& content) { writeFile(imagePath("alpha"), content); }

    /// Estimate and update, whatever comes of them.
    int tryIt()
    {
        estimate();
        if (start() != MQ_RESULT_ACCEPTED) {
            return MQ_RESULT_REFUSED;
        }
        return waitForRun().result;
    }

    void expectItStillServes()
    {
        expectTexts(linesOf("/tmp/quillon-test-alpha.log", "doUpdate_decryption(-"), {});
        fs::remove_all(imagePath("alpha"));
        put(image);
        EXPECT_EQ(tryIt(), MQ_RESULT_DONE);
        EXPECT_EQ(readAll("/var/lib/quillon/alpha.payload"), "a payload of 24 letters.");
    }

    std::string image;
};

TEST_F(UnverifiedImages, OfEverySizeAreDecipheredWithoutHarm)
{
    constexpr std::size_t kHoldsAHeader = 16 + 64 + kTrailerSize;
    for (std::size_t size = 0; size < image.size(); ++size) {
        put(image.substr(0, size));
        const int result = tryIt();
        ASSERT_TRUE(size > kHoldsAHeader || result != MQ_RESULT_DONE) << size;
    }
    expectItStillServes();
}

TEST_F(UnverifiedImages, WithAnyBitChangedAreDecipheredWithoutHarm)
{
    for (std::size_t bit = 0; bit < image.size() * 8; bit += 13) {
        put(withFlippedBit(image, bit));
        ASSERT_THAT(tryIt(), AnyOf(MQ_RESULT_DONE, MQ_RESULT_FAILED, MQ_RESULT_REFUSED)) << bit;
    }
    expectItStillServes();
}

TEST_F(UnverifiedImages, OfRandomBytesAroundEachReadAreDecipheredWithoutHarm)
{
    for (const std::size_t reads : {1, 2, 3}) {
        for (std::size_t around = 0; around < 600; around += 7) {
            put(randomBytes(16 + reads * 10240 + around - 20, 4));
            ASSERT_THAT(tryIt(), AnyOf(MQ_RESULT_DONE, MQ_RESULT_FAILED)) << reads << ' ' << around;
        }
    }
    expectItStillServes();
}

TEST_F(UnverifiedImages, OfThreeGibibytesAreTooLarge)
{
    EXPECT_EQ(tryIt(), MQ_RESULT_DONE);
    put("");
    fs::resize_file(imagePath("alpha"), kThreeGibibytes);
    EXPECT_EQ(tryIt(), MQ_RESULT_FAILED);
    EXPECT_EQ(daemon.logLinesWith("Error: Decryption data is null").size(), 2U);
    expectItStillServes();
}

TEST_F(UnverifiedImages, ThatAreNoRegularFilesAreNotEvenOpened)
{
    EXPECT_EQ(tryIt(), MQ_RESULT_DONE);
    const std::string path = imagePath("alpha");
    for (const char* target : {"alpha.bin", "/dev/zero", "/dev/random", "/proc/self/mem",
                               "/proc/self/environ", "/proc/self"}) {
        fs::remove_all(path);
        fs::create_symlink(target, path);
        EXPECT_EQ(tryIt(), MQ_RESULT_FAILED) << target;
    }
    fs::remove_all(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(tryIt(), MQ_RESULT_FAILED) << "a FIFO";
    expectItStillServes();
}

}  // namespace
}  // namespace quillon::test
