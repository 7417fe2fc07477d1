// Calls that run at the same time in parallel mode.
#include "gate.h"
#include "manager_lists.h"
#include "manager_test.h"

#include <array>
#include <chrono>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using support::Gate;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::array<unsigned char, 3> frame = {2, 0, 7};

int exchange(int devHnd) {
    std::array<unsigned char, 64> answer = {};
    return GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, frame.data(), frame.size(), answer.data(),
                            answer.size());
}

int setParallel(const char* value) {
    return GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", value);
}

template <class Call>
std::future<int> start(Call call) {
    return std::async(std::launch::async, call);
}

bool isWaiting(const std::future<int>& call) {
    return call.wait_for(std::chrono::milliseconds(10)) == std::future_status::timeout;
}

// The result of a call that must not wait for a thread in the gate. The time only matters if it does.
template <class Call>
int resultAtOnce(Call call) {
    auto done = start(call);
    if (done.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "the call waits";
        std::abort();
    }
    return done.get();
}

class Parallel : public ManagerTest {
protected:
    Parallel() {
        restart("nopnp gvusb_parallel=1");
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("B2"));
        EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        first = GVUSB_OpenDevice(0xA1);
        second = GVUSB_OpenDevice(0xB2);
    }

    static void poll() { g_GvUsbMan.UpdateDevices(); }

    int first = 0;
    int second = 0;
};

} // namespace

TEST_F(Parallel, ExchangesWithDifferentReadersRunAtTheSameTime) {
    std::future<int> slow;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([&] { return exchange(second); }), 3);
    gate.open();
    EXPECT_EQ(slow.get(), 3);
}

TEST_F(Parallel, CallsOnOneReaderRunOneAfterTheOther) {
    std::future<int> slow;
    std::future<int> other;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    other = start([&] { return exchange(first); });
    EXPECT_TRUE(isWaiting(other));
    gate.open();
    EXPECT_EQ(slow.get(), 3);
    EXPECT_EQ(other.get(), 3);
    EXPECT_EQ(fake::frames("dev1").size(), 2u);
}

TEST_F(Parallel, LookUpsDoNotWaitForATransfer) {
    std::future<int> slow;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    resultAtOnce([&] {
        char value[GVUSB_PARAMETER_SIZE] = "";
        char text[GVUSB_TEXT_SIZE] = "";
        int code = 0;
        EXPECT_EQ(GVUSB_GetScanListSize(), 2);
        EXPECT_EQ(GVUSB_GetScanListPara(1, "DEVICENAME", value), 0);
        EXPECT_EQ(GVUSB_GetDeviceHnd(0xA1), first);
        EXPECT_EQ(GVUSB_GetDeviceList(0), first);
        EXPECT_EQ(GVUSB_GetDeviceList(first), second);
        EXPECT_EQ(GVUSB_GetLastError(first, &code, text), 0);
        EXPECT_EQ(GVUSB_GetDevicePara(second, "TIMEOUT", value), 0);
        EXPECT_EQ(GVUSB_SetDevicePara(second, "TIMEOUT", "20"), 0);
        EXPECT_EQ(GVUSB_GetDevicePara(GVUSB_DRIVER, "PARALLEL", value), 0);
        EXPECT_EQ(GVUSB_OpenDevice(0xA1), first);
        EXPECT_EQ(GVUSB_ClearScanList(), 0);
        return 0;
    });
    gate.open();
    EXPECT_EQ(slow.get(), 3);
}

