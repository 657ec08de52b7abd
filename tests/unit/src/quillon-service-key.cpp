#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>

#include "fakes/timeline.h"
#include "quillon-service.h"

using namespace quillon::fakes;

namespace {

constexpr const char* kInit = "ss_init_credential(0, 0, 0, 0, 0, 1, 0) = 0";
constexpr const char* kRead = "ss_read(0, 0, \"quillon\", credential, 33) = ";
constexpr const char* kInstall =
    "sdp_install_from_file(\"/usr/share/sdp/quillon-key/00000066.bin\", 2, 0) = ";
constexpr const char* kMissing = "Error: quillon is not installed. Need to re-install";

constexpr std::size_t kCipherKeyStorage = 33;

std::string read(int result)
{
    return kRead + std::to_string(result);
}

std::string install(int result)
{
    return kInstall + std::to_string(result);
}

std::string installed(int result)
{
    return "[/usr/share/sdp/quillon-key/00000066.bin, ret=" + std::to_string(result) +
           " ], install ok";
}

std::string notInstalled(int result)
{
    return "Error: [/usr/share/sdp/quillon-key/00000066.bin, ret=" + std::to_string(result) +
           " ], install fail";
}

/// 1, 2, 3 ... as many bytes as asked for, beginning with a byte that has both letters and digits.
Bytes keyOf(std::size_t size)
{
    Bytes key(size);
    std::iota(key.begin(), key.end(), static_cast<unsigned char>(0xa9));
    return key;
}

std::string keyText()
{
    return reinterpret_cast<const char*>(dec_key);
}

/// So much of the key's storage as the cipher reads.
std::string keyStorage()
{
    return {reinterpret_cast<const char*>(dec_key), kCipherKeyStorage};
}

std::string zeroFilled(std::string text)
{
    text.resize(kCipherKeyStorage, '\0');
    return text;
}

class Key : public ::testing::Test
{
protected:
    ~Key() override { EXPECT_EQ(mismatches(), ""); }

    static void store(Bytes key) { platform().items["quillon"] = std::move(key); }
};

class ShortKey : public Key
{
protected:
    ShortKey() { fillFreeMemory(); }

private:
    // What the allocator hands out again is then not zero by chance.
    static void fillFreeMemory()
    {
        for (std::size_t size = 1; size <= 80; size += 4) {
            void* memory = std::malloc(size);
            std::memset(memory, 0xee, size);
            std::free(memory);
        }
    }
};

}  // namespace

TEST_F(Key, IsPublishedAsLowercaseHexadecimalText)
{
    store(keyOf(32));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(keyText(), "a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6c7c8");
    EXPECT_EQ(dec_key_size, 64U);
    expectSteps({Call(kInit), Call(read(0)),
                 LogFrom("ss_read_and_use_securestorage_code", ERROR,
                         "decryption key load success. key_size : 32"),
                 Call("ss_free_buffer(data)")});
}

TEST_F(Key, BytesBelowSixteenHaveALeadingZero)
{
    store(Bytes(32, 0x0c));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(keyText().substr(0, 6), "0c0c0c");
    EXPECT_EQ(keyText().size(), 64U);
}

TEST_F(Key, ZeroBytesBelongToIt)
{
    store(Bytes(20, 0));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(keyText(), std::string(40, '0'));
    EXPECT_EQ(dec_key_size, 40U);
}

TEST_F(Key, IsNotThereBeforeItIsRead)
{
    EXPECT_EQ(dec_key, nullptr);
    EXPECT_EQ(dec_key_size, 0U);
}

TEST_F(Key, NeverReachesTheLog)
{
    store(keyOf(32));

    ss_read_and_use_securestorage_code();

    for (const Entry& entry : wholeTimeline()) {
        for (std::size_t at = 0; at + 4 <= keyText().size(); at += 2) {
            expectNoText(entry.text, like("*" + keyText().substr(at, 4) + "*"));
        }
    }
}

TEST_F(Key, MissingItemIsInstalledAndReadOnTheSecondCall)
{
    platform().sdpInstall.always([](const char*) {
        store(keyOf(32));
        return 0;
    });

    EXPECT_EQ(ss_read_and_use_securestorage_code(), -1);
    EXPECT_EQ(dec_key, nullptr);
    EXPECT_EQ(dec_key_size, 0U);
    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(dec_key_size, 64U);
    expectSteps({Call(kInit), Call(read(5)),
                 LogFrom("ss_read_and_use_securestorage_code", ERROR, kMissing), Call(install(0)),
                 LogFrom("sdp_install_securestorage_code", ERROR, installed(0)), Call(kInit),
                 Call(read(0)), Log(ERROR, "decryption key load success. key_size : 32"),
                 Call("ss_free_buffer(data)")});
}

