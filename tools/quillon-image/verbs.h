#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quillon {

// One function a verb. Each says on standard output what it did, as text or as one JSON object, and
// throws ImageError when it could not. Texts left out on the command line are empty.

struct KeygenOptions
{
    std::string directory;
    bool force = false;
    bool json = false;
};

struct BuildOptions
{
    std::string module;
    std::string version;
    std::string payload;
    std::string key;
    std::string signingKey;
    std::string output;         ///< the image, or empty when stick is given
    std::string stick;          ///< the stick's directory, or empty when output is given
    std::string model;          ///< of the device, for a trailer of format 2; empty: format 1
    std::uint32_t counter = 0;  ///< security counter, with model
    bool reproducible = false;
    bool json = false;
};

struct StickOptions
{
    std::string manifest;
    std::string output;  ///< empty: the manifest names it
    bool reproducible = false;
    bool json = false;
};

struct ResignOptions
{
    std::string image;
    // One of these is given.
    std::string trustedDirectory;  ///< of public keys, one of which signed the image
    std::string publicKey;         ///< of who signed the image
    bool force = false;            ///< the image's signature does not matter

    std::string signingKey;
    std::string output;
    std::string module;                    ///< empty: as the file's name says
    std::string model;                     ///< for a trailer of format 2; empty: format 1
    std::string oldModel;                  ///< for which the image was signed; empty: model
    std::optional<std::uint32_t> counter;  ///< without: the image's own
    bool reproducible = false;
    bool json = false;
};

struct PackageOptions
{
    std::string name;
    std::string version;
    std::string payload;
    std::string output;             ///< empty: NAME.img in the working directory
    std::string type = "squashfs";  ///< or "ext4"
    std::uint32_t expectedTime = 300;
    bool json = false;
};

struct ProvisionOptions
{
    std::string item = "quillon";
    std::string payload;              ///< empty: floors alone
    std::vector<std::string> floors;  ///< each MODULE=NUMBER
    std::string key;
    std::string certificate;
    std::string output = "00000066.bin";
    bool json = false;
};

struct InfoOptions
{
    std::string image;
    std::string key;  ///< empty: the version is not told
    bool json = false;
};

struct VerifyOptions
{
    std::string image;
    // One of these is given.
    std::string trustedDirectory;      ///< of public keys, for a stick image
    std::string publicKey;             ///< for a stick image
    std::string certificateDirectory;  ///< for a provisioning package
    bool wantsPurpose = false;         ///< of the signer's certificate, for a provisioning package
    std::string model;                 ///< of the device, for a trailer of format 2
    std::uint32_t floor = 0;           ///< least security counter of a stick image
    bool json = false;
};

struct ExtractOptions
{
    std::string image;
    std::string key;
    std::string output;
    bool json = false;
};

struct DiffOptions
{
    std::string first;
    std::string second;
    std::vector<std::string> keys;  ///< of none, both, or each
    bool json = false;
};

void keygen(const KeygenOptions& options);
void build(const BuildOptions& options);
void package(const PackageOptions& options);
void provision(const ProvisionOptions& options);
void info(const InfoOptions& options);
void verify(const VerifyOptions& options);
void extract(const ExtractOptions& options);
void stick(const StickOptions& options);
void resign(const ResignOptions& options);

/// @return whether the two images are the same.
bool diff(const DiffOptions& options);

}  // namespace quillon
