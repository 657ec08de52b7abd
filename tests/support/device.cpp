#include "support/device.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "fakes/recording-platform.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr const char* kModules = "/usr/fwupdate/controls/";
constexpr const char* kVerifier = "/usr/lib/libkUEPUser.so";
constexpr const char* kStick = "/opt/media/USBDriveA/";

// The built libraries lie beside the test programs.
Bytes builtLibrary(const std::string& name)
{
    return readFile(fs::read_symlink("/proc/self/exe").parent_path() / "modules" / (name + ".so"));
}

fakes::ModuleBehaviour namedBehaviour(const std::string& name, const Module& module)
{
    fakes::ModuleBehaviour behaviour = module.behaviour();
    if (!module.hasEmpid()) {
        behaviour.empid = name + "emp";
    }
    return behaviour;
}

}  // namespace

void writeFile(const std::string& path, const Bytes& bytes)
{
    writeFile(path, std::string(bytes.begin(), bytes.end()));
}

Bytes readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return bytes;
}

void makeDirectory(const std::string& path)
{
    fs::create_directories(path);
}

int openDescriptors()
{
    return static_cast<int>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

Stick::Stick(std::string directory) : directory_(std::move(directory))
{
    makeDirectory(directory_);
}

std::string Stick::imagePath(const std::string& firmwareName) const
{
    return directory_ + firmwareName + ".bin";
}

void Stick::addImage(const std::string& firmwareName, const Image& image) const
{
    addImage(firmwareName, image.bytes());
}

void Stick::addImage(const std::string& firmwareName, const Bytes& bytes) const
{
    writeFile(imagePath(firmwareName), bytes);
}

void Device::addModule(const std::string& name, const Module& module)
{
    addModuleFile(name, builtLibrary(module.library()));
    changeModule(name, module);
}

void Device::changeModule(const std::string& name, const Module& module)
{
    fakes::setBehaviour(name, namedBehaviour(name, module));
}

void Device::addModuleFile(const std::string& name, const Bytes& bytes)
{
    writeFile(modulePath(name), bytes);
}

std::string Device::modulePath(const std::string& name) const
{
    return kModules + name + ".so";
}

void Device::addVerifier(const std::string& library)
{
    writeFile(kVerifier, builtLibrary(library));
}

void Device::verifierSays(int answer)
{
    fakes::platform().verifyFile.always(answer);
}

Stick Device::stick()
{
    return Stick(kStick);
}

}  // namespace quillon::test
