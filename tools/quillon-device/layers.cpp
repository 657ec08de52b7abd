#include "tools/quillon-device/layers.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/mounts.h"
#include "tools/quillon-device/setup-error.h"

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

/// A host directory that gets a private writable layer.
struct Layer
{
    std::string host;      ///< the directory on the host, for example "/usr"
    std::string upper;     ///< where the changes go
    std::string work;      ///< the overlay's scratch space
    std::string assembly;  ///< where it is put together before it moves to its place
    bool top;              ///< moves to its place by itself; the others come along
};

void makeDirectory(const std::string& path)
{
    require(::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST, "mkdir " + path);
}

std::vector<std::string> resolvedAll(std::vector<std::string> paths)
{
    for (std::string& path : paths) {
        path = resolved(path);
    }
    return paths;
}

bool staysWritable(const std::string& host, fs::perms mode)
{
    return isWithin(host, "/tmp") || (mode & fs::perms::others_write) != fs::perms::none;
}

void bindEntry(const std::string& host, const std::string& target, const fs::file_status& status)
{
    if (fs::is_directory(status)) {
        makeDirectoryLike(target, host);
    } else {
        makeFile(target);
    }
    if (!bindTree(host, target)) {
        std::error_code ignored;  // the entry went away meanwhile, as entries of /tmp do
        fs::remove(target, ignored);
        return;
    }
    if (!staysWritable(host, status.permissions())) {
        makeReadOnly(target);
    }
}

/// Builds in `mirror` what an overlay over `host` would show, for where there can be no overlay:
/// the directory itself and those on the way to one of `directories` are made anew, their other
/// entries are bound from the host. Bound entries are read-only outside of /tmp and of
/// world-writable directories.
/// @param mirror       made here; a place on a private file system
/// @param directories  made as empty directories; those outside of `host` do not matter
/// @param hidden       host entries that are not shown: a directory is empty, anything else absent
void mirrorDirectory(const std::string& host, const std::string& mirror,
                     const std::vector<std::string>& directories,
                     const std::vector<std::string>& hidden);

void mirrorEntry(const std::string& host, const std::string& target,
                 const std::vector<std::string>& directories,
                 const std::vector<std::string>& hidden)
{
    std::error_code gone;
    const fs::file_status status = fs::symlink_status(host, gone);
    if (std::find(hidden.begin(), hidden.end(), host) != hidden.end()) {
        if (fs::is_directory(status)) {
            makeDirectoryLike(target, host);
        }
    } else if (fs::is_symlink(status)) {
        const fs::path goal = fs::read_symlink(host, gone);
        if (!gone) {
            fs::create_symlink(goal, target);
        }
    } else if (fs::is_directory(status) && isOnTheWay(host, directories)) {
        mirrorDirectory(host, target, directories, hidden);
    } else if (fs::exists(status)) {
        bindEntry(host, target, status);
    }
}

void mirrorDirectory(const std::string& host, const std::string& mirror,
                     const std::vector<std::string>& directories,
                     const std::vector<std::string>& hidden)
{
    makeDirectoryLike(mirror, host);
    for (const fs::directory_entry& entry : fs::directory_iterator(host)) {
        mirrorEntry(entry.path().string(), mirror + "/" + entry.path().filename().string(),
                    directories, hidden);
    }
    for (const std::string& directory : directories) {
        if (directory != host && isWithin(directory, host)) {
            fs::create_directories(mirror + directory.substr(host.size()));
        }
    }
}

/// The layer that `path` belongs to; they are ordered from the outermost inwards.
const Layer* layerOf(const std::vector<Layer>& layers, const std::string& path)
{
    const Layer* innermost = nullptr;
    for (const Layer& layer : layers) {
        if (isWithin(path, layer.host)) {
            innermost = &layer;
        }
    }
    return innermost;
}

Layer makeLayer(const std::vector<Layer>& outer, const std::string& host,
                const std::string& stageDirectory)
{
    const std::string stage = stageDirectory + "/" + std::to_string(outer.size());
    const Layer* parent = layerOf(outer, host);
    Layer layer;
    layer.host = host;
    layer.upper = stage + "/upper";
    layer.work = stage + "/work";
    layer.top = parent == nullptr;
    layer.assembly =
        layer.top ? stage + "/assembly" : parent->assembly + host.substr(parent->host.size());
    makeDirectory(stage);
    makeDirectoryLike(layer.upper, host);
    makeDirectory(layer.work);
    return layer;
}

