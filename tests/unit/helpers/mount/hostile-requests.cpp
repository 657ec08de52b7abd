#include "unit/helpers/mount/hostile-requests.h"

namespace quillon::test {

namespace {

using privileged::Kind;
using Texts = std::vector<std::string>;

const std::string kBadShape = "not the text of such a request";
const std::string kBadOptions = "the mount options are not ro,loop,nodev,nosuid";
const std::string kBadImage = "the source is not an image NAME.img in the package directory";
const std::string kBadDirectory =
    "the mount point is not a directory NAME in emps/ of the package directory";
const std::string kBadMode = "the mode is not 0660";
const std::string kBadLabel = "the label is not *";
const std::string kBadNode = "not the node of a loop device from 0 to 249";

const std::string kPackages = "/opt/usr/apps/appbinarymanager/";
const std::string kMounts = kPackages + "emps/";
const std::string kOptions = "ro,loop,nodev,nosuid";
const std::string kImage = kPackages + "alpha.img";
const std::string kDirectory = kMounts + "alpha";

std::string mountText(const std::string& options, const std::string& image,
                      const std::string& directory)
{
    return "-o " + options + " " + image + " " + directory;
}

std::string nodeText(const std::string& node, const std::string& major, const std::string& minor)
{
    return "-m 0660 -Z * " + node + "  b " + major + " " + minor;
}

Texts wrongMountShapes()
{
    const std::string good = goodMount();
    const std::string tail = kImage + " " + kDirectory;
    return {"",
            " ",
            "-o",
            "-o ",
            "-",
            "--help",
            "-a",
            " " + good,
            good + " ",
            good + "\n",
            "\n" + good,
            good + "\r",
            good + "\t",
            good + " -B",
            good + " " + kDirectory,
            good + " ;id",
            good + " && id",
            good + "\n" + good,
            good + " " + good,
            "-O " + kOptions + " " + tail,
            "-o" + kOptions + " " + tail,
            "--options " + kOptions + " " + tail,
            "-o=" + kOptions + " " + tail,
            "-o\t" + kOptions + " " + tail,
            "-o  " + kOptions + " " + tail,
            "-o " + kOptions + "  " + tail,
            "-o " + kOptions + "\t" + tail,
            "-o " + kOptions + " " + kImage + "  " + kDirectory,
            "-o " + kOptions + " " + kImage + "\t" + kDirectory,
            "-o " + kOptions + " " + kImage + "\n" + kDirectory,
            "-o " + kOptions + " " + kImage,
            "-o " + kOptions,
            kOptions + " " + tail,
            tail,
            "-t squashfs " + good,
            "-o " + kOptions + " -t ext4 " + tail,
            "-o " + kOptions + " --bind " + tail,
            "-o ro, loop,nodev,nosuid " + tail,
            "-o " + kOptions + " \xc3\xa4 " + kDirectory,
            "-o " + kOptions + " \x7f " + kDirectory,
            "-o " + kOptions + " " + kPackages + "a b.img " + kDirectory,
            "-o " + kOptions + " " + kImage + " " + kMounts + "al pha",
            "-o " + kOptions + " " + kPackages + "a\\ b.img" + " " + kMounts + "\x01",
            goodNode(),
            goodUnmount(),
            std::string(1023, ' '),
            std::string(1023, '-')};
}

Texts wrongOptions()
{
    return {"ro",
            "rw",
            "loop",
            "rw,loop,nodev,nosuid",
            "ro,loop,nodev",
            "ro,loop,nosuid",
            "ro,nodev,nosuid",
            "loop,nodev,nosuid",
            "ro,loop,nosuid,nodev",
            "loop,ro,nodev,nosuid",
            kOptions + ",",
            "," + kOptions,
            "ro,,loop,nodev,nosuid",
            kOptions + ",rw",
            kOptions + ",dev",
            kOptions + ",suid",
            kOptions + ",dev,suid",
            kOptions + ",exec",
            kOptions + ",bind",
            kOptions + ",remount",
            kOptions + ",move",
            kOptions + ",errors=panic",
            kOptions + ",offset=512",
            kOptions + ",X-mount.mkdir",
            kOptions + ",helper=sh",
            kOptions + ",user",
            kOptions + ",context=x",
            "RO,LOOP,NODEV,NOSUID",
            "ro;loop;nodev;nosuid",
            "ro,loop=/dev/loop0,nodev,nosuid",
            "ro,loop,nodev,nosuid=0",
            "defaults",
            "*",
            "\"" + kOptions + "\"",
            "ro,loop,nodev,nosuid\\",
            "ro,loop,nodev,nosui"};
}

Texts wrongImages()
{
    return {"/etc/shadow",
            "/dev/sda",
            "/dev/mem",
            "/dev/loop0",
            "/proc/self/mem",
            "/",
            ".",
            "..",
            "-",
            "alpha.img",
            "./alpha.img",
            "tmpfs",
            "proc",
            "none",
            "LABEL=root",
            "UUID=0000",
            "//server/share",
            "host:/export",
            kPackages,
            kPackages + "alpha",
            kPackages + ".img",
            kPackages + "..img",
            kPackages + "...img",
            kPackages + "alpha.IMG",
            kPackages + "alpha.img.",
            kPackages + "alpha.img~",
            kPackages + "alpha.img/",
            kPackages + "alpha.img.img",
            kPackages + "alpha.imgx",
            kPackages + "alphaimg",
            kPackages + "alpha-1.img",
            kPackages + "alpha_1.img",
            kPackages + "alpha.1.img",
            kPackages + "al*.img",
            kPackages + "al?.img",
            kPackages + "[a].img",
            kPackages + "$HOME.img",
            kPackages + "`id`.img",
            kPackages + "%s%n.img",
            kPackages + "alpha\\040.img",
            kPackages + "../alpha.img",
            kPackages + "../../../../etc/alpha.img",
            kPackages + "./alpha.img",
            kPackages + "/alpha.img",
            kPackages + "sub/alpha.img",
            kPackages + "sub/../alpha.img",
            kMounts + "alpha.img",
            kMounts + "alpha/inner.img",
            "/opt/usr/apps/alpha.img",
            "/opt/usr/apps/appbinarymanager2/alpha.img",
            "/opt/usr/apps/appbinarymanageralpha.img",
            "/opt/usr/apps//appbinarymanager/alpha.img",
            "/opt/usr/apps/./appbinarymanager/alpha.img",
            "//opt/usr/apps/appbinarymanager/alpha.img",
            "opt/usr/apps/appbinarymanager/alpha.img",
            "/OPT/usr/apps/appbinarymanager/alpha.img",
            "/tmp/opt/usr/apps/appbinarymanager/alpha.img",
            "/proc/self/root/opt/usr/apps/appbinarymanager/alpha.img",
            "/proc/1/cwd/alpha.img",
            "file://" + kImage,
            "\"" + kImage + "\"",
            "'" + kImage + "'"};
}

Texts wrongDirectories()
{
    return {"/",
            "/etc",
            "/usr/lib",
            "/proc",
            "/dev",
            "/run/quillon",
            "/root",
            ".",
            "..",
            "alpha",
            "emps/alpha",
            "/opt/usr/apps/appbinarymanager",
            "/opt/usr/apps/appbinarymanager/",
            "/opt/usr/apps/appbinarymanager/emps",
            kMounts,
            kMounts + ".",
            kMounts + "..",
            kMounts + "/",
            kMounts + "alpha/",
            kMounts + "alpha//",
            kMounts + "/alpha",
            kMounts + "./alpha",
            kMounts + "../alpha",
            kMounts + "../emps/alpha",
            kMounts + "../../../../../etc",
            kMounts + "alpha/..",
            kMounts + "alpha/.",
            kMounts + "alpha/inner",
            kMounts + "alpha/../beta",
            kMounts + "alpha/../../..",
            kMounts + ".alpha",
            kMounts + "alpha.1",
            kMounts + "alpha-1",
            kMounts + "alpha_1",
            kMounts + "alpha.img",
            kMounts + "al*",
            kMounts + "~root",
            kMounts + "$(id)",
            kMounts + "alpha\\040beta",
            kMounts + "alpha;id",
            kMounts + "alpha|id",
            kMounts + "alpha,beta",
            "/opt/usr/apps/appbinarymanager/empsalpha",
            "/opt/usr/apps/appbinarymanager/emps2/alpha",
            "/opt/usr/apps/appbinarymanager/EMPS/alpha",
            "/opt/usr/apps/appbinarymanager//emps/alpha",
            "/opt/usr/apps/appbinarymanager/alpha",
            "opt/usr/apps/appbinarymanager/emps/alpha",
            "//opt/usr/apps/appbinarymanager/emps/alpha",
            "/proc/self/root/opt/usr/apps/appbinarymanager/emps/alpha",
            "/proc/self/fd/3",
            "\"" + kDirectory + "\""};
}

Texts wrongNodeShapes()
{
    return {"",
            " ",
            "-m",
            "-m 0660",
            "-m 0660 -Z *",
            "-m 0660 -Z * /dev/loop8",
            "-m 0660 -Z * /dev/loop8 b 7 8",
            "-m 0660 -Z * /dev/loop8   b 7 8",
            "-m 0660 -Z * /dev/loop8  b  7 8",
            "-m 0660 -Z * /dev/loop8  b 7  8",
            "-m 0660 -Z * /dev/loop8  b 7",
            "-m 0660 -Z * /dev/loop8  b 7 ",
            "-m 0660 -Z * /dev/loop8  c 7 8",
            "-m 0660 -Z * /dev/loop8  u 7 8",
            "-m 0660 -Z * /dev/loop8  p",
            "-m 0660 -Z * /dev/loop8  B 7 8",
            "-m 0660 -Z /dev/loop8  b 7 8",
            "-m 0660 -z * /dev/loop8  b 7 8",
            "-m 0660 * /dev/loop8  b 7 8",
            "-Z * -m 0660 /dev/loop8  b 7 8",
            "-Z * /dev/loop8  b 7 8",
            "/dev/loop8  b 7 8",
            "-m  0660 -Z * /dev/loop8  b 7 8",
            "-m 0660  -Z * /dev/loop8  b 7 8",
            " -m 0660 -Z * /dev/loop8  b 7 8",
            "-m 0660 -Z * /dev/loop8  b 7 8 ",
            "-m 0660 -Z * /dev/loop8  b 7 8\n",
            "-m 0660 -Z * /dev/loop8  b 7 8 9",
            "-m 0660 -Z * /dev/loop8\t\tb 7 8",
            "-m\t0660 -Z * /dev/loop8  b 7 8",
            "--mode=0660 -Z * /dev/loop8  b 7 8",
            goodMount(),
            goodUnmount()};
}

void add(std::vector<HostileRequest>& all, Kind kind, const Texts& texts,
         const std::string& expected)
{
    for (const std::string& text : texts) {
        all.push_back({kind, text, expected});
    }
}

void addMounts(std::vector<HostileRequest>& all)
{
    add(all, Kind::kMount, wrongMountShapes(), kBadShape);
    for (const std::string& options : wrongOptions()) {
        all.push_back({Kind::kMount, mountText(options, kImage, kDirectory), kBadOptions});
    }
    for (const std::string& image : wrongImages()) {
        all.push_back({Kind::kMount, mountText(kOptions, image, kDirectory), kBadImage});
    }
    for (const std::string& directory : wrongDirectories()) {
        all.push_back({Kind::kMount, mountText(kOptions, kImage, directory), kBadDirectory});
    }
    all.push_back({Kind::kMount, mountText(kOptions, kDirectory, kImage), kBadImage});
}

void addNodes(std::vector<HostileRequest>& all)
{
    add(all, Kind::kNode, wrongNodeShapes(), kBadShape);
    for (const char* mode : {"660", "00660", "0666", "0777", "4660", "06600", "u=rw", "0", "-1"}) {
        all.push_back(
            {Kind::kNode, std::string("-m ") + mode + " -Z * /dev/loop8  b 7 8", kBadMode});
    }
    for (const char* label : {"_", "^", "**", "*:*", "System", "?", "\"*\""}) {
        all.push_back(
            {Kind::kNode, std::string("-m 0660 -Z ") + label + " /dev/loop8  b 7 8", kBadLabel});
    }
    for (const char* number :
         {"250", "251", "255", "256", "999",     "1048576", "4294967304", "18446744073709551624",
          "-1",  "-0",  "+8",  "08",  "008",     "0x8",     "8.0",        "8e0",
          "8a",  "a",   "*",   "8/",  "control", "8p1"}) {
        all.push_back(
            {Kind::kNode, nodeText(std::string("/dev/loop") + number, "7", number), kBadNode});
    }
    for (const char* major :
         {"8", "0", "1", "07", "+7", "-7", "77", "0x7", "263", "7.0", "seven"}) {
        all.push_back({Kind::kNode, nodeText("/dev/loop8", major, "8"), kBadNode});
    }
    for (const char* node :
         {"/dev/sda8",   "/dev/mem8",     "/dev/loop",    "/dev/loop9",        "/dev/loop88",
          "/dev/loop08", "/dev//loop8",   "/dev/./loop8", "/dev/../dev/loop8", "/dev/loop8/",
          "/dev/loop/8", "loop8",         "dev/loop8",    "//dev/loop8",       "/tmp/loop8",
          "/DEV/loop8",  "/dev/Loop8",    "/dev/loop8x",  "/dev/loop-control", "/dev/null",
          "/etc/loop8",  "/dev/shm/loop8"}) {
        all.push_back({Kind::kNode, nodeText(node, "7", "8"), kBadNode});
    }
    all.push_back({Kind::kNode, nodeText("/dev/loop8", "7", "9"), kBadNode});
    all.push_back({Kind::kNode, nodeText("/dev/loop8", "8", "7"), kBadNode});
}

}  // namespace

std::vector<HostileRequest> hostileRequests()
{
    std::vector<HostileRequest> all;
    addMounts(all);
    addNodes(all);
    add(all, Kind::kUnmount, wrongDirectories(), kBadDirectory);
    add(all, Kind::kUnmount,
        {"", " ", " " + kDirectory, kDirectory + " ", kDirectory + "\n", kDirectory + "\t",
         "-l " + kDirectory, "-f " + kDirectory, kDirectory + " " + kDirectory, "-a", "/dev/loop0",
         kImage, goodMount(), goodNode(), kMounts + "\xc3\xa4", std::string(1023, 'a'),
         std::string(1023, '/')},
        kBadDirectory);
    return all;
}

std::string goodMount()
{
    return mountText(kOptions, kImage, kDirectory);
}

std::string goodNode()
{
    return nodeText("/dev/loop8", "7", "8");
}

std::string goodUnmount()
{
    return kDirectory;
}

}  // namespace quillon::test
