// One opening of a device node: the ioctls that come through it, decoded for the reader behind, and their
// answers.
//
// Lives in umockdev's handler thread; takes the bus mutex for every touch of the reader.
#pragma once

#include "usbfs/device.h"
#include "usbfs/program_memory.h"
#include "usbfs/readiness_fifo.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace emulator {

struct NodeHooks {
    // A program chose another configuration. Called in the handler's thread without the mutex, before the
    // program gets its answer.
    std::function<void(std::uint8_t)> configured;
    // Something may become due earlier than was known. Called in the handler's thread.
    std::function<void()> deadlineChanged;
};

// What the openings of one node share. It lives as long as the last of them, which may be longer than the
// node.
struct SharedNode {
    SharedNode(const std::string& file, std::shared_ptr<UsbfsDevice> openedDevice, std::mutex& busMutex,
               NodeHooks nodeHooks)
        : fifo(file)
        , device(std::move(openedDevice))
        , mutex(busMutex)
        , hooks(std::move(nodeHooks)) {}

    // Shows at the node whether there is something to reap. The mutex is held.
    void refresh() { fifo.setReady(device->anythingToReap()); }

    ReadinessFifo fifo;
    std::shared_ptr<UsbfsDevice> device;
    std::mutex& mutex;
    NodeHooks hooks;
};

class UsbfsOpening {
public:
    explicit UsbfsOpening(std::shared_ptr<SharedNode> node);
    UsbfsOpening(const UsbfsOpening&) = delete;
    UsbfsOpening& operator=(const UsbfsOpening&) = delete;
    ~UsbfsOpening() { close(); }

    // 0 or more: the ioctl's result; negative: its errno.
    int answer(unsigned long request, UMockdevIoctlData* argument);

private:
    // A URB that flies, with what it points to; URBs are written back when they are reaped.
    struct UrbMemory {
        ProgramMemory urb;
        ProgramMemory buffer;
        bool control = false;
    };

    void close();
    int submit(UMockdevIoctlData* argument);
    int reap(UMockdevIoctlData* argument);
    int setConfiguration(int value);
    int getDriver(const ProgramMemory& memory);
    int driverIoctl(const ProgramMemory& memory);
    int detachAndClaim(const ProgramMemory& memory);
    int getCapabilities(const ProgramMemory& memory);
    int getSpeed();

    // Runs one action on the reader under the mutex and shows at the node what came of it.
    template <typename Action>
    auto onDevice(Action action) {
        const std::lock_guard lock(m_node->mutex);
        auto result = action(*m_node->device, std::chrono::steady_clock::now());
        m_node->refresh();
        return result;
    }

    std::shared_ptr<SharedNode> m_node;
    OpenId m_id = 0;
    bool m_closed = false;
    std::map<UrbAddress, UrbMemory> m_urbs;
};

} // namespace emulator
