#ifndef QUILLON_BENCH_DRIVEN_STICK_H
#define QUILLON_BENCH_DRIVEN_STICK_H

#include <cstdint>
#include <string>

namespace quillon::bench {

/// The image key's text of every device that bootDevice() has set up.
constexpr const char* kImageKeyItem = "0123456789abcdef";

/// The verifier that stands at the service's path for it.
enum class Verifier {
    kNone,     ///< no library: every image counts as signed
    kTrivial,  ///< says yes at once
    kOurs,     ///< libkUEPUser.so, with the workshop's key trusted
    kByPath    ///< the same, without its entry for what was really read
};

/// The maker's side: makes images as they lie on a stick. Works within a virtual device, in a
/// folder of its own in the build folder, which is on a disk's file system as a rule: a device's
/// own folders are in memory, where reading a file is slower than reading one that a disk's file
/// system has cached. Everything throws std::runtime_error, or what it derives from.
class Workshop
{
public:
    /// Makes the signing key, which takes a moment.
    explicit Workshop(std::string buildFolder);
    /// Removes all that was made.
    ~Workshop();
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;

    /// An empty stick.
    /// @param number  1 to 9
    /// @return its folder, "/opt/media/USBDriveA1/" and so on, which leads into ours
    std::string stick(int number);

    /// A file of bytes that no compression helps with, the same ones each time.
    std::string payload(std::uint64_t size);

    /// Puts a signed, enciphered image for a module onto a stick.
    /// @param stick  a folder that is there; ends in "/"
    void putImage(const std::string& stick, const std::string& module, std::uint64_t size);

    /// Installs the verifier of the service's next start.
    void install(Verifier verifier) const;

    const std::string& folder() const { return folder_; }

private:
    std::string buildFolder_;
    std::string folder_;
};

}  // namespace quillon::bench

#endif
