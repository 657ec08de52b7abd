#include "base/secret-bytes.h"
#include "platform/protocols/storage-protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace quillon::storage {
namespace {

SecretBytes packetOf(const RequestHead& head, const std::string& rest = "")
{
    SecretBytes packet(sizeof head);
    std::memcpy(packet.data(), &head, sizeof head);
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

RequestHead readHead(const std::string& item)
{
    RequestHead head;
    item.copy(head.item, sizeof head.item);
    return head;
}

/// What a parser points to has to lie in the packet.
void expectWithin(std::string_view part, const SecretBytes& packet)
{
    if (part.empty()) {
        return;
    }
    const auto* begin = reinterpret_cast<const char*>(packet.data());
    EXPECT_GE(part.data(), begin);
    EXPECT_LE(part.data() + part.size(), begin + packet.size());
}

TEST(StorageProtocol, CarriesARequestForAnItem)
{
    const SecretBytes packet = encodeRead("quillon");
    const auto request = parseRequest(packet);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->kind, Kind::kRead);
    EXPECT_EQ(request->item, "quillon");
    EXPECT_EQ(request->package, "");
}

TEST(StorageProtocol, CarriesAPackageOfAnySizeThatIsAllowed)
{
    for (const std::size_t size : {std::size_t(1), kLargestPackage}) {
        const SecretBytes packet = encodeInstall(SecretBytes(size, 'p'));
        const auto request = parseRequest(packet);
        ASSERT_TRUE(request);
        EXPECT_EQ(request->kind, Kind::kInstall);
        EXPECT_EQ(request->item, "");
        EXPECT_EQ(request->package, std::string(size, 'p'));
    }
}

TEST(StorageProtocol, CarriesAnswers)
{
    const SecretBytes item = encodeAnswer(0, SecretBytes(kLargestItem, 'k'));
    ASSERT_TRUE(parseAnswer(Kind::kRead, item));
    EXPECT_EQ(parseAnswer(Kind::kRead, item)->item, std::string(kLargestItem, 'k'));
    const SecretBytes missing = encodeAnswer(5, {});
    ASSERT_TRUE(parseAnswer(Kind::kRead, missing));
    EXPECT_EQ(parseAnswer(Kind::kRead, missing)->result, 5);
    ASSERT_TRUE(parseAnswer(Kind::kInstall, encodeAnswer(0, {})));
}

TEST(StorageProtocol, TakesNothingElseForARequest)
{
    RequestHead head = readHead("quillon");
    EXPECT_TRUE(parseRequest(packetOf(head)));
    EXPECT_FALSE(parseRequest({}));
    EXPECT_FALSE(parseRequest(packetOf(head, "x"))) << "bytes behind a name";
    SecretBytes shorter = packetOf(head);
    shorter.pop_back();
    EXPECT_FALSE(parseRequest(shorter));

    head.version = 2;
    EXPECT_FALSE(parseRequest(packetOf(head)));
    head = readHead("quillon");
    for (const std::uint32_t kind : {0U, 2U, 3U, 0x01000000U, 0xffffffffU}) {
        head.kind = static_cast<Kind>(kind);
        EXPECT_FALSE(parseRequest(packetOf(head))) << kind;
    }
    EXPECT_FALSE(parseRequest(packetOf(readHead("")))) << "no name";
    EXPECT_FALSE(parseRequest(packetOf(readHead(std::string(72, 'x'))))) << "no NUL";
    EXPECT_FALSE(parseRequest(packetOf(readHead(std::string("a\0b", 3))))) << "bytes behind NUL";

    EXPECT_FALSE(parseRequest(encodeInstall({}))) << "no package";
    EXPECT_FALSE(parseRequest(encodeInstall(SecretBytes(kLargestPackage + 1, 'p'))));
    head = readHead("quillon");
    head.kind = Kind::kInstall;
    EXPECT_FALSE(parseRequest(packetOf(head, "package"))) << "a package with a name";
}

TEST(StorageProtocol, TakesNothingElseForAnAnswer)
{
    const SecretBytes key(32, 'k');
    EXPECT_FALSE(parseAnswer(Kind::kRead, {}));
    EXPECT_FALSE(parseAnswer(Kind::kRead, encodeAnswer(0, {}))) << "no item";
    EXPECT_FALSE(parseAnswer(Kind::kRead, encodeAnswer(5, key))) << "an item in spite of a failure";
    EXPECT_FALSE(parseAnswer(Kind::kRead, encodeAnswer(-1, {})));
    EXPECT_FALSE(parseAnswer(Kind::kRead, encodeAnswer(0, SecretBytes(kLargestItem + 1, 'k'))));
    EXPECT_FALSE(parseAnswer(Kind::kInstall, encodeAnswer(0, key))) << "an item after an install";
    SecretBytes other = encodeAnswer(5, {});
    other[0] = 2;
    EXPECT_FALSE(parseAnswer(Kind::kRead, other)) << "another version";
}

TEST(StorageProtocol, PointsNowhereElseWhateverArrives)
{
    constexpr int kRounds = 200000;
    std::mt19937 random(66);
    for (int round = 0; round < kRounds; ++round) {
        SecretBytes packet = round % 2 == 0 ? encodeRead("quillon") : encodeInstall({1, 2, 3});
        packet.resize(random() % 4 == 0 ? random() % 200 : packet.size());
        for (unsigned change = random() % 4; change > 0 && !packet.empty(); --change) {
            packet[random() % packet.size()] = static_cast<unsigned char>(random());
        }
        if (const auto request = parseRequest(packet)) {
            expectWithin(request->item, packet);
            expectWithin(request->package, packet);
            EXPECT_NE(request->item.empty(), request->package.empty());
        }
        if (const auto answer = parseAnswer(Kind::kRead, packet)) {
            expectWithin(answer->item, packet);
            EXPECT_EQ(answer->result == 0, !answer->item.empty());
        }
    }
}

}  // namespace
}  // namespace quillon::storage