/// The top directories, and each file system of its own on the way to a directory of the service.
std::vector<Layer> makeLayers(const std::vector<std::string>& directories,
                              const std::vector<std::string>& mounted, const std::string& stage)
{
    std::vector<Layer> layers;
    for (const std::string& top : privateTops()) {
        if (layerOf(layers, top) == nullptr) {
            layers.push_back(makeLayer(layers, top, stage));
        }
    }
    for (const std::string& point : mounted) {
        const Layer* outer = layerOf(layers, point);
        const bool onTheWay =
            std::any_of(directories.begin(), directories.end(), [&](const std::string& directory) {
                return directory != point && isWithin(directory, point);
            });
        if (outer != nullptr && outer->host != point && onTheWay) {
            layers.push_back(makeLayer(layers, point, stage));
        }
    }
    return layers;
}

/// Makes `directory` in the private layer. Without it there, a user namespace could not write into
/// a directory that belongs to the host's root, since that owner does not exist inside.
void makeInUpper(const std::vector<Layer>& layers, const std::string& directory)
{
    const Layer* layer = layerOf(layers, directory);
    if (layer == nullptr) {
        throw SetupError(directory +
                         " lies outside of the directories that a device keeps private");
    }
    for (std::size_t end = layer->host.size(); end < directory.size();) {
        end = std::min(directory.find('/', end + 1), directory.size());
        const std::string host = directory.substr(0, end);
        makeDirectoryLike(layer->upper + host.substr(layer->host.size()), host);
    }
}

bool mountOverlay(const Layer& layer)
{
    const std::string options =
        "lowerdir=" + layer.host + ",upperdir=" + layer.upper + ",workdir=" + layer.work;
    const std::string userOptions = options + ",userxattr";
    return ::mount("overlay", layer.assembly.c_str(), "overlay", 0, options.c_str()) == 0 ||
           ::mount("overlay", layer.assembly.c_str(), "overlay", 0, userOptions.c_str()) == 0;
}

/// What is mounted beneath an overlaid directory is not part of the overlay; it is put back, a file
/// (a container's resolv.conf) read-only. What cannot be put back stays empty.
void putBackMounts(const std::vector<Layer>& layers, const Layer& layer,
                   const std::vector<std::string>& hidden, const std::vector<std::string>& mounted)
{
    std::string last;
    std::error_code ignored;
    for (const std::string& point : mounted) {
        const bool cameAlong = !last.empty() && isWithin(point, last);
        if (layerOf(layers, point) != &layer || point == layer.host || isWithinAny(point, hidden) ||
            cameAlong) {
            continue;
        }
        const std::string target = layer.assembly + point.substr(layer.host.size());
        if (bindTree(point, target) && !fs::is_directory(target, ignored)) {
            makeReadOnly(target);
        }
        last = point;
    }
}

void assembleLayers(const std::vector<Layer>& layers, const std::vector<std::string>& directories,
                    const std::vector<std::string>& hidden, const std::vector<std::string>& mounted)
{
    std::vector<std::string> mirrored;
    for (const Layer& layer : layers) {
        if (isWithinAny(layer.host, mirrored)) {
            continue;  // the mirror shows it already
        }
        if (layer.top) {
            makeDirectory(layer.assembly);
        }
        if (mountOverlay(layer)) {
            putBackMounts(layers, layer, hidden, mounted);
            continue;
        }
        // An overlay on an overlay on an overlay, or a kernel that keeps overlays from users.
        const std::string mirror = layer.work + "/mirror";
        mirrorDirectory(layer.host, mirror, directories, hidden);
        require(bindTree(mirror, layer.assembly), "bind " + mirror);
        mirrored.push_back(layer.host);
    }
    for (const Layer& layer : layers) {
        if (layer.top) {
            require(
                ::mount(layer.assembly.c_str(), layer.host.c_str(), nullptr, MS_MOVE, nullptr) == 0,
                "mount " + layer.host);
        }
    }
}

}  // namespace

void mountPrivateDirectories(const std::string& workingDirectory, const std::string& stage)
{
    const std::vector<std::string> directories = resolvedAll(serviceDirectories());
    std::vector<std::string> hidden = directories;
    for (const auto& more : {hostServiceDirectories(), resolvedAll(serviceFiles())}) {
        hidden.insert(hidden.end(), more.begin(), more.end());
    }
    const std::vector<std::string> mounted = mountPoints();
    const std::vector<Layer> layers = makeLayers(directories, mounted, stage);

    for (const std::string& directory : directories) {
        makeInUpper(layers, directory);
    }
    for (const std::string& directory : scratchDirectories()) {
        makeInUpper(layers, directory);
    }
    if (layerOf(layers, workingDirectory) != nullptr) {
        makeInUpper(layers, workingDirectory);
    }
    assembleLayers(layers, directories, hidden, mounted);
}

}  // namespace quillon::device
