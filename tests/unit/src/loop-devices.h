#pragma once

#include <string>

#include "fakes/recording-platform.h"
#include "support/device.h"

namespace quillon::test {

/// The device's loop devices, as its mount table and its list of devices show them: files of the
/// test that are read in the place of the real ones.
class LoopDevices
{
public:
    static constexpr const char* kNodes = "/opt/media/devices/";
    static constexpr const char* kTable = "/opt/media/mounts";

    LoopDevices()
    {
        makeDirectory(kNodes);
        tableSays("");
        fakes::openInstead("/dev", kNodes);
        fakes::openInstead("/proc/mounts", kTable);
    }

    /// So many nodes, "/dev/loop0" and on, beside the control device.
    void present(int count) const
    {
        addNode("loop-control");
        for (int number = 0; number < count; ++number) {
            addNode("loop" + std::to_string(number));
        }
    }

    /// So many mounts of loop devices, beside another one.
    void mounted(int count) const
    {
        std::string table = "tmpfs /tmp tmpfs rw 0 0\n";
        for (int number = 0; number < count; ++number) {
            const std::string text = std::to_string(number);
            table.append("/dev/loop").append(text);
            table.append(" /mnt/").append(text).append(" squashfs ro 0 0\n");
        }
        tableSays(table);
    }

    void addNode(const std::string& name) const { writeFile(kNodes + name, ""); }
    void tableSays(const std::string& text) const { writeFile(kTable, text); }
};

}  // namespace quillon::test
