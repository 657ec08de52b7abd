/// The control task on a device with queues, a client and a key.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fw-update-symbol-manager.h"
#include "quillon-service-client.h"
#include "quillon-service.h"
#include "support/device-fixture.h"

namespace quillon::test {

/// Holds up whoever passes until it is opened.
class Gate
{
public:
    void pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        isReached_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return isOpen_; });
    }
    void open()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isOpen_ = true;
        changed_.notify_all();
    }
    /// Waits until somebody stands before it.
    bool isReached()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_until(lock, patience(), [this] { return isReached_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isReached_ = false;
    bool isOpen_ = false;
};

/// Makes the key known as start-up does.
inline void giveKey()
{
    static unsigned char text[sizeof(kKeyText)];
    std::memcpy(text, kKeyText, sizeof(kKeyText));
    dec_key = text;
    dec_key_size = sizeof(kKeyText) - 1;
}

/// The record that sets the stick's directory, with zeros behind it.
inline Record stickCommand(const Stick& stick)
{
    return pathCommand(stick.directory());
}

class ControlTest : public DeviceTest
{
protected:
    ControlTest()
    {
        giveKey();
        device.addVerifier();
    }
    void TearDown() override
    {
        for (const std::shared_ptr<Gate>& gate : gates_) {
            gate->open();
        }
        if (task.valid()) {
            client.send(4);
            result();
        }
        DeviceTest::TearDown();
    }

    void addModule(const std::string& name, const Module& module)
    {
        device.addModule(name, module);
        device.stick().addImage(name, Image());
    }

    /// Builds the registry out of the modules so far, and starts the task.
    void start()
    {
        ASSERT_TRUE(FWUpdateSymbolManager::getInstance()->getIsReady(true));
        fakes::clear();
        task = std::async(std::launch::async, firmware_control_task);
    }

    /// With the stick's directory set, and forgets what that left in the timeline.
    void startWithStick()
    {
        start();
        ASSERT_EQ(client.ask(stickCommand(device.stick())), reply(0));
        fakes::clear();
    }

    bool isRunning() { return task.wait_until(shortWhile()) != std::future_status::ready; }

    /// Waits for the task's end.
    int result()
    {
        if (task.wait_until(patience()) != std::future_status::ready) {
            ADD_FAILURE() << "the control task does not end";
            std::_Exit(1);
        }
        return task.get();
    }

    /// A gate that is opened at the end of the test at the latest.
    std::shared_ptr<Gate> makeGate()
    {
        gates_.push_back(std::make_shared<Gate>());
        return gates_.back();
    }

    /// A module whose update takes until the gate is opened.
    static Module waitingAt(const std::shared_ptr<Gate>& gate, int seconds = 60)
    {
        return Module().needsUpdate().takesSeconds(seconds).onPayload(
            [gate](const unsigned char*, int) { gate->pass(); });
    }

    /// The first answer to command 6 that does not say that the update is running.
    Record outcome()
    {
        const auto end = patience();
        Record answer = client.ask(6);
        while (answer.result() == 1 && std::chrono::system_clock::now() < end) {
            std::this_thread::yield();
            answer = client.ask(6);
        }
        return answer;
    }

    OpenQueues queues;
    Client client;
    std::future<int> task;

private:
    std::vector<std::shared_ptr<Gate>> gates_;
};

}  // namespace quillon::test
