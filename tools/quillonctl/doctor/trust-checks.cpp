#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <system_error>

#include "base/fd.h"
#include "base/replace-file.h"
#include "helpers/lifecycle/trusted-places.h"
#include "platform/storage/maker-certificates.h"
#include "platform/verifier/public-key.h"
#include "platform/verifier/trust-policy.h"
#include "src/support/paths.h"
#include "tools/quillonctl/doctor/checks.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/services-user.h"

namespace quillon::doctor {

namespace {

constexpr int kLoadMilliseconds = 10000;
constexpr mode_t kGroupAndOthers = 0077;

/// Loads the verifier in a child, since it may crash, and says why it cannot be used.
[[noreturn]] void tryVerifier(int answer)
{
    prctl(PR_SET_DUMPABLE, 0);  // no core file
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);  // what it says itself would be taken for a finding
    dup2(nowhere, STDERR_FILENO);
    std::string text;
    void* library = dlopen(paths::kVerifierLibrary, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* error = dlerror();
        text = error != nullptr ? error : "it raises an exception when it is loaded";
    } else if (dlsym(library, "verifyFile") == nullptr) {
        text = "it has no entry verifyFile";
    }
    text.insert(0, 1, '.');  // it has come to its end
    static_cast<void>(writeAll(answer, text.data(), text.size()));
    endAtOnce(0);
}

/// @return why the verifier cannot be used; empty when it can
std::string faultOfVerifier()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return std::strerror(errno);
    }
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        tryVerifier(writer.get());
    }
    if (child < 0) {
        return std::strerror(errno);
    }
    writer.reset();
    pollfd waiting = {reader.get(), POLLIN, 0};
    const int ready = uninterrupted([&] { return poll(&waiting, 1, kLoadMilliseconds); });
    char text[512] = {};
    const ssize_t size = ready > 0 ? read(reader.get(), text, sizeof text - 1) : 0;
    kill(child, SIGKILL);
    uninterrupted([&] { return waitpid(child, nullptr, 0); });
    if (ready <= 0) {
        return "it does not come back when it is loaded";
    }
    return size > 0 ? text + 1 : "it ends the process when it is loaded";
}

/// What is wrong with the files *.pem of a directory.
/// @param what  the files are
/// @param load  throws ImageError for a file that is of no use
/// @param[out] usable  how many are of use, at least one where this user may not look
Findings faultsOfFiles(const Surroundings& around, const char* directory, const char* what,
                       const char* code, const std::function<void(const std::string&)>& load,
                       int& usable)
{
    std::error_code trouble;
    const std::vector<std::string> files = pemFilesIn(directory, trouble);
    if (trouble == std::errc::permission_denied) {
        usable = 1;
        return {notChecked(std::string("the ") + what + " in " + directory)};
    }
    usable = 0;
    Findings findings;
    for (const std::string& path : files) {
        struct stat status = {};
        const bool isThere = stat(path.c_str(), &status) == 0;
        try {
            if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
                findings.push_back(notChecked(path));
                ++usable;
                continue;
            }
            load(path);
            ++usable;
        } catch (const ImageError& failure) {
            findings.push_back({Severity::kWarning, code, failure.what(),
                                "replace the file by a sound one, or remove it"});
            continue;
        }
        if (isThere && !mayServiceUse(around, status, R_OK)) {
            --usable;
            findings.push_back({Severity::kWarning, code,
                                path + ": " + nameOfUser(around.servicesUser) + " cannot read it",
                                "chmod 644 " + unit::quoted(path)});
        }
    }
    return findings;
}

/// @return nothing when this user may not look
std::optional<bool> isKeyStored(Findings& findings)
{
    const std::string directory = QUILLON_SECURE_STORAGE "/";
    bool isStored = false;
    for (const std::string& path : {directory + "quillon.cred", directory + "quillon"}) {
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0) {
            if (errno == EACCES) {
                return std::nullopt;
            }
            continue;
        }
        isStored = true;
        if (!S_ISREG(status.st_mode) || (status.st_mode & kGroupAndOthers) != 0) {
            findings.push_back(
                error("image-key-exposed",
                      path + " is no file, or open to group or others, and is not read",
                      "chmod 600 " + path + " if it is a file, else remove it"));
        }
    }
    return isStored;
}

/// How the device gets its key at the next start if it has none.
Findings faultsOfProvisioning(const Surroundings& around)
{
    struct stat package = {};
    if (stat(paths::kProvisioningPackage, &package) != 0) {
        return {error("image-key-missing",
                      std::string("the device has no image key, and no provisioning package ") +
                          paths::kProvisioningPackage + " brings one: nothing can be updated",
                      "put the maker's package there and run: " + restartService())};
    }
    if (!S_ISREG(package.st_mode) || !mayServiceUse(around, package, R_OK)) {
        return {error("provisioning-unreadable",
                      std::string("the device has no image key, and ") +
                          nameOfUser(around.servicesUser) + " cannot read " +
                          paths::kProvisioningPackage,
                      std::string("chgrp quillon ") + paths::kProvisioningPackage +
                          " && chmod 640 " + paths::kProvisioningPackage)};
    }
    std::error_code failure;
    if (pemFilesIn(QUILLON_PROVISIONING_CERTIFICATES, failure).empty() && !failure) {
        return {error("certificates-none",
                      "the device has no image key, and without a certificate *.pem in "
                      "" QUILLON_PROVISIONING_CERTIFICATES " it accepts no provisioning package",
                      "install the maker's certificate there and run: " + restartService())};
    }
    return {warning("image-key-not-installed",
                    "the image key has not been installed from its package yet", restartService())};
}

}  // namespace

