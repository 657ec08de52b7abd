#include "platform/storage/maker-certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <iterator>
#include <system_error>

#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/public-key.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestFile = 65536;

}  // namespace

Certificates loadCertificateFile(const std::string& path)
{
    const std::string text = readSmallFile(path, kLargestFile);
    const UniqueBio source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    Certificates certificates;
    ERR_clear_error();
    while (source) {
        UniqueCertificate next(
            PEM_read_bio_X509(source.get(), nullptr, &refusePassPhrase, nullptr));
        if (!next) {
            break;
        }
        certificates.push_back(std::move(next));
    }
    const bool atTheEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    if (certificates.empty() || !atTheEnd) {
        throw ImageError(ImageFault::kKey, path + ": not certificates in PEM form");
    }
    return certificates;
}

Certificates loadCertificates(const std::string& directory, const Complain& complain)
{
    std::error_code problem;
    const std::vector<std::string> paths = pemFilesIn(directory, problem);
    if (problem && problem != std::errc::no_such_file_or_directory) {
        throw ImageError(ImageFault::kFile, directory + ": cannot be read: " + problem.message());
    }
    Certificates all;
    for (const std::string& path : paths) {
        try {
            Certificates some = loadCertificateFile(path);
            std::move(some.begin(), some.end(), std::back_inserter(all));
        } catch (const ImageError& error) {
            complain(std::string("certificate passed over: ") + error.what());
        }
    }
    return all;
}

}  // namespace quillon
