#pragma once

#include <string>
#include <vector>

namespace quillon::device {

/// The directories that the service works in: present and empty when a device starts.
/// Absolute, without a trailing "/".
std::vector<std::string> serviceDirectories();

/// The files and markers of the service: absent when a device starts.
std::vector<std::string> serviceFiles();

/// The host's directories that reach into its running system (journal, bus, locks): empty inside a
/// private device, and only where the host has them.
std::vector<std::string> hostServiceDirectories();

/// The host's top directories whose every change stays inside a private device. Only those that
/// exist, symbolic links resolved; the last one may lie in another, where /lib is a link to
/// usr/lib.
std::vector<std::string> privateTops();

/// Directories that programs expect to write in, beneath privateTops(); existing ones.
std::vector<std::string> scratchDirectories();

/// The key that systemd-creds seals with. The host's is none of a private device's business, and an
/// ordinary user could not read it: systemd-creds makes a new one.
constexpr char kHostSealingKey[] = "/var/lib/systemd/credential.secret";

/// True when `directory` lies in a directory that a device has made anew, so that it is not there
/// inside.
bool staysOutside(const std::string& directory);

/// True when `path` is `directory` or lies beneath it. Compares names; reads no file system.
bool isWithin(const std::string& path, const std::string& directory);

/// True when `path` is one of `directories` or lies beneath one.
bool isWithinAny(const std::string& path, const std::vector<std::string>& directories);

/// True when `directory` is one of `paths` or leads to one.
bool isOnTheWay(const std::string& directory, const std::vector<std::string>& paths);

/// `path` with the symbolic links of its existing part resolved; the missing rest is kept as it is.
std::string resolved(const std::string& path);

}  // namespace quillon::device
