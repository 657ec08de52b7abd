#pragma once

#include <string>

#include "support/files.h"
#include "support/image.h"
#include "support/module.h"

namespace quillon::test {

/// Writes a file, its directories included. Raises std::runtime_error on failure.
void writeFile(const std::string& path, const Bytes& bytes);

/// The whole file. Raises std::runtime_error when it cannot be read.
Bytes readFile(const std::string& path);

/// Makes a directory and those above it.
void makeDirectory(const std::string& path);

/// How many files and sockets the process has open.
int openDescriptors();

/// A plugged-in USB stick.
class Stick
{
public:
    explicit Stick(std::string directory);

    /// With "/" at its end, as the service wants it.
    const std::string& directory() const { return directory_; }
    const char* path() const { return directory_.c_str(); }
    std::string imagePath(const std::string& firmwareName) const;

    void addImage(const std::string& firmwareName, const Image& image) const;
    void addImage(const std::string& firmwareName, const Bytes& bytes) const;

private:
    std::string directory_;
};

/// The device that the test's process runs on: its own, and empty when it starts.
class Device
{
public:
    /// Installs a module. For one with getEMPID its firmware name is the library name, unless the
    /// module says otherwise.
    void addModule(const std::string& name, const Module& module = Module());

    /// Changes how an installed module behaves.
    void changeModule(const std::string& name, const Module& module);

    /// Puts any file into the module directory, as NAME.so.
    void addModuleFile(const std::string& name, const Bytes& bytes);
    std::string modulePath(const std::string& name) const;

    /// Installs the test verifier, which takes everything for signed until told otherwise.
    void addVerifier(const std::string& library = "verifier");
    /// What the verifier answers from now on; 0 is not signed.
    void verifierSays(int answer);

    /// The stick in the first slot, plugged in when it is not there yet.
    Stick stick();
};

}  // namespace quillon::test
