// Keys of tokens that OpenSSL opens as a store, which a PKCS#11 provider brings.

#define OPENSSL_SUPPRESS_DEPRECATED  // a loader without a provider around it

#include <openssl/store.h>

#include "platform/verifier/public-key.h"
#include "tools/quillon-image/token-key.h"
#include "unit/tools/image-files.h"

/// The store of this test. It holds something else, and then a key.
struct ossl_store_loader_ctx_st
{
    std::string uri;
    int loaded = 0;
};

namespace quillon::test {
namespace {

OSSL_STORE_LOADER_CTX* openStore(const OSSL_STORE_LOADER* /*loader*/, const char* uri,
                                 const UI_METHOD* /*ui*/, void* /*data*/)
{
    return new ossl_store_loader_ctx_st{uri, 0};
}

OSSL_STORE_INFO* loadFromStore(OSSL_STORE_LOADER_CTX* store, const UI_METHOD* /*ui*/,
                               void* /*data*/)
{
    if (store->loaded++ == 0) {
        return OSSL_STORE_INFO_new_NAME(OPENSSL_strdup("something else"));
    }
    return store->uri.find("object=missing") != std::string::npos
               ? nullptr
               : OSSL_STORE_INFO_new_PKEY(loadSigningKey(keyPath("a", kSigningKeyFile)).release());
}

int isAtEnd(OSSL_STORE_LOADER_CTX* store)
{
    return store->loaded >= 2 ? 1 : 0;
}

int isBroken(OSSL_STORE_LOADER_CTX* /*store*/)
{
    return 0;
}

int closeStore(OSSL_STORE_LOADER_CTX* store)
{
    delete store;
    return 1;
}

class TokenStore : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        OSSL_STORE_LOADER* loader = OSSL_STORE_LOADER_new(nullptr, "pkcs11");
        ASSERT_NE(loader, nullptr);
        OSSL_STORE_LOADER_set_open(loader, &openStore);
        OSSL_STORE_LOADER_set_load(loader, &loadFromStore);
        OSSL_STORE_LOADER_set_eof(loader, &isAtEnd);
        OSSL_STORE_LOADER_set_error(loader, &isBroken);
        OSSL_STORE_LOADER_set_close(loader, &closeStore);
        ASSERT_EQ(OSSL_STORE_register_loader(loader), 1);
    }

    void TearDown() override
    {
        OSSL_STORE_LOADER_free(OSSL_STORE_unregister_loader("pkcs11"));
        ImageFiles::TearDown();
    }
};

TEST_F(TokenStore, GivesTheKeyThatItHolds)
{
    EXPECT_EQ(keyIdOf(loadSigningKey("pkcs11:object=signing").get()),
              keyIdOf(loadPublicKey(keyPath("a", kPublicKeyFile)).get()));
}

TEST_F(TokenStore, WithoutTheKeyIsRefusedUnderTheUrisNameWithoutThePin)
{
    std::string line;
    EXPECT_EQ(faultOf([] { openTokenKey("pkcs11:object=missing?pin-value=1"); }, &line),
              ImageFault::kKey);
    EXPECT_EQ(line.find("pkcs11:object=missing: the token's key cannot be opened: "), 0U) << line;
}

TEST(TokenKeyName, TellsTokensFromFiles)
{
    EXPECT_TRUE(isTokenKey("pkcs11:object=x"));
    EXPECT_FALSE(isTokenKey("./pkcs11:object=x"));
    EXPECT_FALSE(isTokenKey("keys/signing-key.pem"));
    EXPECT_EQ(tokenKeyName("pkcs11:token=a;object=b?pin-value=1&x=?"), "pkcs11:token=a;object=b");
    EXPECT_EQ(tokenKeyName("pkcs11:token=a"), "pkcs11:token=a");
}

}  // namespace
}  // namespace quillon::test
