// Calls that another thread ends, in parallel mode.
#include "captured_stdout.h"
#include "fake_libusb_state.h"
#include "manager_test.h"
#include "waiting.h"

#include <array>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using fake::Transfer;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

// Present if the program is built with the leak sanitizer.
extern "C" {
[[gnu::weak]] void __lsan_disable();
[[gnu::weak]] void __lsan_enable();
}

namespace {

// What is allocated while it exists may leak.
struct PermittedLeak {
    PermittedLeak() {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    ~PermittedLeak() {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
    PermittedLeak(const PermittedLeak&) = delete;
    PermittedLeak& operator=(const PermittedLeak&) = delete;
};

constexpr std::array<unsigned char, 3> request = {2, 0, 7};

int transceive(int devHnd) {
    std::array<unsigned char, 64> answer = {};
    return GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, request.data(), request.size(), answer.data(),
                            answer.size());
}

int transmit(int devHnd) {
    return GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, request.data(), request.size());
}

int receive(int devHnd) {
    std::array<unsigned char, 64> answer = {};
    return GVUSB_Receive(devHnd, GVUSB_PROTOCOL, answer.data(), answer.size());
}

int cancel(int devHnd) {
    return GVUSB_SetDevicePara(devHnd, "CANCEL", "");
}

int lastErrorOf(int devHnd) {
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = "";
    GVUSB_GetLastError(devHnd, &code, text);
    return code;
}

struct Row {
    const char* name;
    int (*call)(int devHnd);
    Transfer silent;
    bool bulk;
    int canceled;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

const Row rows[] = {
    {"ReceiveBulk", receive, Transfer::bulkIn, true, GVUSB_ERR_BULK_TRANSFER},
    {"TransmitBulk", transmit, Transfer::bulkOut, true, GVUSB_ERR_BULK_TRANSFER},
    {"TransceiveBulkWhileItSends", transceive, Transfer::bulkOut, true, GVUSB_ERR_BULK_TRANSFER},
    {"TransceiveBulkWhileItReceives", transceive, Transfer::bulkIn, true, GVUSB_ERR_BULK_TRANSFER},
    {"ReceiveControl", receive, Transfer::controlIn, false, GVUSB_ERR_CONTROL_TRANSFER},
    {"TransmitControl", transmit, Transfer::controlOut, false, GVUSB_ERR_CONTROL_TRANSFER},
    {"TransceiveControlWhileItSends", transceive, Transfer::controlOut, false, GVUSB_ERR_CONTROL_TRANSFER},
    {"TransceiveControlWhileItReceives", transceive, Transfer::controlIn, false, GVUSB_ERR_CONTROL_TRANSFER},
};

class EndableCalls : public ManagerTest {
protected:
    EndableCalls() {
        restart("nopnp gvusb_parallel=1");
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::controlReader("B2"));
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        bulk = GVUSB_GetDeviceHnd(0xA1);
        control = GVUSB_GetDeviceHnd(0xB2);
        // Only a test that fails waits for so long.
        EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "600000"), 0);
        EXPECT_EQ(transceive(bulk), 3);
        EXPECT_EQ(transceive(control), 3);
        fake::takeCalls();
    }
    ~EndableCalls() override {
        for (const char* name : {"dev1", "dev2"}) {
            fake::silence(name, {});
        }
    }
    EndableCalls(const EndableCalls&) = delete;
    EndableCalls& operator=(const EndableCalls&) = delete;

    // Start a call that waits for a reader, which answers nothing in this direction.
    static std::future<int> startWaiting(int devHnd, const char* name, int (*call)(int), Transfer silent) {
        fake::silence(name, {silent});
        std::future<int> result = std::async(std::launch::async, call, devHnd);
        awaitTransfer(name);
        return result;
    }

    static void awaitTransfer(const char* name) {
        ASSERT_TRUE(waiting::eventually([&] { return fake::isTransferPending(name); }));
    }

    int bulk = 0;
    int control = 0;
};

class EndableCallsOfEachKind : public EndableCalls, public testing::WithParamInterface<Row> {
protected:
    std::future<int> startCall() { return startWaiting(handle, name, GetParam().call, GetParam().silent); }
    const int handle = GetParam().bulk ? bulk : control;
    const char* const name = GetParam().bulk ? "dev1" : "dev2";
};

