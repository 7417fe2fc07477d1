// Which mutex each operation of a device holds, and when.

#include "device_test.h"
#include "mutex_probe.h"
#include "transfer_operations.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <new>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::IsEmpty;

struct Operation {
    const char* name;
    bool onOpenReader;
    bool onKnownEndPoints;
    std::function<void(GVDevice&)> run;
};

void PrintTo(const Operation& operation, std::ostream* stream) {
    *stream << operation.name;
}

std::vector<Operation> operations() {
    std::vector<Operation> all = {
        {"IdentifyDevice", false, false, [](GVDevice& device) { device.IdentifyDevice(); }},
        {"IsPresentClosed", false, false, [](GVDevice& device) { device.IsPresent(); }},
        {"IsPresentOpen", true, false, [](GVDevice& device) { device.IsPresent(); }},
        {"OpenDevice", false, false, [](GVDevice& device) { device.OpenDevice(); }},
        {"OpenDeviceTwice", true, false, [](GVDevice& device) { device.OpenDevice(); }},
        {"CloseDevice", true, true, [](GVDevice& device) { device.CloseDevice(); }},
        {"CloseDeviceClosed", false, false, [](GVDevice& device) { device.CloseDevice(); }},
        {"ReadTypeNumber", true, false,
         [](GVDevice& device) {
             char value[GVUSB_PARAMETER_SIZE];
             device.GetDevicePara("TYPENUMBER", value);
         }},
        {"ReadUnknownKey", true, false,
         [](GVDevice& device) {
             char value[GVUSB_PARAMETER_SIZE];
             device.GetDevicePara("unknown", value);
         }},
        {"WriteTimeout", true, false, [](GVDevice& device) { device.SetDevicePara("TIMEOUT", "0"); }},
        {"ResetPipe", true, true, [](GVDevice& device) { device.SetDevicePara("RESETPIPE", ""); }},
        {"ResetDevice", true, true, [](GVDevice& device) { device.SetDevicePara("RESETDEVICE", ""); }},
        {"OtherProtocol", true, true,
         [](GVDevice& device) { device.Transmit("other", sentFrame.data(), 1); }},
    };
    for (const TransferOperation& transfer : transferOperations) {
        const auto run = [transfer](GVDevice& device) { transfer.run(device, "TESK-RCI2"); };
        all.push_back({transfer.tag, true, false, run});
    }
    return all;
}

// A reader whose configuration must be changed when it is opened.
fake::FakeReader reader() {
    fake::FakeReader two = fake::bulkReader();
    two.configurations.push_back(two.configurations[0]);
    two.configurations[0].value = 2;
    return two;
}

class LockingTest : public DeviceTest, public testing::WithParamInterface<Operation> {
protected:
    // A device in the initial state of the operation.
    struct Prepared {
        Prepared() {
            if (GetParam().onKnownEndPoints) {
                makeReady(device);
            } else if (GetParam().onOpenReader) {
                open(device);
            }
        }
        void run() { GetParam().run(device); }

        GVDevice device{1, (fake::reset(), fake::plug("dev1", reader()))};
    };
};

TEST_P(LockingTest, MutexIsHeldDuringEveryLibusbCallAndFreeAfterwards) {
    Prepared prepared;
    std::vector<std::string> notHeldIn;
    {
        const ScopedHook hook([&](std::string_view function, std::string_view) {
            if (!support::isHeld(prepared.device.mutex)) {
                notHeldIn.emplace_back(function);
            }
        });
        prepared.run();
    }
    EXPECT_THAT(notHeldIn, IsEmpty());
    EXPECT_FALSE(support::isHeld(prepared.device.mutex));
}

TEST_P(LockingTest, MutexIsFreeAfterAFailureOfAnyLibusbCall) {
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        Prepared prepared;
        fake::failCall(n, LIBUSB_ERROR_IO);
        prepared.run();
        failed = fake::failurePlayed();
        fake::stopFailing();
        EXPECT_FALSE(support::isHeld(prepared.device.mutex));
    }
}

