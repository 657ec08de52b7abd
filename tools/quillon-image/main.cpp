#include <CLI/CLI.hpp>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include "platform/verifier/image-error.h"
#include "platform/verifier/image-signature.h"
#include "tools/quillon-image/verbs.h"

using namespace quillon;

namespace {

constexpr char kExitCodes[] =
    "Exit codes: 0 done; 2 wrong command line or manifest; 3 a file cannot be read\n"
    "or written, or a program is missing or failed; 4 not a stick image, too large for\n"
    "one, or not a provisioning package; 5 signature missing or wrong; 6 key or\n"
    "certificate wrong or unusable.";

/// @param options  has to outlive the app
template <typename Options>
CLI::App* addVerb(CLI::App& app, const char* name, const char* what, Options& options,
                  void (*run)(const Options&))
{
    CLI::App* verb = app.add_subcommand(name, what);
    verb->add_flag("--json", options.json, "print the result as one JSON object");
    verb->footer(kExitCodes);
    verb->callback([&options, run] { run(options); });
    return verb;
}

void addKeygen(CLI::App& app, KeygenOptions& options)
{
    CLI::App* verb =
        addVerb(app, "keygen", "make the keys and the provisioning package of a device family",
                options, keygen);
    verb->add_option("DIR", options.directory, "directory for the keys")->required();
    verb->add_flag("--force", options.force, "replace existing keys");
}

CLI::Option* addModel(CLI::App* verb, std::string& model, const char* what,
                      const char* name = "--model")
{
    return verb->add_option(name, model, what)->check([](const std::string& text) {
        return isModelName(text) ? "" : "1 to 64 printable characters make a model";
    });
}

void addSigning(CLI::App* verb, std::string& key, bool& reproducible)
{
    verb->add_option("--sign", key, "signing key: a file, or the URI pkcs11:... of a token's key")
        ->required();
    verb->add_flag("--reproducible", reproducible, "the same input gives the same bytes");
}

void addSigners(CLI::Option_group* signers, std::string& directory, std::string& publicKey)
{
    signers->add_option("--trusted", directory, "directory with public keys, *.pem");
    signers->add_option("--public", publicKey, "public key file");
    signers->require_option(1);
}

void addBuild(CLI::App& app, BuildOptions& options)
{
    CLI::App* verb =
        addVerb(app, "build", "make an enciphered and signed stick image", options, build);
    CLI::Option* module = verb->add_option("--module", options.module,
                                           "the module's firmware name, for --stick and --model");
    verb->add_option("--version", options.version, "the payload's version")->required();
    verb->add_option("--payload", options.payload, "file with the firmware")->required();
    verb->add_option("--key", options.key, "image key file (image-key.bin)")->required();
    addSigning(verb, options.signingKey, options.reproducible);
    CLI::Option* model = addModel(verb, options.model,
                                  "the device's model: the image is valid only for this module of "
                                  "this model")
                             ->needs(module);
    model->needs(verb->add_option("--counter", options.counter,
                                  "security counter: devices with a higher floor refuse the image")
                     ->needs(model));
    CLI::Option_group* place = verb->add_option_group("place", "one of");
    place->add_option("--output", options.output, "the image file");
    place->add_option("--stick", options.stick, "directory of a stick; the image is DIR/NAME.bin")
        ->needs(module);
    place->require_option(1);
}

void addPackage(CLI::App& app, PackageOptions& options)
{
    CLI::App* verb = addVerb(app, "package", "make an extension module package", options, package);
    verb->add_option("--name", options.name, "the package's name, with \"emp\" in it")->required();
    verb->add_option("--version", options.version, "the payload's version")->required();
    verb->add_option("--payload", options.payload, "file with the firmware")->required();
    verb->add_option("--expected-time", options.expectedTime,
                     "duration of the update in seconds; default 300")
        ->check(CLI::Range(0, INT32_MAX));
    verb->add_option("--type", options.type, "its file system: squashfs (default) or ext4")
        ->check(CLI::IsMember({"squashfs", "ext4"}));
    verb->add_option("--output", options.output, "the package; default NAME.img");
}

void addProvision(CLI::App& app, ProvisionOptions& options)
{
    CLI::App* verb =
        addVerb(app, "provision", "make a signed provisioning package", options, provision);
    CLI::Option* payload =
        verb->add_option("--payload", options.payload, "file with the item (image-key.bin)");
    verb->add_option("--item", options.item, "the storage item's name; default quillon")
        ->needs(payload);
    verb->add_option("--floor", options.floors,
                     "MODULE=NUMBER: the lowest security counter of the module's images")
        ->expected(1)
        ->take_all();
    verb->add_option("--sign", options.key,
                     "provisioning key: a file, or the URI pkcs11:... of a token's key")
        ->required();
    verb->add_option("--certificate", options.certificate,
                     "file with its certificate (provisioning-certificate.pem), followed by\n"
                     "any intermediate certificates")
        ->required();
    verb->add_option("--output", options.output, "the package; default 00000066.bin");
}

void addInfo(CLI::App& app, InfoOptions& options)
{
    CLI::App* verb =
        addVerb(app, "info", "print the properties of an image or a package", options, info);
    verb->add_option("FILE", options.image, "the image or package")->required();
    verb->add_option("--key", options.key, "image key file, to print the version as well");
}

void addVerify(CLI::App& app, VerifyOptions& options)
{
    CLI::App* verb = addVerb(
        app, "verify", "check the signature of an image or provisioning package", options, verify);
    verb->add_option("FILE", options.image, "the image or provisioning package")->required();
    addModel(verb, options.model, "the device's model, as in trust.conf");
    verb->add_option("--floor", options.floor, "lowest security counter that the device accepts");
    CLI::Option_group* keys = verb->add_option_group("keys", "one of");
    addSigners(keys, options.trustedDirectory, options.publicKey);
    keys->add_option("--certificates", options.certificateDirectory,
                     "directory with certificates, *.pem; the file is a provisioning package");
    verb->add_flag("--purpose", options.wantsPurpose,
                   "require a signer's certificate for provisioning, with --certificates")
        ->needs("--certificates");
}

void addExtract(CLI::App& app, ExtractOptions& options)
{
    CLI::App* verb = addVerb(app, "extract", "decipher an image; its signature is not checked",
                             options, extract);
    verb->add_option("FILE", options.image, "the image")->required();
    verb->add_option("--key", options.key, "image key file")->required();
    verb->add_option("--output", options.output, "file for the payload")->required();
}

void addStick(CLI::App& app, StickOptions& options)
{
    CLI::App* verb = addVerb(app, "stick", "make all images of a stick", options, stick);
    verb->add_option("--manifest", options.manifest, "JSON file that lists the images")->required();
    verb->add_option("--output", options.output,
                     "the stick's directory, new or empty; default as in the manifest");
    verb->add_flag("--reproducible", options.reproducible, "the same input gives the same bytes");
}

void addResign(CLI::App& app, ResignOptions& options)
{
    CLI::App* verb =
        addVerb(app, "resign", "sign an image anew, without its image key", options, resign);
    verb->add_option("FILE", options.image, "the image")->required();
    CLI::Option_group* signers = verb->add_option_group("signer", "who signed it, one of");
    addSigners(signers, options.trustedDirectory, options.publicKey);
    signers->add_flag("--force", options.force, "do not check who signed it");
    addSigning(verb, options.signingKey, options.reproducible);
    verb->add_option("--module", options.module,
                     "the module's firmware name; default as in the image's file name");
    CLI::Option* model =
        addModel(verb, options.model, "the device's model: the new trailer has format 2");
    addModel(verb, options.oldModel, "the model in the old signature; default as --model",
             "--old-model")
        ->needs(model);
    verb->add_option("--counter", options.counter, "security counter; default as before")
        ->needs(model);
    verb->add_option("--output", options.output, "the new image; may be the old one")->required();
}

/// @param[out] status  the exit code of diff(1): 0 the same, 1 different; for trouble it throws
void addDiff(CLI::App& app, DiffOptions& options, int& status)
{
    CLI::App* verb = app.add_subcommand("diff", "say in what two images differ");
    verb->add_flag("--json", options.json, "print the result as one JSON object");
    verb->footer("Exit codes: 0 the same; 1 different; 2 trouble.");
    verb->add_option("FIRST", options.first, "an image")->required();
    verb->add_option("SECOND", options.second, "another")->required();
    verb->add_option("--key", options.keys,
                     "image key file, to compare version and payload as well; give it twice where\n"
                     "each image has its own")
        ->expected(1)
        ->take_all();
    verb->callback([&options, &status] {
        try {
            if (options.keys.size() > 2) {
                throw ImageError(ImageFault::kUsage, "--key is given twice at most");
            }
            status = diff(options) ? 0 : 1;
            if (!std::cout.flush()) {
                throw ImageError(ImageFault::kFile, "standard output cannot be written");
            }
        } catch (const std::exception& trouble) {
            throw ImageError(ImageFault::kUsage, trouble.what());
        }
    });
}

int fail(ImageFault fault, const std::string& reason)
{
    std::cerr << "quillon-image: " << reason << '\n';
    return static_cast<int>(fault);
}

int run(int argc, char** argv)
{
    KeygenOptions keygen;
    BuildOptions build;
    PackageOptions package;
    ProvisionOptions provision;
    InfoOptions info;
    VerifyOptions verify;
    ExtractOptions extract;
    StickOptions stick;
    ResignOptions resign;
    DiffOptions diff;
    int status = 0;

    CLI::App app("Makes and reads the images and packages that Quillon installs.", "quillon-image");
    app.set_version_flag("--version", "quillon-image " QUILLON_VERSION);
    app.require_subcommand(1);
    app.footer(kExitCodes);
    addKeygen(app, keygen);
    addBuild(app, build);
    addPackage(app, package);
    addProvision(app, provision);
    addInfo(app, info);
    addVerify(app, verify);
    addExtract(app, extract);
    addStick(app, stick);
    addResign(app, resign);
    addDiff(app, diff, status);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wish) {  // --help and --version
        app.exit(wish);
    } catch (const CLI::ParseError& error) {
        return fail(ImageFault::kUsage, std::string(error.what()) + " (see --help)");
    }
    if (!std::cout.flush()) {
        return fail(ImageFault::kFile, "standard output cannot be written");
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const ImageError& error) {
        return fail(error.fault(), error.what());
    } catch (const std::exception& error) {
        return fail(ImageFault::kFile, error.what());
    }
}