TEST_F(Parallel, ClosingTakesTheHandleAwayAtOnceAndEndsCallsOnThisReaderOnly) {
    std::future<int> slow;
    std::future<int> closing;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    closing = start([&] { return GVUSB_CloseDevice(first); });
    while (resultAtOnce([&] { return GVUSB_GetDeviceHnd(0xA1); }) > 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(resultAtOnce([&] { return exchange(first); }), GVUSB_ERR_HANDLE_NOT_FOUND);
    EXPECT_EQ(resultAtOnce([&] { return exchange(second); }), 3);
    EXPECT_TRUE(isWaiting(closing));
    EXPECT_EQ(fake::openHandles("dev1"), 1);
    gate.open();
    EXPECT_EQ(slow.get(), GVUSB_ERR_NOT_OPENED);
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(Parallel, ReaderThatIsBeingClosedIsOpenedAfterwards) {
    std::future<int> slow;
    std::future<int> closing;
    std::future<int> opening;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    closing = start([&] { return GVUSB_CloseDevice(first); });
    while (resultAtOnce([&] { return GVUSB_GetDeviceHnd(0xA1); }) > 0) {
        std::this_thread::yield();
    }
    opening = start([&] { return GVUSB_OpenDevice(0xA1); });
    EXPECT_TRUE(isWaiting(opening));
    gate.open();
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(exchange(opening.get()), 3);
}

TEST_F(Parallel, CallThatWaitedWhileTheReaderWasClosedFindsItClosed) {
    std::future<int> slow;
    std::future<int> closing;
    std::vector<std::future<int>> waiting;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(start([&] { return exchange(first); }));
    }
    closing = start([&] { return GVUSB_CloseDevice(first); });
    EXPECT_TRUE(isWaiting(closing));
    gate.open();
    EXPECT_EQ(closing.get(), 0);
    for (auto& call : waiting) {
        EXPECT_THAT(call.get(), testing::AnyOf(3, GVUSB_ERR_NOT_OPENED, GVUSB_ERR_HANDLE_NOT_FOUND));
    }
}

TEST_F(Parallel, ScanOfAHungReaderDelaysNothingElse) {
    fake::plug("dev3", fake::bulkReader("C3"));
    std::future<int> scan;
    Gate gate("libusb_get_string_descriptor_ascii", "dev3");
    scan = start([] { return GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([&] { return exchange(first); }), 3);
    EXPECT_EQ(resultAtOnce([] { return GVUSB_GetScanListSize(); }), 2)
        << "the old list counts until the new one is complete";
    EXPECT_EQ(resultAtOnce([&] { return GVUSB_CloseDevice(second); }), 0);
    EXPECT_EQ(resultAtOnce([] { return GVUSB_OpenDevice(0xB2); }), second);
    EXPECT_EQ(resultAtOnce([&] { return exchange(second); }), 3);
    gate.open();
    EXPECT_EQ(scan.get(), 0);
    EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA1, 0xB2, 0xC3));
    EXPECT_EQ(exchange(second), 3);
}

// The reader was closed when the scan identified it, and is open when the scan ends.
TEST_F(Parallel, ReaderThatIsOpenedDuringAScanKeepsItsRecord) {
    EXPECT_EQ(GVUSB_CloseDevice(second), 0);
    fake::plug("dev3", fake::bulkReader("C3"));
    std::future<int> scan;
    Gate gate("libusb_get_string_descriptor_ascii", "dev3");
    scan = start([] { return GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); });
    gate.awaitArrival();
    const int handle = resultAtOnce([] { return GVUSB_OpenDevice(0xB2); });
    gate.open();
    EXPECT_EQ(scan.get(), 0);
    EXPECT_EQ(exchange(handle), 3);
    ASSERT_EQ(scanList().size(), 3u);
    EXPECT_EQ(scanList().at(1), deviceList().at(1));
    EXPECT_FALSE(scanList().at(1)->owner);
}

TEST_F(Parallel, ReaderThatIsBeingOpenedWhenAScanEndsKeepsItsRecord) {
    EXPECT_EQ(GVUSB_CloseDevice(second), 0);
    std::future<int> opening;
    Gate gate("libusb_get_config_descriptor", "dev2");
    opening = start([] { return GVUSB_OpenDevice(0xB2); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([] { return GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); }), 0);
    gate.open();
    EXPECT_EQ(exchange(opening.get()), 3);
    EXPECT_EQ(scanList().at(1), deviceList().at(1));
}

TEST_F(Parallel, ReaderThatIsBeingOpenedWhenTheScanListIsClearedIsOpenAfterwards) {
    EXPECT_EQ(GVUSB_CloseDevice(second), 0);
    std::future<int> opening;
    Gate gate("libusb_get_config_descriptor", "dev2");
    opening = start([] { return GVUSB_OpenDevice(0xB2); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([] { return GVUSB_ClearScanList(); }), 0);
    gate.open();
    const int handle = opening.get();
    EXPECT_EQ(exchange(handle), 3);
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_EQ(GVUSB_CloseDevice(handle), 0);
}

TEST_F(Parallel, OpeningWaitsForAnotherOpeningOfTheSameReaderOnly) {
    EXPECT_EQ(GVUSB_CloseDevice(first), 0);
    EXPECT_EQ(GVUSB_CloseDevice(second), 0);
    std::future<int> slow;
    std::future<int> other;
    Gate gate("libusb_get_config_descriptor", "dev1");
    slow = start([] { return GVUSB_OpenDevice(0xA1); });
    gate.awaitArrival();
    other = start([] { return GVUSB_OpenDevice(0xA1); });
    EXPECT_EQ(resultAtOnce([] { return GVUSB_OpenDevice(0xB2); }), second);
    EXPECT_TRUE(isWaiting(other));
    gate.open();
    EXPECT_EQ(slow.get(), first);
    EXPECT_EQ(other.get(), first);
    EXPECT_EQ(fake::openHandles("dev1"), 1);
}

TEST_F(Parallel, FailedOpeningLetsTheNextOneTry) {
    EXPECT_EQ(GVUSB_CloseDevice(first), 0);
    std::future<int> slow;
    std::future<int> other;
    Gate gate("libusb_open", "dev1");
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS, "dev1");
    slow = start([] { return GVUSB_OpenDevice(0xA1); });
    gate.awaitArrival();
    other = start([] { return GVUSB_OpenDevice(0xA1); });
    EXPECT_TRUE(isWaiting(other));
    gate.open();
    EXPECT_EQ(slow.get(), GVUSB_ERR_CANNOT_OPEN);
    EXPECT_EQ(other.get(), first);
}

