#pragma once

#include <filesystem>
#include <string>

#include "item-directory.h"
#include "makers.h"
#include "platform/secure-storage.h"

namespace quillon::test {

/// A device that accepts the provisioning packages of one maker.
class ProvisionedDevice : public ItemDirectory
{
protected:
    static constexpr char kPackage[] = "/tmp/quillon-package.bin";
    static constexpr char kCertificates[] = "/etc/quillon/provisioning-certificates";

    void SetUp() override
    {
        ItemDirectory::SetUp();
        std::filesystem::create_directories(kCertificates);
        trust("maker.pem", pemOf(maker));
    }

    void TearDown() override
    {
        std::filesystem::remove_all(kPackage);
        std::filesystem::remove_all(kCertificates);
        ItemDirectory::TearDown();
    }

    static void trust(const std::string& file, const std::string& text)
    {
        writeFile(std::string(kCertificates) + "/" + file, text, 0644);
    }

    std::string package(const std::string& item, const std::string& payload) const
    {
        return packageBy(maker, item, payload);
    }

    int install(const std::string& bytes)
    {
        writeFile(kPackage, bytes);
        captured.clear();
        return sdp_install_from_file(kPackage, 2, 0);
    }

    const Maker maker = makeMaker();
};

}  // namespace quillon::test
