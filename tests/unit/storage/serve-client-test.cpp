// What the storage helper does for whom.

#include "helpers/storage/serve-client.h"
#include "base/fd.h"
#include "base/secret-bytes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "helpers/shared/failure.h"
#include "item-directory.h"
#include "makers.h"
#include "platform/protocols/storage-protocol.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

using storage::Kind;

constexpr char kCertificates[] = "/etc/quillon/provisioning-certificates";
constexpr uid_t kNobody = 65534;

class ServeClient : public ItemDirectory
{
protected:
    ServeClient() { connect(); }

    void TearDown() override
    {
        fs::remove_all(kCertificates);
        ItemDirectory::TearDown();
    }

    void connect()
    {
        int pair[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        client = UniqueFd(pair[0]);
        served = UniqueFd(pair[1]);
    }

    void send(const SecretBytes& packet) const
    {
        EXPECT_EQ(::send(client.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
    }

    /// @return the packet that is there by now; an empty one when there is none
    SecretBytes received() const
    {
        SecretBytes packet(storage::kLargestAnswer + 1);
        const ssize_t size = recv(client.get(), packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return packet;
    }

    /// Sends a request and has it served.
    /// @return the answer's result, -1 when there is none
    int resultOf(const SecretBytes& request, const Callers& callers = {})
    {
        captured.clear();
        send(request);
        storage::serveClient(served.get(), callers);
        answer = received();
        const auto parsed = storage::parseAnswer(static_cast<Kind>(request[4]), answer);
        return parsed ? parsed->result : -1;
    }

    static std::string storedIn(const SecretBytes& answer)
    {
        return {answer.begin() + sizeof(storage::AnswerHead), answer.end()};
    }

    /// The same work by a process of another user. @return its exit status
    template <typename Work>
    static int asNobody(Work work)
    {
        return inChildAs(kNobody, kNobody, {}, work);
    }

    static bool canBeNobody()
    {
        return asNobody([] { return 0; }) == 0;
    }

    UniqueFd client;
    UniqueFd served;
    SecretBytes answer;
};

TEST_F(ServeClient, ReadsAnItemForRoot)
{
    makeDirectory();
    writeFile(pathOf("quillon"), "key");
    EXPECT_EQ(resultOf(storage::encodeRead("quillon")), 0);
    EXPECT_EQ(storedIn(answer), "key");
    expectTexts(captured.lines(), {like("*asked for quillon: 0*")});
}

TEST_F(ServeClient, HandsOnWhyThereIsNoItem)
{
    makeDirectory();
    EXPECT_EQ(resultOf(storage::encodeRead("quillon")), 5);
    writeFile(pathOf("quillon"), "key", 0644);
    EXPECT_EQ(resultOf(storage::encodeRead("quillon")), 4);
    EXPECT_EQ(resultOf(storage::encodeRead("../quillon")), 1);
    EXPECT_EQ(resultOf(storage::encodeRead("/etc/passwd")), 1);
}

TEST_F(ServeClient, InstallsWhatAMakerHasSigned)
{
    const Maker maker = makeMaker();
    fs::create_directories(kCertificates);
    writeFile(std::string(kCertificates) + "/maker.pem", pemOf(maker));
    const std::string package = packageBy(maker, "quillon", "key");
    const SecretBytes request = storage::encodeInstall({package.begin(), package.end()});
    EXPECT_EQ(resultOf(request), 0);
    EXPECT_EQ(readAll(pathOf("quillon")), "key");
    EXPECT_EQ(resultOf(request), 2);
}

TEST_F(ServeClient, StoresNothingThatNobodyTrustedHasSigned)
{
    const Maker maker = makeMaker();
    const Maker stranger = makeMaker();
    fs::create_directories(kCertificates);
    writeFile(std::string(kCertificates) + "/maker.pem", pemOf(maker));
    const std::string package = packageBy(stranger, "quillon", "key");
    EXPECT_EQ(resultOf(storage::encodeInstall({package.begin(), package.end()})), 5);
    expectTexts(captured.lines(), {like("*the package of process *not signed by anyone trusted*")});
    const std::string bare = contentFor("quillon", "key");
    EXPECT_EQ(resultOf(storage::encodeInstall({bare.begin(), bare.end()})), 4);
    expectTexts(namesInDirectory(), {});
}

TEST_F(ServeClient, AnswersNobodyWhoSendsSomethingElse)
{
    makeDirectory();
    writeFile(pathOf("quillon"), "key");
    SecretBytes other = storage::encodeRead("quillon");
    other.push_back('x');
    EXPECT_EQ(resultOf(other), -1);
    EXPECT_EQ(resultOf(SecretBytes(8, 'x')), -1);
    EXPECT_EQ(resultOf(SecretBytes(storage::kLargestRequest + 1, 1)), -1);
    expectTexts(captured.lines(), {like("*sent no request*")});
    EXPECT_TRUE(answer.empty());
}

TEST_F(ServeClient, DoesNotWaitForASilentOne)
{
    captured.clear();
    storage::serveClient(served.get(), {});
    expectTexts(captured.lines(), {like("*asked nothing*")});
    client = UniqueFd();
    captured.clear();
    storage::serveClient(served.get(), {});
    expectTexts(captured.lines(), {like("*sent no request*")});
}

TEST_F(ServeClient, TakesOnlyAClientsConnection)
{
    int pair[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd stream(pair[0]);
    const UniqueFd otherEnd(pair[1]);
    const UniqueFd file(open("/dev/null", O_RDWR | O_CLOEXEC));
    const UniqueFd datagrams(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const UniqueFd listening(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    // Without a name the kernel gives it one of its own.
    sockaddr address = {};
    address.sa_family = AF_UNIX;
    ASSERT_EQ(bind(listening.get(), &address, sizeof address.sa_family), 0);
    ASSERT_EQ(listen(listening.get(), 1), 0);
    const UniqueFd unconnected(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    for (const int other : {stream.get(), file.get(), datagrams.get(), listening.get(), -1}) {
        EXPECT_THROW(storage::serveClient(other, {}), Failure);
    }
    captured.clear();
    try {
        storage::serveClient(unconnected.get(), {});
    } catch (const Failure&) {
        return;
    }
    expectText(captured.text(), like("*refused*"));
}

TEST_F(ServeClient, ReadsNothingOfSomebodyWhoMayNotAsk)
{
    if (!canBeNobody()) {
        GTEST_SKIP() << "there is only one user here";
    }
    EXPECT_EQ(asNobody([this] {
                  connect();
                  send(storage::encodeRead("quillon"));
                  storage::serveClient(served.get(), {});
                  char byte = 0;
                  const bool isUnread = recv(served.get(), &byte, 1, MSG_DONTWAIT) == 1;
                  return isUnread && received().empty() ? 0 : 1;
              }),
              0);
    expectText(captured.text(), like("*user 65534 may not ask*"));
}

TEST_F(ServeClient, ServesTheUserAndTheGroupThatItIsTold)
{
    if (!canBeNobody()) {
        GTEST_SKIP() << "there is only one user here";
    }
    for (const Callers& callers :
         {Callers{kNobody, std::nullopt}, Callers{std::nullopt, kNobody}}) {
        EXPECT_EQ(asNobody([this, &callers] {
                      connect();
                      return resultOf(storage::encodeRead("quillon"), callers);
                  }),
                  5);
    }
}

}  // namespace
}  // namespace quillon::test