TEST_F(Key, MissingItemAndFailingInstallAreReportedEachTime)
{
    platform().sdpInstall.always(9);

    EXPECT_EQ(ss_read_and_use_securestorage_code(), -1);
    EXPECT_EQ(ss_read_and_use_securestorage_code(), -1);

    EXPECT_EQ(dec_key, nullptr);
    EXPECT_EQ(dec_key_size, 0U);
    expectSteps({Call(kInit), Call(read(5)), Log(ERROR, kMissing), Call(install(9)),
                 Log(ERROR, notInstalled(9)), Call(kInit), Call(read(5)), Log(ERROR, kMissing),
                 Call(install(9)), Log(ERROR, notInstalled(9))});
}

TEST_F(Key, AnyOtherStorageErrorIsHandedBackWithoutInstalling)
{
    for (const int code : {1, 4, 6, -1, -5, 1000}) {
        clear();
        platform().ssRead.always(code);

        EXPECT_EQ(ss_read_and_use_securestorage_code(), code);

        EXPECT_EQ(dec_key, nullptr);
        EXPECT_EQ(dec_key_size, 0U);
        expectSteps({Call(kInit), Call(read(code)),
                     LogFrom("ss_read_and_use_securestorage_code", ERROR,
                             "Error: ss_read error " + std::to_string(code))});
    }
}

TEST_F(Key, InstallCountsZeroAndTwoAsInstalled)
{
    platform().sdpInstall.then({0, 2});

    EXPECT_EQ(sdp_install_securestorage_code(), 0);
    EXPECT_EQ(sdp_install_securestorage_code(), 0);

    expectSteps(
        {Call(install(0)), Log(ERROR, installed(0)), Call(install(2)), Log(ERROR, installed(2))});
}

TEST_F(Key, FailedInstallHandsItsCodeBackWithoutBitOne)
{
    platform().sdpInstall.then({1, 3, 4, 6, 7, -1});

    EXPECT_EQ(sdp_install_securestorage_code(), 1);
    EXPECT_EQ(sdp_install_securestorage_code(), 1);
    EXPECT_EQ(sdp_install_securestorage_code(), 4);
    EXPECT_EQ(sdp_install_securestorage_code(), 4);
    EXPECT_EQ(sdp_install_securestorage_code(), 5);
    EXPECT_EQ(sdp_install_securestorage_code(), -3);

    expectTexts(logTexts(), {notInstalled(1), notInstalled(3), notInstalled(4), notInstalled(6),
                             notInstalled(7), notInstalled(-1)});
}

TEST_F(Key, WithoutMemoryIsAnErrorAndTheStorageGetsItsBufferBack)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    store(keyOf(200));
    failAllocation(401);

    EXPECT_EQ(ss_read_and_use_securestorage_code(), ENOMEM);

    EXPECT_EQ(dec_key, nullptr);
    EXPECT_EQ(dec_key_size, 0U);
    expectSteps({Call(kInit), Call(read(0)),
                 Log(ERROR, "decryption key load success. key_size : 200"),
                 Call("ss_free_buffer(data)"),
                 LogFrom("ss_read_and_use_securestorage_code", ERROR,
                         "Error: no memory for the decryption key")});
}

TEST_F(ShortKey, OfSixteenBytesFillsTheCipherKeyExactly)
{
    store(keyOf(16));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(keyStorage(), zeroFilled("a9aaabacadaeafb0b1b2b3b4b5b6b7b8"));
    EXPECT_EQ(dec_key_size, 32U);
}

TEST_F(ShortKey, OfFifteenBytesIsZeroFilled)
{
    store(keyOf(15));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    ASSERT_GE(malloc_usable_size(dec_key), kCipherKeyStorage);
    EXPECT_EQ(keyStorage(), zeroFilled("a9aaabacadaeafb0b1b2b3b4b5b6b7"));
    EXPECT_EQ(dec_key_size, 30U);
}

TEST_F(ShortKey, OfThreeBytesIsZeroFilled)
{
    store(keyOf(3));

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    ASSERT_GE(malloc_usable_size(dec_key), kCipherKeyStorage);
    EXPECT_EQ(keyStorage(), zeroFilled("a9aaab"));
    EXPECT_EQ(dec_key_size, 6U);
}

// Each byte's text is cut to as many characters as the key has bytes, the NUL included.
TEST_F(ShortKey, OfTwoBytesKeepsOneDigitOfEach)
{
    store({0xa9, 0xbc});

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    ASSERT_GE(malloc_usable_size(dec_key), kCipherKeyStorage);
    EXPECT_EQ(keyStorage(), zeroFilled(std::string("a\0b", 3)));
    EXPECT_EQ(dec_key_size, 4U);
}

TEST_F(ShortKey, OfOneByteKeepsNoDigit)
{
    store({0xa9});

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    ASSERT_GE(malloc_usable_size(dec_key), kCipherKeyStorage);
    EXPECT_EQ(keyStorage(), zeroFilled(""));
    EXPECT_EQ(dec_key_size, 2U);
}

TEST_F(ShortKey, OfNoBytesCountsAsNoKey)
{
    store({});

    EXPECT_EQ(ss_read_and_use_securestorage_code(), 0);

    EXPECT_EQ(dec_key_size, 0U);
    expectStep(Log("decryption key load success. key_size : 0"));
}