TEST_F(Parallel, ScanThatOpensOpensEveryReaderIfTheListIsClearedMeanwhile) {
    EXPECT_EQ(GVUSB_CloseDevice(first), 0);
    EXPECT_EQ(GVUSB_CloseDevice(second), 0);
    std::future<int> scan;
    Gate gate("libusb_get_config_descriptor", "dev1");
    scan = start([] { return GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([] { return GVUSB_ClearScanList(); }), 0);
    gate.open();
    EXPECT_EQ(scan.get(), 0);
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_THAT(deviceIds(deviceList()), ElementsAre(0xA1, 0xB2));
}

TEST_F(Parallel, PollThatMeetsAHungReaderDelaysNothingElse) {
    fake::plug("dev3", fake::bulkReader("C3"));
    std::future<int> polling;
    Gate gate("libusb_get_string_descriptor_ascii", "dev3");
    polling = start([] { return poll(), 0; });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([&] { return exchange(first); }), 3);
    EXPECT_EQ(resultAtOnce([&] { return GVUSB_CloseDevice(second); }), 0);
    EXPECT_EQ(resultAtOnce([] { return GVUSB_GetScanListSize(); }), 2);
    gate.open();
    polling.get();
    EXPECT_THAT(reportedConnects(), testing::UnorderedElementsAre(0xA1, 0xB2, 0xC3));
    EXPECT_THAT(reportedDisconnects(), IsEmpty());
}

// Otherwise the poll would report the readers that it has not compared yet as new.
TEST_F(Parallel, PollIgnoresThatTheScanListIsClearedMeanwhile) {
    fake::unplug("dev2");
    fake::plug("dev3", fake::bulkReader("C3"));
    fake::plug("dev4", fake::bulkReader("B2"));
    std::future<int> polling;
    Gate gate("libusb_get_string_descriptor_ascii", "dev3");
    polling = start([] { return poll(), 0; });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([] { return GVUSB_ClearScanList(); }), 0);
    gate.open();
    polling.get();
    EXPECT_THAT(reportedConnects(), testing::UnorderedElementsAre(0xA1, 0xC3));
    EXPECT_THAT(reportedDisconnects(), ElementsAre(0xB2)) << "it was away for less than a poll";
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_EQ(exchange(second), 3) << "the handle means the reader that came back";
    EXPECT_FALSE(deviceList().at(1)->owner);
}

