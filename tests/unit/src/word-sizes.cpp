// What must be the same on every machine, whatever the size of its words.

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <ctime>
#include <future>
#include <type_traits>

#include "base/fd.h"
#include "base/regular-file.h"
#include "fakes/timeline.h"
#include "fw-update-mqdata.h"
#include "fw-update-plugin.h"
#include "fw-update-symbol.h"
#include "quillon-service-client.h"
#include "support/checksum.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

constexpr char kFile[] = "/dev/shm/file";

// Cut to 32 bits, a moment of the year 1970.
constexpr time_t kAfterThe32Bits = (time_t{1} << 32) + 1;

class WordSizes : public DeviceTest
{
};

/// Bytes whose checksum has its highest bit set, which a signed number on the way would spread.
Bytes bytesWithHighChecksum()
{
    for (unsigned int seed = 0;; ++seed) {
        const Bytes bytes = noise(1000, seed);
        if (imageChecksum(0, bytes.data(), bytes.size()) > 0x7FFFFFFFU) {
            return bytes;
        }
    }
}

}  // namespace

TEST_F(WordSizes, OfTheRecordsFieldsAreThoseOfEveryClient)
{
    EXPECT_EQ(sizeof(MQData), 284U);
    EXPECT_EQ(alignof(MQData), 4U);
    EXPECT_EQ(offsetof(MQData, command), 0U);
    EXPECT_EQ(offsetof(MQData, result), 4U);
    EXPECT_EQ(offsetof(MQData, kind), 8U);
    EXPECT_EQ(offsetof(MQData, path), 12U);
    EXPECT_EQ(offsetof(MQData, value), 268U);
    EXPECT_EQ(offsetof(MQData, reserved), 272U);
    EXPECT_EQ(sizeof(MQData::path), 256U);
    EXPECT_EQ(sizeof(MQData::reserved), 12U);
    EXPECT_TRUE(std::is_trivially_copyable_v<MQData>);
}

TEST_F(WordSizes, OfThePluginsNumbersAreThoseOfTheContract)
{
    EXPECT_EQ(sizeof(CallerTypes), 4U);
    EXPECT_EQ(sizeof(int), 4U);
    EXPECT_EQ(sizeof(unsigned long), sizeof(void*)) << "4 or 8: the checksum fits into either";
}

TEST_F(WordSizes, OfTimesAndFilesAre64Bits)
{
    EXPECT_EQ(sizeof(time_t), 8U);
    EXPECT_EQ(sizeof(timespec::tv_sec), 8U);
    EXPECT_EQ(sizeof(off_t), 8U);
    EXPECT_EQ(sizeof(ino_t), 8U) << "as some file systems have";
}

TEST_F(WordSizes, NumbersThatThreadsShareNeedNoLock)
{
    EXPECT_TRUE(std::atomic<int>::is_always_lock_free);
    EXPECT_TRUE(std::atomic<bool>::is_always_lock_free);
    EXPECT_TRUE(std::atomic<void*>::is_always_lock_free);
}

TEST_F(WordSizes, AChecksumWithItsHighestBitSetStaysA32BitNumber)
{
    const Bytes bytes = bytesWithHighChecksum();
    writeFile(kFile, bytes);
    FWUpdateSymbol module("alpha");

    const unsigned long crc = module.getBinaryCRC32(kFile);

    EXPECT_EQ(crc, imageChecksum(0, bytes.data(), bytes.size()));
    EXPECT_LE(crc, 0xFFFFFFFFUL);
}

TEST_F(WordSizes, AChecksumDoesNotDependOnWhereTheBytesStand)
{
    const Bytes bytes = noise(3000);
    const std::uint32_t crc = imageChecksum(0, bytes.data(), bytes.size());
    for (std::size_t offset = 0; offset < 64; ++offset) {
        Bytes moved(offset);
        moved.insert(moved.end(), bytes.begin(), bytes.end());
        EXPECT_EQ(imageChecksum(0, moved.data() + offset, bytes.size()), crc) << offset;
    }
}

TEST_F(WordSizes, AFileBeyond4GiBIsOpenedWithItsSizeAndReadToItsEnd)
{
    constexpr off_t size = (off_t{5} << 30) + 1;
    writeFile(kFile, "x");
    ASSERT_EQ(truncate(kFile, size), 0);
    struct stat opened = {};

    const UniqueFile file = openRegularStream(kFile, opened);

    ASSERT_NE(file, nullptr);
    EXPECT_EQ(opened.st_size, size);
    ASSERT_EQ(fseeko(file.get(), size - 1, SEEK_SET), 0);
    EXPECT_EQ(std::fgetc(file.get()), 0);
    EXPECT_EQ(std::fgetc(file.get()), EOF);
}

TEST_F(WordSizes, AFileOfAfter2038IsTheSameFileOnlyWithTheSameTime)
{
    writeFile(kFile, "x");
    const timespec late[2] = {{kAfterThe32Bits, 0}, {kAfterThe32Bits, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, kFile, late, 0), 0);
    struct stat opened = {};
    ASSERT_NE(openRegularStream(kFile, opened), nullptr);

    EXPECT_EQ(opened.st_mtim.tv_sec, kAfterThe32Bits);
    EXPECT_TRUE(isStillSameFile(kFile, opened));

    const timespec early[2] = {{1, 0}, {1, 0}};  // what is left of it in 32 bits
    ASSERT_EQ(utimensat(AT_FDCWD, kFile, early, 0), 0);
    struct stat now = {};
    ASSERT_EQ(stat(kFile, &now), 0);
    opened.st_ctim = now.st_ctim;  // the difference is in the time of the contents alone
    EXPECT_FALSE(isStillSameFile(kFile, opened));
}

TEST_F(WordSizes, AWaitThatEndsAfter2038DoesNotEndAtOnce)
{
    OpenQueues queues;
    const Queue replies("/fwupdatecontrol_usb", O_RDWR);
    auto received = std::async(std::launch::async, [&replies] {
        Record record;
        const timespec end = {kAfterThe32Bits, 0};
        return mq_timedreceive(replies.descriptor(), reinterpret_cast<char*>(record.bytes.data()),
                               kRecordSize, nullptr, &end);
    });
    EXPECT_EQ(received.wait_until(shortWhile()), std::future_status::timeout);

    MQData record{};
    ASSERT_EQ(FWUpdateMQManager::getInstance()->sendToControl(&record), 0);

    EXPECT_EQ(received.get(), ssize_t{kRecordSize});
}

}  // namespace quillon::test
