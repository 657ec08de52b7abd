// What two threads may do at once.

#include <atomic>
#include <thread>
#include <vector>

#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr int kRounds = 30;

class SymbolThreads : public UsbImages
{
};

TEST_F(SymbolThreads, TheDecisionMayBeReadWhileItIsMadeAnew)
{
    install(Module().needsUpdate().takesSeconds(30));
    stick.addImage("alpha", Image());
    std::atomic<bool> done{false};
    std::thread reader([this, &done] {
        while (!done) {
            const int seconds = module.getExpectedUpdateTime();
            EXPECT_TRUE(seconds == 0 || seconds == 30) << seconds;
            static_cast<void>(module.getNeedUpdate());
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(module.getNeedUpdateList(key, stick.path()), 1);
    }
    done = true;
    reader.join();

    EXPECT_TRUE(module.getNeedUpdate());
}

TEST_F(SymbolThreads, TwoModulesMayBeVerifiedAndDecipheredAtOnce)
{
    const std::vector<std::string> names = {"alpha", "beta"};
    std::vector<std::thread> threads;
    for (const std::string& name : names) {
        device.addModule(name, Module().needsUpdate());
        stick.addImage(name, Image().payload(bytesOf("payload of " + name)));
    }
    for (const std::string& name : names) {
        threads.emplace_back([this, name] {
            FWUpdateSymbol own(name);
            EXPECT_EQ(own.loadSymbol(name), 0);
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(own.updateUSB(key, stick.path()), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (const std::string& name : names) {
        EXPECT_EQ(payloadsOf(name), std::vector<Bytes>(kRounds, bytesOf("payload of " + name)));
    }
}

TEST_F(SymbolThreads, TheFirstChecksumsMayBeTakenAtOnce)
{
    const std::string path = "/opt/media/nine-digits";
    writeFile(path, "123456789");
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            FWUpdateSymbol own("alpha");
            while (!go) {
            }
            EXPECT_EQ(own.getBinaryCRC32(path), 0x6A50465CU);
        });
    }
    go = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace quillon::test