Findings checkVerifier(const Surroundings& /*around*/)
{
    struct stat status = {};
    const std::string remedy =
        "install quillon-platform-linux again, or the device's own verifier, and run: " +
        restartService();
    if (stat(paths::kVerifierLibrary, &status) != 0) {
        return {error("verifier-missing",
                      std::string("without the verifier ") + paths::kVerifierLibrary +
                          " every image counts as signed",
                      remedy)};
    }
    // Whoever can change it, or a directory of its path, could run code in our name.
    if (!unit::inspectPlaces({paths::kVerifierLibrary}).empty()) {
        return {};
    }
    const std::string fault = faultOfVerifier();
    if (fault.empty()) {
        return {};
    }
    return {
        error("verifier-unusable",
              "the verifier cannot be used, and without it every image counts as signed: " + fault,
              remedy)};
}

Findings checkTrustedPlaces(const Surroundings& /*around*/)
{
    Findings findings;
    for (const unit::PlaceFault& fault : unit::inspectPlaces(unit::trustedPlaces())) {
        findings.push_back(fault.isHidden ? notChecked(fault.text)
                                          : error("trusted-place-open", fault.text, fault.remedy));
    }
    return findings;
}

Findings checkKeys(const Surroundings& around)
{
    int usable = 0;
    Findings findings = faultsOfFiles(
        around, QUILLON_TRUSTED_KEYS, "keys", "key-unusable",
        [](const std::string& path) { static_cast<void>(loadPublicKey(path)); }, usable);
    if (usable == 0) {
        findings.push_back(error("keys-none",
                                 "there is no usable key *.pem in " QUILLON_TRUSTED_KEYS
                                 ": no image is installed",
                                 "install the maker's public key there"));
    }
    return findings;
}

Findings checkCertificates(const Surroundings& around)
{
    int usable = 0;
    Findings expired;
    const auto load = [&](const std::string& path) {
        for (const UniqueCertificate& certificate : loadCertificateFile(path)) {
            std::time_t now = around.now;
            if (X509_cmp_time(X509_get0_notAfter(certificate.get()), &now) < 0) {
                expired.push_back(
                    note("certificate-expired",
                         path + " has expired; the device accepts packages all the same",
                         "replace it at the maker's next release"));
            }
        }
    };
    Findings findings = faultsOfFiles(around, QUILLON_PROVISIONING_CERTIFICATES, "certificates",
                                      "certificate-unusable", load, usable);
    append(findings, expired);
    return findings;
}

Findings checkPolicy(const Surroundings& around)
{
    Findings findings;
    const auto check = [&](const char* path, const std::function<void()>& load) {
        struct stat status = {};
        if (stat(path, &status) != 0) {
            if (errno == EACCES) {
                findings.push_back(notChecked(path));
            }
            return;
        }
        try {
            if (!mayServiceUse(around, status, R_OK)) {
                findings.push_back(error("policy-broken",
                                         std::string(path) + ": " +
                                             nameOfUser(around.servicesUser) +
                                             " cannot read it, so no image is trusted",
                                         std::string("chmod 644 ") + path));
            } else if (access(path, R_OK) != 0 && errno == EACCES) {
                findings.push_back(notChecked(path));
            } else {
                load();
            }
        } catch (const ImageError& failure) {
            findings.push_back(error("policy-broken",
                                     std::string("no image is trusted: ") + failure.what(),
                                     std::string("correct or remove ") + path));
        }
    };
    check(QUILLON_TRUST_POLICY, [] { static_cast<void>(loadTrustPolicy(QUILLON_TRUST_POLICY)); });
    check(QUILLON_SECURITY_FLOORS, [] { static_cast<void>(loadFloors(QUILLON_SECURITY_FLOORS)); });
    return findings;
}

Findings checkImageKey(const Surroundings& around)
{
    Findings findings;
    const std::optional<RecordedRun>& start = around.start;
    const bool isOfService = start && around.service && start->service == *around.service;
    if (isOfService && start->hasKey == false) {
        findings.push_back(error("service-without-key",
                                 "the running service has no image key, so it refuses every image",
                                 "see to the image key, then run: " + restartService()));
    }
    if (!kHasStockPlatform) {
        return findings;
    }
    const std::optional<bool> isStored = isKeyStored(findings);
    if (!isStored) {
        if (!isOfService || !start->hasKey) {
            findings.push_back(notChecked("the image key"));
        }
        return findings;
    }
    if (!*isStored) {
        append(findings, faultsOfProvisioning(around));
    }
    return findings;
}

Findings checkProvisioningPackage(const Surroundings& /*around*/)
{
    struct stat status = {};
    if (stat(paths::kProvisioningPackage, &status) != 0 || (status.st_mode & S_IROTH) == 0) {
        return {};
    }
    return {warning("provisioning-exposed",
                    std::string(paths::kProvisioningPackage) +
                        " holds the image key, and every user can read it",
                    std::string("chmod o-r ") + paths::kProvisioningPackage +
                        ", or remove it once the key is installed")};
}

}  // namespace quillon::doctor
