#pragma once

#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "fw-update-symbol.h"
#include "loop-devices.h"
#include "support/checksum.h"
#include "support/device-fixture.h"

namespace quillon::test {

/// An image and its information file, as they lie in a directory of some source. They fit together
/// until something else is said.
class Firmware
{
public:
    Firmware& version(const std::string& text)
    {
        version_ = text;
        return *this;
    }
    Firmware& image(const Bytes& bytes)
    {
        image_ = bytes;
        return *this;
    }
    /// What the information file says instead of the image's own checksum.
    Firmware& statedCrc(std::uint32_t crc)
    {
        statedCrc_ = std::to_string(crc);
        return *this;
    }
    /// As a text, since it may be more than any number type holds.
    Firmware& takesSeconds(const std::string& seconds)
    {
        seconds_ = seconds;
        return *this;
    }
    /// The whole information file.
    Firmware& information(const std::string& text)
    {
        information_ = text;
        return *this;
    }

    std::uint32_t crc() const { return imageChecksum(0, image_.data(), image_.size()); }
    const Bytes& imageBytes() const { return image_; }
    std::string informationText() const
    {
        return information_.empty()
                   ? R"({"version": ")" + version_ + R"(", "crc": )" +
                         (statedCrc_.empty() ? std::to_string(crc()) : statedCrc_) +
                         R"(, "expected_time": )" + seconds_ + "}"
                   : information_;
    }

private:
    std::string version_ = "2.0";
    Bytes image_ = bytesOf("123456789");
    std::string statedCrc_;
    std::string seconds_ = "90";
    std::string information_;
};

using fakes::Steps;

/// A device with one module, whose three names all differ: library "tuner", package "tunerempA1",
/// firmware "tunerA1". Its package can be mounted; what would be inside then is in its mount point
/// all the time.
class OfferedFirmware : public DeviceTest
{
protected:
    static constexpr const char* kPackage = "/opt/usr/apps/appbinarymanager/tunerempA1.img";
    static constexpr const char* kMountPoint = "/opt/usr/apps/appbinarymanager/emps/tunerempA1";
    static constexpr const char* kSystemDirectory = "/lib/firmware/ext/tunerA1";
    static constexpr const char* kSharedDirectory = "/opt/usr/share/sbox/tunerA1";
    static constexpr const char* kStickDirectory = "/opt/media/USBDriveA/tunerA1";

    /// Installs the module and loads it. Returns what loading said.
    int install(const Module& description)
    {
        device.addModule("tuner", named(description));
        const int result = module.loadSymbol("tuner");
        fakes::clear();
        return result;
    }
    void change(const Module& description) { device.changeModule("tuner", named(description)); }

    static void offer(const std::string& directory, const Firmware& firmware = Firmware())
    {
        writeFile(directory + "/tunerA1.bin", firmware.imageBytes());
        writeFile(directory + "/info.json", firmware.informationText());
    }
    /// The package as it is downloaded, and what it holds.
    static void offerPackage(const Firmware& firmware = Firmware())
    {
        writeFile(kPackage, "a package");
        offer(kMountPoint, firmware);
    }
    static void removeFile(const std::string& path) { EXPECT_EQ(unlink(path.c_str()), 0) << path; }
    static bool isThere(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

    int decide(CallerTypes caller, char* text)
    {
        const int before = openDescriptors();
        const int result = module.isNeedUpdate(caller, text);
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }
    int update(CallerTypes caller, char* text)
    {
        const int before = openDescriptors();
        const int result = module.updateFirmware(caller, text);
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }

    static fakes::Step plugin(const std::string& call) { return fakes::Plugin("tuner." + call); }
    /// The caller of most tests brings the text "argument".
    static fakes::Step contextSet(int caller)
    {
        return plugin("setContext(\"tuner\", " + std::to_string(caller) + ", \"argument\")");
    }
    static fakes::Step umountCall(int retVal)
    {
        return fakes::Call("PS_Umount(\"" + std::string(kMountPoint) +
                           "\", 46, 0, 0) = " + std::to_string(retVal));
    }
    static fakes::Step mountCall(int retVal)
    {
        return fakes::Call("PS_Mount(\"-o ro,loop,nodev,nosuid " + std::string(kPackage) + " " +
                           kMountPoint + "\", 1024, 0, 0) = " + std::to_string(retVal));
    }

    char argument[16] = "argument";
    const LoopDevices loops;
    FWUpdateSymbol module{"tuner"};

    const fakes::Step saidUnmounted = fakes::LogFrom(
        "UMount", fakes::INFO, "Umount dir[" + std::string(kMountPoint) + "] successfully.");
    const fakes::Step saidNotUnmounted = fakes::LogFrom(
        "UMount", fakes::ERROR,
        "Error(iRet1=-1, iRet2=0) while unmounitng [" + std::string(kMountPoint) + "]");
    const fakes::Step announced = fakes::LogFrom(
        "loop_mount", fakes::INFO,
        "PsMntCmd:[-o ro,loop,nodev,nosuid " + std::string(kPackage) + " " + kMountPoint + "]");
    const Steps mountedAnew = {umountCall(0), saidUnmounted, announced, mountCall(0)};
    const Steps unmounted = {umountCall(0), saidUnmounted,
                             fakes::LogFrom("unmountEMPImage", fakes::ERROR,
                                            "EMP UMount Success " + std::string(kPackage))};

private:
    static Module named(Module description)
    {
        return description.hasEmpid() ? description : description.withEmpid("tunerempA1");
    }
};

}  // namespace quillon::test
