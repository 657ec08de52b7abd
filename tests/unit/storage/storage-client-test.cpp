// The platform's storage calls through the helper, where one listens.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "base/secret-bytes.h"
#include "helpers/storage/serve-client.h"
#include "item-directory.h"
#include "listener.h"
#include "makers.h"
#include "platform/protocols/storage-protocol.h"
#include "platform/secure-storage.h"
#include "support/texts.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr char kPackage[] = "/tmp/quillon-package.bin";
constexpr char kCertificates[] = "/etc/quillon/provisioning-certificates";

/// A helper that answers everything with the same packet and notes what it was asked.
class AnsweringHelper
{
public:
    explicit AnsweringHelper(const SecretBytes& answer)
        : listener_([this, answer](int connection) {
              SecretBytes packet(storage::kLargestRequest);
              const ssize_t size = recv(connection, packet.data(), packet.size(), 0);
              packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
              asked = packet;
              if (!answer.empty()) {
                  ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
              }
          })
    {
    }

    SecretBytes asked;

private:
    Listener listener_;
};

class StorageClient : public ItemDirectory
{
protected:
    void SetUp() override
    {
        ItemDirectory::SetUp();
        unlink(QUILLON_STORAGE_SOCKET);
        ss_init_credential(&credential, 0, 0, 0, 0, 0, 1, 0);
    }

    void TearDown() override
    {
        unlink(QUILLON_STORAGE_SOCKET);
        fs::remove(kPackage);
        fs::remove_all(kCertificates);
        ItemDirectory::TearDown();
    }

    /// @return the item, or the result of a failure
    std::string read(const char* item)
    {
        unsigned char* data = nullptr;
        size_t size = 0;
        captured.clear();
        const int result = ss_read(&data, &size, 0, 0, item, &credential, 33);
        if (result != 0) {
            EXPECT_EQ(data, nullptr);
            return "result " + std::to_string(result);
        }
        std::string text(reinterpret_cast<char*>(data), size);
        ss_free_buffer(data);
        return text;
    }

    int install(const std::string& bytes)
    {
        writeFile(kPackage, bytes);
        captured.clear();
        return sdp_install_from_file(kPackage, 2, 0);
    }

    static void serve(int connection) { storage::serveClient(connection, {}); }

    ss_credential credential = {};
};

TEST_F(StorageClient, ReadsWhatTheHelperGives)
{
    const std::string key("\0\x01key", 5);
    AnsweringHelper helper(storage::encodeAnswer(0, {key.begin(), key.end()}));
    EXPECT_EQ(read("quillon"), key);
    EXPECT_EQ(helper.asked, storage::encodeRead("quillon"));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(StorageClient, InstallsByHandingThePackageOver)
{
    AnsweringHelper helper(storage::encodeAnswer(2, {}));
    EXPECT_EQ(install("a package"), 2);
    const std::string package = "a package";
    EXPECT_EQ(helper.asked, storage::encodeInstall({package.begin(), package.end()}));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(StorageClient, SaysNothingAboutAMissingItem)
{
    const AnsweringHelper helper(storage::encodeAnswer(5, {}));
    EXPECT_EQ(read("quillon"), "result 5");
    EXPECT_EQ(captured.text(), "");
}

TEST_F(StorageClient, HandsFailuresOnWithOneLine)
{
    const AnsweringHelper helper(storage::encodeAnswer(4, {}));
    EXPECT_EQ(read("quillon"), "result 4");
    expectTexts(captured.lines(), {like("*quillon: the storage helper answers 4, *")});
    EXPECT_EQ(install("a package"), 4);
    expectTexts(captured.lines(), {like("*the storage helper answers 4, *")});
}

TEST_F(StorageClient, FailsWhenTheHelperDoesNotAnswer)
{
    const AnsweringHelper helper({});
    makeDirectory();
    writeFile(pathOf("quillon"), "key");
    EXPECT_EQ(read("quillon"), "result 2");
    expectTexts(captured.lines(), {like("*no answer from the storage helper at " +
                                        std::string(QUILLON_STORAGE_SOCKET) + "*")});
    EXPECT_EQ(install("a package"), 8);
    EXPECT_EQ(captured.lines().size(), 1U);
}

TEST_F(StorageClient, TakesNoAnswerThatIsNone)
{
    const SecretBytes key(32, 'k');
    for (const SecretBytes& answer :
         {SecretBytes(3, 'x'), SecretBytes(100000, 0), storage::encodeAnswer(0, {}),
          storage::encodeAnswer(-1, {}), storage::encodeAnswer(5, key)}) {
        const AnsweringHelper helper(answer);
        EXPECT_EQ(read("quillon"), "result 2");
        expectTexts(captured.lines(), {like("*Protocol error*")});
    }
    const AnsweringHelper helper(storage::encodeAnswer(0, key));
    EXPECT_EQ(install("a package"), 8);
}

TEST_F(StorageClient, WorksByItselfWhereNobodyListens)
{
    makeDirectory();
    writeFile(pathOf("quillon"), "key");
    EXPECT_EQ(read("quillon"), "key");
    leaveStaleSocket();
    EXPECT_EQ(read("quillon"), "key");
    EXPECT_EQ(captured.text(), "");
}

TEST_F(StorageClient, DoesNotTroubleTheHelperWithWhatCannotBe)
{
    AnsweringHelper helper(storage::encodeAnswer(5, {}));
    EXPECT_EQ(read("../quillon"), "result 1");
    EXPECT_EQ(read(std::string(500, 'x').c_str()), "result 1");
    fs::create_directories(kCertificates);
    writeFile(std::string(kCertificates) + "/maker.pem", pemOf(makeMaker()));
    EXPECT_EQ(install(""), 4);
    EXPECT_EQ(install(std::string(200000, 'x')), 4);
    EXPECT_TRUE(helper.asked.empty());
}

TEST_F(StorageClient, InstallsAndReadsThroughTheRealHelpersHands)
{
    const Maker maker = makeMaker();
    fs::create_directories(kCertificates);
    writeFile(std::string(kCertificates) + "/maker.pem", pemOf(maker));
    const std::string largest(65536, 'k');
    const Listener listener(&serve);
    EXPECT_EQ(read("quillon"), "result 5");
    EXPECT_EQ(install(packageBy(maker, "quillon", largest)), 0);
    EXPECT_EQ(read("quillon"), largest);
    EXPECT_EQ(install(packageBy(maker, "quillon", largest)), 2);
    EXPECT_EQ(install(packageBy(makeMaker(), "quillon", "another key")), 5);
    EXPECT_EQ(read("quillon"), largest);
}

}  // namespace
}  // namespace quillon::test