TEST_F(Parallel, ReaderThatComesBackInTheMiddleOfACallGetsANewRecord) {
    std::future<int> slow;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    fake::replug("dev1", "dev1b");
    resultAtOnce([] { return poll(), 0; });
    EXPECT_EQ(resultAtOnce([&] { return exchange(first); }), 3);
    EXPECT_EQ(fake::frames("dev1b").size(), 1u);
    EXPECT_TRUE(isWaiting(slow));
    EXPECT_EQ(fake::openHandles("dev1"), 1) << "the call still uses the old record";
    gate.open();
    EXPECT_EQ(slow.get(), GVUSB_ERR_NOT_PRESENT);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(Parallel, CallsWaitUntilAReaderThatCameBackIsOpen) {
    std::future<int> polling;
    std::future<int> call;
    Gate gate("libusb_get_config_descriptor", "dev1b");
    fake::replug("dev1", "dev1b");
    polling = start([] { return poll(), 0; });
    gate.awaitArrival();
    call = start([&] { return exchange(first); });
    EXPECT_EQ(resultAtOnce([&] { return exchange(second); }), 3);
    EXPECT_EQ(resultAtOnce([] { return GVUSB_GetDeviceHnd(0xA1); }), first);
    EXPECT_TRUE(isWaiting(call));
    gate.open();
    EXPECT_EQ(call.get(), 3);
    polling.get();
}

TEST_F(Parallel, ReaderThatComesBackWhileItIsOpenedIsOpenedInItsNewPlace) {
    EXPECT_EQ(GVUSB_CloseDevice(first), 0);
    std::future<int> opening;
    Gate gate("libusb_get_config_descriptor", "dev1");
    opening = start([] { return GVUSB_OpenDevice(0xA1); });
    gate.awaitArrival();
    fake::replug("dev1", "dev1b");
    resultAtOnce([] { return poll(), 0; });
    gate.open();
    const int handle = opening.get();
    // libusb still knows the descriptors of a reader that has left.
    EXPECT_EQ(exchange(handle), 3);
    EXPECT_EQ(fake::frames("dev1b").size(), 1u);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
    EXPECT_EQ(deviceList().size(), 2u);
}

TEST_F(Parallel, ParameterOfEveryReaderReachesTheOthersIfSomeAreClosedMeanwhile) {
    fake::plug("dev3", fake::bulkReader("C3"));
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    const int third = GVUSB_GetDeviceHnd(0xC3);
    for (const int handle : {first, second, third}) {
        EXPECT_EQ(exchange(handle), 3);
    }
    std::future<int> setting;
    Gate gate("libusb_clear_halt", "dev2");
    fake::takeCalls();
    setting = start([] { return GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "RESETPIPE", ""); });
    gate.awaitArrival();
    EXPECT_EQ(resultAtOnce([&] { return GVUSB_CloseDevice(first); }), 0);
    gate.open();
    EXPECT_EQ(setting.get(), 0);
    EXPECT_THAT(fake::takeCalls(), testing::Contains("libusb_clear_halt(hnd3, 0x02) = 0"));
}

TEST_F(Parallel, CallKeepsTheRuleThatItBeganWith) {
    EXPECT_EQ(setParallel("0"), 0);
    std::future<int> slow;
    std::future<int> other;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    EXPECT_EQ(setParallel("1"), 0);
    other = start([&] { return exchange(second); });
    EXPECT_TRUE(isWaiting(other));
    gate.open();
    EXPECT_EQ(slow.get(), 3);
    EXPECT_EQ(other.get(), 3);
}

TEST_F(Parallel, CallByTheOtherRuleWaitsForTheReaderOnly) {
    std::future<int> slow;
    Gate gate("libusb_bulk_transfer", "dev1");
    slow = start([&] { return exchange(first); });
    gate.awaitArrival();
    EXPECT_EQ(setParallel("0"), 0);
    EXPECT_EQ(resultAtOnce([&] { return exchange(second); }), 3);
    gate.open();
    EXPECT_EQ(slow.get(), 3);
}

TEST_F(Parallel, CanBeReadAndSet) {
    char value[GVUSB_PARAMETER_SIZE] = "";
    EXPECT_EQ(GVUSB_GetDevicePara(GVUSB_DRIVER, "parallel", value), 0);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(setParallel("0"), 0);
    EXPECT_EQ(GVUSB_GetDevicePara(GVUSB_DRIVER, "PARALLEL", value), 0);
    EXPECT_STREQ(value, "0");
    for (const char* wrong : {"", "2", "01", " 1", "yes"}) {
        EXPECT_EQ(setParallel(wrong), GVUSB_ERR_OUT_OF_RANGE) << wrong;
    }
    EXPECT_FALSE(g_GvUsbMan.IsParallel());
    EXPECT_EQ(setParallel("1"), 0);
    EXPECT_TRUE(g_GvUsbMan.IsParallel());
}

TEST_F(Parallel, ReadersAreFoundByTheirHandlesAfterOthersWereClosed) {
    std::vector<int> handles = {first, second};
    for (int i = 0; i < 20; ++i) {
        fake::plug("more" + std::to_string(i), fake::bulkReader("D" + std::to_string(i)));
    }
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    handles = openHandlesInOrder();
    ASSERT_EQ(handles.size(), 22u);
    while (!handles.empty()) {
        for (const int handle : handles) {
            EXPECT_EQ(exchange(handle), 3);
        }
        const int closed = handles[handles.size() / 3];
        EXPECT_EQ(GVUSB_CloseDevice(closed), 0);
        std::erase(handles, closed);
        EXPECT_EQ(exchange(closed), GVUSB_ERR_HANDLE_NOT_FOUND);
        EXPECT_EQ(openHandlesInOrder(), handles);
    }
}