INSTANTIATE_TEST_SUITE_P(Rows, EndableCallsOfEachKind, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace

TEST_P(EndableCallsOfEachKind, AreEndedByCancel) {
    std::future<int> call = startCall();
    EXPECT_EQ(cancel(handle), 0);
    EXPECT_EQ(call.get(), GetParam().canceled);
    EXPECT_EQ(lastErrorOf(handle), GetParam().canceled);
    EXPECT_FALSE(fake::isTransferPending(name));
    EXPECT_EQ(fake::timesCalled("libusb_clear_halt"), 0u);
    fake::silence(name, {});
    // The waiting thread cancels the transfer, too, if it has only just submitted it.
    EXPECT_THAT(fake::timesCalled("libusb_cancel_transfer"), AnyOf(1u, 2u));
    EXPECT_GE(transceive(handle), 0) << "the reader can be used as before";
}

TEST_P(EndableCallsOfEachKind, AreEndedByClosing) {
    std::future<int> call = startCall();
    EXPECT_EQ(GVUSB_CloseDevice(handle), 0);
    EXPECT_EQ(call.get(), GVUSB_ERR_NOT_OPENED);
    EXPECT_EQ(fake::openHandles(name), 0);
    fake::silence(name, {});
    EXPECT_EQ(GVUSB_OpenDevice(GetParam().bulk ? 0xA1 : 0xB2), handle);
    EXPECT_EQ(lastErrorOf(handle), GVUSB_OK);
    EXPECT_GE(transceive(handle), 0);
}

TEST_P(EndableCallsOfEachKind, EndIfTheReaderLeaves) {
    std::future<int> call = startCall();
    fake::unplug(name);
    EXPECT_EQ(call.get(), GVUSB_ERR_NOT_PRESENT);
    EXPECT_EQ(cancel(handle), 0);
}

TEST_F(EndableCalls, LogTheCodeOfTheTransferAndOfTheCall) {
    support::CapturedStdout output;
    std::future<int> call = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    GVLOG_SetLevel(2);
    EXPECT_EQ(cancel(bulk), 0);
    call.get();
    std::future<int> closed = startWaiting(control, "dev2", receive, Transfer::controlIn);
    EXPECT_EQ(GVUSB_CloseDevice(control), 0);
    closed.get();
    GVLOG_SetLevel(0);
    std::vector<std::string> lines = output.takeLogLines();
    std::erase_if(lines, [](const std::string& line) { return line.find("returned") == std::string::npos; });
    EXPECT_THAT(lines, ElementsAre(testing::EndsWith("[bulkReceive] returned -1"),
                                   testing::EndsWith("[receive] returned -1139"),
                                   testing::EndsWith("[ctrlReceive] returned -1"),
                                   testing::EndsWith("[receive] returned -1144")));
}

TEST_F(EndableCalls, CancelOfAllReadersEndsTheCallsOnEach) {
    std::future<int> first = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    std::future<int> second = startWaiting(control, "dev2", transceive, Transfer::controlIn);
    EXPECT_EQ(cancel(GVUSB_ALL_DEVICES), 0);
    EXPECT_EQ(first.get(), GVUSB_ERR_BULK_TRANSFER);
    EXPECT_EQ(second.get(), GVUSB_ERR_CONTROL_TRANSFER);
}

TEST_F(EndableCalls, CancelOfOneReaderLeavesTheOthersAlone) {
    std::future<int> first = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    std::future<int> second = startWaiting(control, "dev2", transceive, Transfer::controlIn);
    EXPECT_EQ(cancel(control), 0);
    EXPECT_EQ(second.get(), GVUSB_ERR_CONTROL_TRANSFER);
    EXPECT_TRUE(fake::isTransferPending("dev1"));
    EXPECT_EQ(cancel(bulk), 0);
    EXPECT_EQ(first.get(), GVUSB_ERR_BULK_TRANSFER);
}

TEST_F(EndableCalls, CancelDoesNotEndTheNextCall) {
    EXPECT_EQ(cancel(bulk), 0);
    EXPECT_EQ(cancel(GVUSB_ALL_DEVICES), 0);
    EXPECT_EQ(transceive(bulk), 3);
    EXPECT_EQ(fake::timesCalled("libusb_cancel_transfer"), 0u);
}

TEST_F(EndableCalls, CancelAlsoEndsTheCallsThatWaitForTheReader) {
    std::future<int> first = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    std::vector<std::future<int>> others;
    for (int i = 0; i < 3; ++i) {
        others.push_back(std::async(std::launch::async, transmit, bulk));
    }
    GVDevice* record = nullptr;
    {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        record = g_GvUsbMan.DL_DeviceOfDevHnd(bulk);
    }
    // The list has one reference and each call another one.
    ASSERT_TRUE(waiting::eventually([&] { return std::atomic_ref(record->references).load() == 5; }));
    const std::size_t frames = fake::frames("dev1").size();
    // They may not have noted their begin yet.
    EXPECT_TRUE(waiting::eventually([&] {
        cancel(bulk);
        return std::atomic_ref(record->references).load() == 1;
    }));
    EXPECT_EQ(first.get(), GVUSB_ERR_BULK_TRANSFER);
    for (auto& other : others) {
        EXPECT_THAT(other.get(), testing::AnyOf(GVUSB_ERR_BULK_TRANSFER, 0));
    }
    EXPECT_LE(fake::frames("dev1").size(), frames + 3);
}

TEST_F(EndableCalls, CallsThatWaitForAReaderThatIsClosedFindItClosed) {
    std::future<int> first = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    GVDevice* record = nullptr;
    {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        record = g_GvUsbMan.DL_DeviceOfDevHnd(bulk);
    }
    std::vector<std::future<int>> others;
    for (int i = 0; i < 3; ++i) {
        others.push_back(std::async(std::launch::async, transceive, bulk));
    }
    ASSERT_TRUE(waiting::eventually([&] { return std::atomic_ref(record->references).load() == 5; }));
    const std::size_t frames = fake::frames("dev1").size();
    EXPECT_EQ(GVUSB_CloseDevice(bulk), 0);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), bulk) << "that the same record is open again makes no difference";
    EXPECT_EQ(first.get(), GVUSB_ERR_NOT_OPENED);
    for (auto& other : others) {
        EXPECT_EQ(other.get(), GVUSB_ERR_NOT_OPENED);
    }
    EXPECT_EQ(fake::frames("dev1").size(), frames) << "no call has sent its frame";
}

