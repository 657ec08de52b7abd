// Engines are deprecated, but the only way to a token where OpenSSL has no PKCS#11 provider.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "tools/quillon-image/token-key.h"

#include <openssl/err.h>
#include <openssl/opensslconf.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/ui.h>
#ifndef OPENSSL_NO_ENGINE
#include <openssl/engine.h>
#endif

#include <algorithm>
#include <string_view>

#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"

namespace quillon {
namespace {

constexpr char kScheme[] = "pkcs11:";
constexpr std::string_view kPinSource = "pin-source=";
constexpr std::string_view kFileScheme = "file:";
constexpr std::size_t kLargestPin = 1024;

using UniqueStore = std::unique_ptr<OSSL_STORE_CTX, ReleaseWith<&OSSL_STORE_close>>;
using UniqueStoreInfo = std::unique_ptr<OSSL_STORE_INFO, ReleaseWith<&OSSL_STORE_INFO_free>>;

/// @return a private key; null when the store holds none that can be opened.
UniqueKey firstKeyIn(OSSL_STORE_CTX* store)
{
    OSSL_STORE_expect(store, OSSL_STORE_INFO_PKEY);
    while (OSSL_STORE_eof(store) == 0) {
        const UniqueStoreInfo info(OSSL_STORE_load(store));
        if (info && OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY) {
            return UniqueKey(OSSL_STORE_INFO_get1_PKEY(info.get()));
        }
        if (!info && OSSL_STORE_error(store) != 0) {
            break;
        }
    }
    return nullptr;
}

/// Puts the PIN itself in place of the file that has it. The engine would take the file's last line
/// end for a part of the PIN.
std::string withPin(const std::string& uri)
{
    const std::size_t attributes = tokenKeyName(uri).size();
    const std::size_t start = uri.find(kPinSource, attributes);
    if (start == std::string::npos) {
        return uri;
    }
    const std::size_t end = std::min(uri.find('&', start), uri.size());
    std::string path = uri.substr(start + kPinSource.size(), end - start - kPinSource.size());
    if (path.rfind(kFileScheme, 0) == 0) {
        path.erase(0, kFileScheme.size());
    }
    const std::string text = readSmallFile(path, kLargestPin);
    const std::string pin = text.substr(0, text.find_last_not_of("\r\n") + 1);
    const std::string digits =
        hexText(reinterpret_cast<const unsigned char*>(pin.data()), pin.size());
    std::string value = "pin-value=";
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        value += "%" + digits.substr(i, 2);
    }
    return uri.substr(0, start) + value + uri.substr(end);
}

#ifndef OPENSSL_NO_ENGINE
using UniqueEngine = std::unique_ptr<ENGINE, ReleaseWith<&ENGINE_free>>;

/// @param[out] found  whether there is an engine
UniqueKey keyOfEngine(const std::string& uri, bool& found)
{
    ENGINE_load_builtin_engines();
    const UniqueEngine engine(ENGINE_by_id("pkcs11"));
    found = engine != nullptr;
    // Quiet: its own lines would show the PIN.
    if (!found || ENGINE_ctrl_cmd_string(engine.get(), "QUIET", nullptr, 1) != 1 ||
        ENGINE_init(engine.get()) != 1) {
        return nullptr;
    }
    UniqueKey key(ENGINE_load_private_key(engine.get(), uri.c_str(),
                                          const_cast<UI_METHOD*>(UI_null()), nullptr));
    ENGINE_finish(engine.get());  // the key keeps the engine for itself
    return key;
}
#else
UniqueKey keyOfEngine(const std::string& /*uri*/, bool& found)
{
    found = false;
    return nullptr;
}
#endif

}  // namespace

bool isTokenKey(const std::string& text)
{
    return text.rfind(kScheme, 0) == 0;
}

std::string tokenKeyName(const std::string& uri)
{
    return uri.substr(0, uri.find('?'));
}

UniqueKey openTokenKey(const std::string& uri)
{
    const std::string address = withPin(uri);
    // Stays loaded, as the key needs it. OpenSSL loads it by itself where its configuration says
    // so.
    static_cast<void>(OSSL_PROVIDER_try_load(nullptr, "pkcs11", 1));
    const UniqueStore store(OSSL_STORE_open(address.c_str(), UI_null(), nullptr, nullptr, nullptr));
    bool found = store != nullptr;
    UniqueKey key = store ? firstKeyIn(store.get()) : keyOfEngine(address, found);
    ERR_clear_error();
    if (!found) {
        throw ImageError(ImageFault::kKey, tokenKeyName(uri) +
                                               ": OpenSSL cannot reach tokens: install the package "
                                               "pkcs11-provider or libengine-pkcs11-openssl");
    }
    if (!key) {
        throw ImageError(ImageFault::kKey,
                         tokenKeyName(uri) +
                             ": the token's key cannot be opened: check the URI, the PIN (add "
                             "?pin-source=file:/PATH) and the token's PKCS#11 module "
                             "(PKCS11_MODULE_PATH)");
    }
    return key;
}

}  // namespace quillon
