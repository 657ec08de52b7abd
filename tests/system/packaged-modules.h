#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "system/privileged-helper.h"

namespace quillon::test {

/// A device with the mounting helper, and modules that have packages.
class PackagedModules : public PackageMount
{
protected:
    void SetUp() override
    {
        ::unsetenv("JOURNAL_STREAM");
        PackageMount::SetUp();
        if (!IsSkipped()) {
            helper.startAndWait();
        }
    }

    static void addModule(const std::string& name, const std::string& settings,
                          const std::string& library = TEST_MODULE)
    {
        std::filesystem::create_directories("/usr/fwupdate/controls");
        std::filesystem::copy_file(library, "/usr/fwupdate/controls/" + name + ".so");
        std::filesystem::create_directories("/etc/quillon-test");
        set(name, settings);
        addPackage(name);
    }

    static void set(const std::string& name, const std::string& settings)
    {
        writeFile("/etc/quillon-test/" + name + ".conf", settings);
    }

    /// Puts it where a download would.
    static void addPackage(const std::string& name, int expectedSeconds = 30)
    {
        const std::string payload = "/var/lib/quillon/privileged-test/" + name + ".payload";
        writeFile(payload, name);
        run(std::string(QUILLON_IMAGE_PROGRAM) + " package --name " + name +
            "emp --version 2.0 --payload " + payload + " --expected-time " +
            std::to_string(expectedSeconds) +
            " --type squashfs "
            "--output " +
            imageOf(name + "emp"));
    }

    /// Has packages mounted for members of a group.
    void letIn(gid_t group)
    {
        ASSERT_EQ(helper.end(), 0);
        helper.startAndWait({"--group", std::to_string(group)});
        ASSERT_EQ(::chown(kMountDirectory, 0, group), 0);
        ASSERT_EQ(::chmod(kMountDirectory, 02770), 0);
    }

    static std::vector<std::string> mountedPackages() { return mounts(kMountDirectory); }
};

}  // namespace quillon::test