// The hook runs between the two transfers.
TEST_F(EndableCalls, CancelBetweenTheTransfersOfATransceiveEndsIt) {
    int submitted = 0;
    fake::silence("dev1", {Transfer::bulkIn});
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_submit_transfer" && ++submitted == 2) {
            std::async(std::launch::async, cancel, bulk).get();
        }
    });
    EXPECT_EQ(transceive(bulk), GVUSB_ERR_BULK_TRANSFER);
    fake::setHook(nullptr);
    EXPECT_EQ(submitted, 2);
}

TEST_F(EndableCalls, CancelBeforeTheFirstTransferEndsTheCall) {
    EXPECT_EQ(GVUSB_CloseDevice(bulk), 0);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), bulk);
    fake::silence("dev1", {Transfer::bulkOut});
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_claim_interface") {
            std::async(std::launch::async, cancel, bulk).get();
        }
    });
    EXPECT_EQ(transceive(bulk), GVUSB_ERR_BULK_TRANSFER);
    fake::setHook(nullptr);
    fake::silence("dev1", {});
    EXPECT_EQ(transceive(bulk), 3);
}

TEST_F(EndableCalls, CancelIgnoresItsValueAndCannotBeRead) {
    char value[GVUSB_PARAMETER_SIZE] = "before";
    EXPECT_EQ(GVUSB_SetDevicePara(bulk, "cancel", "anything"), 0);
    EXPECT_EQ(GVUSB_GetDevicePara(bulk, "CANCEL", value), GVUSB_ERR_UNKNOWN_PARAMETER);
    EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_DRIVER, "CANCEL", ""), GVUSB_ERR_UNKNOWN_PARAMETER);
    EXPECT_EQ(GVUSB_SetDevicePara(bulk, "CANCEL", nullptr), GVUSB_ERR_NULL_POINTER);
    EXPECT_EQ(GVUSB_SetDevicePara(bulk + 77, "CANCEL", ""), GVUSB_ERR_HANDLE_NOT_FOUND);
}

// So "CANCEL" of all readers reaches every one.
TEST_F(EndableCalls, CancelOfAClosedReaderHasNoEffect) {
    fake::replug("dev1", "dev1b");
    fake::failNth("libusb_open", 2, LIBUSB_ERROR_ACCESS, "dev1b"); // the first opening identifies it
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(transceive(bulk), GVUSB_ERR_NOT_OPENED);
    EXPECT_EQ(cancel(bulk), 0);
    std::future<int> call = startWaiting(control, "dev2", receive, Transfer::controlIn);
    EXPECT_EQ(cancel(GVUSB_ALL_DEVICES), 0);
    EXPECT_EQ(call.get(), GVUSB_ERR_CONTROL_TRANSFER);
}

