#include "tools/quillon-image/package-image.h"

#include <json/json.h>

#include <cstring>
#include <filesystem>

#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/security-floors.h"
#include "src/support/checksum.h"
#include "tools/quillon-image/atomic-file.h"
#include "tools/quillon-image/run-program.h"
#include "tools/quillon-image/scratch-directory.h"
#include "tools/quillon-image/stick-image.h"

namespace quillon {
namespace {

constexpr Program kMksquashfs = {"mksquashfs", "squashfs-tools", false};
constexpr Program kMke2fs = {"mke2fs", "e2fsprogs", false};
constexpr Program kDebugfs = {"debugfs", "e2fsprogs", true};

constexpr char kNameMark[] = "emp";
constexpr char kInformationFile[] = "info.json";

constexpr std::uint64_t kExt4BlockSize = 4096;
/// What the file system itself takes: a fixed part, with room for a last block group too small to
/// be used, and a part of each block group.
constexpr std::uint64_t kExt4SpareBlocks = 128;
constexpr std::uint64_t kDataBlocksPerSpareBlock = 1024;
/// No journal, which a file system that is only read has no use for.
constexpr char kExt4Features[] = "none,extent,filetype,sparse_super,large_file,extra_isize";
/// This and the hash seed would be random otherwise.
constexpr char kExt4Uuid[] = "00000000-0000-0000-0000-000000000001";
constexpr char kExt4Options[] =
    "hash_seed=00000000-0000-0000-0000-000000000001,root_owner=0:0,nodiscard,lazy_itable_init=0";
/// The epoch itself means "no time given" to these programs.
constexpr char kExt4Time[] = "E2FSPROGS_FAKE_TIME=1";

/// Copies a file; the checksum is that of the bytes that were copied.
std::uint32_t copyPayload(const InputFile& payload, const std::string& target,
                          const HeldSignals& signals)
{
    AtomicFile copy(target, Audience::kEveryone);
    std::uint32_t crc = 0;
    payload.readPieces(0, payload.size(), [&](const unsigned char* data, std::size_t length) {
        signals.requireNone();
        crc = imageChecksum(crc, data, length);
        copy.write(data, length);
    });
    copy.commit();
    return crc;
}

std::string informationText(const PackageContent& content, std::uint32_t crc)
{
    Json::Value information;
    information["version"] = content.version;
    information["crc"] = crc;
    information["expected_time"] = content.expectedTime;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, information) + '\n';
}

void makeSquashfs(const std::string& directory, const std::string& image)
{
    runProgram(kMksquashfs,
               {".", image, "-noappend", "-quiet", "-no-progress", "-no-xattrs", "-all-root",
                "-root-mode", "755", "-all-time", "0", "-mkfs-time", "0"},
               directory, {});
}

std::uint64_t ext4BlocksFor(const std::filesystem::path& file)
{
    const std::uint64_t data = std::filesystem::file_size(file) / kExt4BlockSize + 1;
    return data + data / kDataBlocksPerSpareBlock;
}

void addToExt4(const std::string& directory, const std::string& image, const std::string& file)
{
    std::string command = "write ";
    command.append(file).append(" ").append(file);
    runProgram(kDebugfs, {"-w", "-R", command, image}, directory, {kExt4Time});
}

/// The files are written one by one with debugfs: mke2fs itself would copy their owner and times,
/// and take them in the order in which the directory happens to hold them.
void makeExt4(const std::string& directory, const std::string& image,
              const std::string& payloadName)
{
    const std::filesystem::path place(directory);
    const std::uint64_t blocks = kExt4SpareBlocks + ext4BlocksFor(place / kInformationFile) +
                                 ext4BlocksFor(place / payloadName);
    runProgram(kMke2fs, {"-q", "-F",          "-t",  "ext4",
                         "-O", kExt4Features, "-b",  std::to_string(kExt4BlockSize),
                         "-I", "256",         "-N",  "16",
                         "-m", "0",           "-U",  kExt4Uuid,
                         "-E", kExt4Options,  image, std::to_string(blocks)},
               directory, {kExt4Time});
    addToExt4(directory, image, kInformationFile);
    addToExt4(directory, image, payloadName);
}

bool hasMark(const InputFile& file, std::uint64_t offset, const std::string& mark)
{
    if (file.size() < offset + mark.size()) {
        return false;
    }
    std::string found(mark.size(), '\0');
    file.readAt(offset, reinterpret_cast<unsigned char*>(found.data()), found.size());
    return found == mark;
}

}  // namespace

std::string firmwareNameOf(const std::string& packageName)
{
    const std::size_t mark = packageName.find(kNameMark);
    std::string firmwareName = mark == std::string::npos
                                   ? ""
                                   : std::string(packageName).erase(mark, std::strlen(kNameMark));
    if (!isModuleName(firmwareName)) {
        throw ImageError(ImageFault::kUsage,
                         "a package's name has 1 to 127 ASCII letters and digits, 'emp' and the "
                         "firmware's name among them");
    }
    return firmwareName;
}

std::uint32_t buildPackage(const PackageContent& content, PackageType type,
                           const std::string& outputPath)
{
    const std::string payloadName = firmwareNameOf(content.name) + ".bin";
    requireVersion(content.version);
    const InputFile payload(content.payload);

    const HeldSignals signals;
    AtomicFile output(outputPath, Audience::kEveryone);
    const ScratchDirectory directory(outputPath);
    const std::uint32_t crc = copyPayload(payload, directory.path() + "/" + payloadName, signals);
    writeFile(directory.path() + "/" + kInformationFile, informationText(content, crc),
              Audience::kEveryone);

    // The programs run in the directory, so that no name of ours can be taken for an option.
    const std::string image = std::filesystem::absolute(output.temporaryPath()).string();
    if (type == PackageType::kSquashfs) {
        makeSquashfs(directory.path(), image);
    } else {
        makeExt4(directory.path(), image, payloadName);
    }
    signals.requireNone();
    output.commit();
    return crc;
}

std::optional<PackageType> packageTypeOf(const std::string& path)
{
    const InputFile file(path);
    if (hasMark(file, 0, "hsqs")) {
        return PackageType::kSquashfs;
    }
    if (hasMark(file, 1080, "\x53\xEF")) {
        return PackageType::kExt4;
    }
    return std::nullopt;
}

}  // namespace quillon