// An exception from a hook passes through the device like std::bad_alloc.
TEST_P(LockingTest, MutexIsFreeAfterAnExceptionFromAnyLibusbCall) {
    bool thrown = true;
    for (int n = 1; thrown; ++n) {
        SCOPED_TRACE(n);
        Prepared prepared;
        thrown = false;
        int left = n;
        const ScopedHook hook([&](std::string_view function, std::string_view) {
            if (function != "libusb_free_config_descriptor" && --left == 0) {
                thrown = true;
                throw std::bad_alloc();
            }
        });
        bool passed = false;
        try {
            prepared.run();
        } catch (const std::bad_alloc&) {
            passed = true;
        }
        EXPECT_EQ(passed, thrown);
        EXPECT_FALSE(support::isHeld(prepared.device.mutex));
    }
}

TEST_P(LockingTest, WaitsForTheMutex) {
    Prepared prepared;
    fake::takeCalls();
    std::atomic<bool> done = false;
    std::thread caller;
    {
        const MutexLock lock(prepared.device.mutex);
        caller = std::thread([&] {
            prepared.run();
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_THAT(fake::takeCalls(), IsEmpty());
        EXPECT_FALSE(done);
    }
    caller.join();
    EXPECT_TRUE(done);
}

INSTANTIATE_TEST_SUITE_P(EachOperation, LockingTest, testing::ValuesIn(operations()),
                         [](const auto& each) { return std::string(each.param.name); });

class DeviceMutexTest : public DeviceTest {};

TEST_F(DeviceMutexTest, TransceiveKeepsTheMutexFromSendToReceive) {
    GVDevice device(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(device);
    std::atomic<bool> presenceKnown = false;
    std::thread other;
    bool cameBetween = false;
    {
        const ScopedHook hook([&](std::string_view function, std::string_view) {
            if (function == "libusb_bulk_transfer" && !other.joinable()) {
                other = std::thread([&] {
                    device.IsPresent();
                    presenceKnown = true;
                });
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            } else if (function == "libusb_bulk_transfer") {
                cameBetween = presenceKnown;
            }
        });
        unsigned char answer[8];
        EXPECT_EQ(device.Transceive("TESK-RCI2", sentFrame.data(), 5, answer, 8), 5);
        other.join();
    }
    EXPECT_FALSE(cameBetween);
    EXPECT_TRUE(presenceKnown);
    const auto calls = fake::takeCalls();
    EXPECT_THAT(calls, testing::ElementsAre("libusb_bulk_transfer(hnd1, 0x02, 5, 1000) = 0",
                                            "libusb_bulk_transfer(hnd1, 0x81, 8, 1000) = 0",
                                            "libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 6"));
}

TEST_F(DeviceMutexTest, DevicesDoNotWaitForEachOther) {
    GVDevice first(1, fake::plug("dev1", fake::bulkReader()));
    GVDevice second(2, fake::plug("dev2", fake::bulkReader()));
    open(second);
    const MutexLock lock(first.mutex);
    EXPECT_TRUE(second.IsPresent());
}

// Memory shared with a forked child.
class SharedMemory {
public:
    SharedMemory()
        : m_memory(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
    ~SharedMemory() { munmap(m_memory, size); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    void* get() const { return m_memory; }

private:
    static constexpr std::size_t size = 8192;
    void* m_memory;
};
static_assert(sizeof(GVDevice) < 4096);

// The GNU C library's internal state of a default mutex that a thread is waiting for.
bool isWaitedFor(Mutex& mutex) {
    constexpr int lockedWithWaiters = 2;
    auto& native = reinterpret_cast<pthread_mutex_t&>(mutex);
    return std::atomic_ref(native.__data.__lock).load() == lockedWithWaiters;
}

// The child has only one thread, so if a mutex that it holds has a waiter, it is that thread.
TEST_F(DeviceMutexTest, ReadingPresentDeadlocksOnTheDevicesMutex) {
    const SharedMemory memory;
    ASSERT_NE(memory.get(), MAP_FAILED);
    auto* const device = new (memory.get()) GVDevice(1, fake::plug("dev1", fake::bulkReader()));
    open(*device);
    device->lastError = GVUSB_ERR_TIMEOUT;

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char value[GVUSB_PARAMETER_SIZE];
        device->GetDevicePara("Present", value);
        _exit(0);
    }
    bool waits = false;
    for (int i = 0; i < 2000 && !waits && waitpid(child, nullptr, WNOHANG) == 0; ++i) {
        waits = isWaitedFor(device->mutex);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(waits);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "the call has returned";
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(device->lastError, GVUSB_OK);

    pthread_mutex_init(reinterpret_cast<pthread_mutex_t*>(&device->mutex), nullptr);
    device->~GVDevice();
}

} // namespace