TEST_F(EndableCalls, DefaultModeUsesTheSynchronousFunctionsAndKnowsNoCancel) {
    const std::size_t before = fake::timesCalled("libusb_submit_transfer");
    EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", "0"), 0);
    EXPECT_EQ(transceive(bulk), 3);
    EXPECT_EQ(cancel(bulk), GVUSB_ERR_UNKNOWN_PARAMETER);
    EXPECT_EQ(cancel(GVUSB_ALL_DEVICES), GVUSB_ERR_UNKNOWN_PARAMETER);
    EXPECT_EQ(transceive(control), 3);
    EXPECT_EQ(fake::timesCalled("libusb_submit_transfer"), before);
}

TEST_F(EndableCalls, ReuseOneTransferOfEachReader) {
    const std::size_t before = fake::timesCalled("libusb_alloc_transfer");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(transceive(bulk), 3);
        EXPECT_EQ(transceive(control), 3);
    }
    EXPECT_EQ(fake::timesCalled("libusb_alloc_transfer"), before);
    EXPECT_EQ(before, 2u);
}

TEST_F(EndableCalls, UseTheSynchronousFunctionsIfThereIsNoTransfer) {
    fake::plug("dev3", fake::bulkReader("C3"));
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    const int handle = GVUSB_OpenDevice(0xC3);
    const std::size_t before = fake::timesCalled("libusb_submit_transfer");
    fake::failNext("libusb_alloc_transfer", LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(transceive(handle), 3);
    EXPECT_EQ(fake::timesCalled("libusb_submit_transfer"), before);
    EXPECT_EQ(transceive(handle), 3);
    EXPECT_EQ(fake::timesCalled("libusb_submit_transfer"), before + 2);
}

// As in the default mode: libusb's synchronous functions refuse to wait there.
TEST_F(EndableCalls, FailInACallbackOfLibUsb) {
    std::vector<int> results;
    libusb_hotplug_callback_handle registration = 0;
    const auto callback = [](libusb_context*, libusb_device*, libusb_hotplug_event, void* test) -> int {
        auto& [handle, codes] = *static_cast<std::pair<int, std::vector<int>*>*>(test);
        codes->push_back(transceive(handle));
        return 1;
    };
    std::pair<int, std::vector<int>*> test(bulk, &results);
    ASSERT_EQ(libusb_hotplug_register_callback(nullptr, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0,
                                               LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                               LIBUSB_HOTPLUG_MATCH_ANY, callback, &test, &registration),
              0);
    fake::fireArrived("dev2");
    EXPECT_THAT(results, ElementsAre(GVUSB_ERR_BULK_TRANSFER));
    EXPECT_EQ(transceive(bulk), 3);
}

TEST_F(EndableCalls, WorkWhileAnotherThreadHandlesEvents) {
    fake::setEventsHandled(true);
    const std::size_t before = fake::timesCalled("libusb_submit_transfer");
    EXPECT_EQ(transceive(bulk), 3);
    EXPECT_EQ(fake::timesCalled("libusb_submit_transfer"), before + 2);
    std::future<int> call = startWaiting(bulk, "dev1", receive, Transfer::bulkIn);
    EXPECT_EQ(cancel(bulk), 0);
    EXPECT_EQ(call.get(), GVUSB_ERR_BULK_TRANSFER);
}

TEST_F(EndableCalls, EndIfEventsCannotBeHandled) {
    fake::silence("dev1", {Transfer::bulkIn});
    fake::failNth("libusb_handle_events_completed", 2, LIBUSB_ERROR_INTERRUPTED);
    fake::failNth("libusb_handle_events_completed", 2, LIBUSB_ERROR_OTHER);
    EXPECT_EQ(transceive(bulk), GVUSB_ERR_BULK_TRANSFER)
        << "libusb's synchronous functions cancel the transfer";
    EXPECT_EQ(fake::timesCalled("libusb_cancel_transfer"), 1u);
}

TEST_F(EndableCalls, TimeOutAsUsual) {
    EXPECT_EQ(GVUSB_SetDevicePara(bulk, "TIMEOUT", "1"), 0);
    fake::silence("dev1", {Transfer::bulkIn});
    EXPECT_EQ(receive(bulk), GVUSB_ERR_TIMEOUT);
    fake::silence("dev1", {Transfer::bulkOut});
    EXPECT_EQ(transmit(bulk), GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(fake::timesCalled("libusb_clear_halt"), 2u);
}

// libusb still uses the transfer, so it must be neither used again nor freed: it leaks.
TEST_F(EndableCalls, AnExceptionFromEventHandlingAbandonsTheTransfer) {
    fake::plug("dev3", fake::bulkReader("C3"));
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    const int handle = GVUSB_OpenDevice(0xC3);
    const auto throwInEventHandling = [](std::string_view function, std::string_view) {
        if (function == "libusb_handle_events_completed") {
            throw 1;
        }
    };
    fake::setHook(throwInEventHandling);
    {
        const PermittedLeak leak;
        EXPECT_THROW(transceive(handle), int);
    }
    fake::setHook(nullptr);
    EXPECT_TRUE(fake::isTransferPending("dev3"));
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));

    const std::size_t allocated = fake::timesCalled("libusb_alloc_transfer");
    EXPECT_EQ(transceive(handle), 3);
    EXPECT_EQ(fake::timesCalled("libusb_alloc_transfer"), allocated + 1);
    while (fake::isTransferPending("dev3")) {
        int completed = 0;
        libusb_handle_events_completed(nullptr, &completed);
    }
    for (const int each : {bulk, control, handle}) {
        EXPECT_EQ(GVUSB_CloseDevice(each), 0);
    }
    EXPECT_EQ(GVUSB_ClearScanList(), 0);
    ASSERT_EQ(fake::state().transfers.size(), 1u);
    libusb_free_transfer(const_cast<libusb_transfer*>(fake::state().transfers.begin()->first));
}

// What came before a control transfer failed is in the buffer, as by default.
TEST_F(EndableCalls, KeepTheBytesOfAFailedControlTransfer) {
    for (const char* mode : {"1", "0"}) {
        EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", mode), 0);
        fake::queueAnswer("dev2", Transfer::controlIn, {.code = LIBUSB_ERROR_TIMEOUT, .data = {7, 8}});
        std::array<unsigned char, 4> answer = {9, 9, 9, 9};
        EXPECT_EQ(GVUSB_Receive(control, GVUSB_PROTOCOL, answer.data(), answer.size()), GVUSB_ERR_TIMEOUT);
        EXPECT_THAT(answer, ElementsAre(7, 8, 0, 0)) << mode;
    }
}

// Long frames are refused by libusb, and the library has no buffer for them.
TEST_F(EndableCalls, SendFramesOfEveryLength) {
    for (const std::size_t length : {1u, 4096u, 4097u, 65535u, 65536u}) {
        std::vector<unsigned char> frame(length, 7);
        const int expected = length <= 4096    ? 0
                             : length <= 65535 ? GVUSB_ERR_CONTROL_TRANSFER
                                               : GVUSB_ERR_SEND_LENGTH;
        EXPECT_EQ(GVUSB_Transmit(control, GVUSB_PROTOCOL, frame.data(), static_cast<unsigned>(length)),
                  expected)
            << length;
        EXPECT_EQ(GVUSB_Transmit(bulk, GVUSB_PROTOCOL, frame.data(), static_cast<unsigned>(length)), 0)
            << length;
    }
}

// Sends and receives the same bytes as the default mode, with the same calls.
TEST_F(EndableCalls, MakeTheSameTransfersAsOtherCalls) {
    std::vector<std::vector<std::string>> calls;
    for (const char* mode : {"1", "0"}) {
        EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", mode), 0);
        fake::takeCalls();
        for (const int handle : {bulk, control}) {
            std::array<unsigned char, 5> answer = {9, 9, 9, 9, 9};
            EXPECT_EQ(GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request.data(), request.size(),
                                       answer.data(), answer.size()),
                      3);
            EXPECT_THAT(answer, ElementsAre(2, 0, 7, 0, 0));
        }
        calls.push_back(fake::takeCalls());
        std::erase_if(calls.back(), [](const std::string& call) {
            return call.starts_with("libusb_event_handler_active");
        });
    }
    EXPECT_EQ(calls[0], calls[1]);
    EXPECT_EQ(calls[0].size(), 4u);
}
