// The library stays within the caller's buffers, even with the log on and with arbitrary strings from
// readers. Each buffer ends at an inaccessible page.
#include "gvusb.h"

#include "captured_stdout.h"
#include "edge_buffer.h"
#include "manager_test.h"

#include "base/log.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

namespace fake = fake_libusb;
using support::EdgeBuffer;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* valueKeys[] = {"TIMEOUT",    "DEVICEHND", "DEVICE-ID", "DEVICENAME",
                                     "FAMILYNAME", "INTERFACE", "TYPENUMBER"};

// A string of the maximum length that the library's buffers hold.
std::string longest(std::string piece) {
    std::string text;
    while (text.size() < GVUSB_PARAMETER_SIZE - 1) {
        text += piece;
    }
    text.resize(GVUSB_PARAMETER_SIZE - 1);
    return text;
}

fake::FakeReader talkative(fake::FakeReader reader, const std::string& text) {
    reader.strings[1] = longest("1A2B3C " + text);
    for (const auto index : std::to_array<std::uint8_t>({3, 5, 6, 10})) {
        reader.strings[index] = text;
    }
    return reader;
}

class Bounds : public ManagerTest {
protected:
    Bounds() { GVLOG_SetLevel(3); }
    ~Bounds() override { GVLOG_SetLevel(0); }

    // The thread sanitizer loses track of a canceled thread, so the worker must not log while it ends.
    static void restartLogging(const std::string& configuration) {
        GVLOG_SetLevel(0);
        restart(configuration);
        GVLOG_SetLevel(3);
    }

    static int openReader(const fake::FakeReader& reader) {
        fake::plug("dev1", reader);
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        const int devHnd = GVUSB_GetDeviceList(0);
        EXPECT_GT(devHnd, 0);
        return devHnd;
    }

    support::CapturedStdout output;
};

TEST_F(Bounds, EveryValueFitsTheDocumentedSize) {
    for (const std::string& text : {longest("x"), longest("\xC3\xA4\xFF\x80"), longest("%n%s%1000d"),
                                    longest("a\nb\r\n\t"), std::string()}) {
        SCOPED_TRACE(text);
        restartLogging(quiet);
        const int devHnd = openReader(talkative(fake::bulkReader(), text));
        for (const char* key : valueKeys) {
            SCOPED_TRACE(key);
            EdgeBuffer byHandle(GVUSB_PARAMETER_SIZE);
            EXPECT_EQ(GVUSB_GetDevicePara(devHnd, key, byHandle.text()), 0);
            EdgeBuffer byIndex(GVUSB_PARAMETER_SIZE);
            EXPECT_EQ(GVUSB_GetScanListPara(0, key, byIndex.text()), 0);
            EXPECT_STREQ(byHandle.text(), byIndex.text());
            EXPECT_LT(strnlen(byHandle.text(), byHandle.size()), byHandle.size());
        }
        EdgeBuffer name(GVUSB_PARAMETER_SIZE);
        EXPECT_EQ(GVUSB_GetDevicePara(devHnd, "DEVICENAME", name.text()), 0);
        EXPECT_EQ(name.text(), text);
        EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3C), devHnd);
        output.takeText();
    }
}

TEST_F(Bounds, LargestHotPlugModeFitsElevenBytes) {
    restartLogging("gvusb_hotplug=!");
    EdgeBuffer value(11);
    EXPECT_EQ(GVUSB_GetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", value.text()), 0);
    EXPECT_STREQ(value.text(), "4294967281");
}

TEST_F(Bounds, TextsOfCodesFitTheDocumentedSize) {
    std::size_t most = 0;
    std::vector<int> codes = {INT_MIN, INT_MAX, 0, 1, 1115};
    for (int code = -1250; code <= -1000; ++code) {
        codes.push_back(code);
    }
    for (const int code : codes) {
        EdgeBuffer text(GVUSB_TEXT_SIZE);
        GVUSB_GetErrorText(code, text.text());
        g_GvUsbMan.SetLastError(code);
        EdgeBuffer fetched(sizeof(int));
        EdgeBuffer fetchedText(GVUSB_TEXT_SIZE);
        GVUSB_GetLastError(0, fetched.record<int>(), fetchedText.text());
        EXPECT_EQ(*fetched.record<int>(), code);
        EXPECT_STREQ(fetchedText.text(), text.text());
        most = std::max(most, std::strlen(text.text()) + 1);
    }
    EXPECT_EQ(most, std::size_t{GVUSB_TEXT_SIZE});
}

TEST_F(Bounds, FailedReadLogsTheCallersBufferWithinItsSize) {
    const int devHnd = openReader(fake::bulkReader());
    const std::string full(GVUSB_PARAMETER_SIZE, 'v');
    struct Row {
        int devHnd;
        const char* key;
    };
    fake::setString("dev1", 10, LIBUSB_ERROR_IO);
    for (const auto& [handle, key] :
         {Row{devHnd, "NO-SUCH-KEY"}, Row{GVUSB_ALL_DEVICES, "NO-SUCH-KEY"}, Row{GVUSB_DRIVER, "TIMEOUT"},
          Row{devHnd + 1, "TIMEOUT"}, Row{devHnd, "TYPENUMBER"}}) {
        SCOPED_TRACE(key);
        output.takeText();
        EdgeBuffer value(full);
        EXPECT_LT(GVUSB_GetDevicePara(handle, key, value.text()), 0);
        EXPECT_THAT(output.takeLogLines(), Contains(HasSubstr(" = '" + full + "' => rc=")));
        EdgeBuffer entryValue(full);
        EXPECT_NE(GVUSB_GetScanListPara(handle == devHnd ? 7 : 0, "NO-SUCH-KEY", entryValue.text()), 0);
    }
}

TEST_F(Bounds, KeysValuesAndProtocolNamesAreReadOnlyToTheirTerminator) {
    const int devHnd = openReader(fake::bulkReader());
    for (const std::size_t length : {0u, 1u, 126u, 127u, 128u, 129u, 5000u}) {
        SCOPED_TRACE(length);
        EdgeBuffer key(std::string(length, 'k') + '\0');
        EdgeBuffer value(std::string(length, '7') + '\0');
        EdgeBuffer got(GVUSB_PARAMETER_SIZE);
        for (const int handle : {devHnd, int{GVUSB_DRIVER}, int{GVUSB_ALL_DEVICES}}) {
            EXPECT_EQ(GVUSB_GetDevicePara(handle, key.text(), got.text()), GVUSB_ERR_UNKNOWN_PARAMETER);
            EXPECT_EQ(GVUSB_SetDevicePara(handle, key.text(), "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
        }
        EXPECT_EQ(GVUSB_SetDevicePara(devHnd, "TIMEOUT", value.text()),
                  length == 0 ? int{GVUSB_ERR_OUT_OF_RANGE} : 0);
        EXPECT_EQ(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", value.text()), GVUSB_ERR_OUT_OF_RANGE);
        EXPECT_EQ(GVUSB_Transmit(devHnd, key.text(), got.bytes(), 1), GVUSB_ERR_UNKNOWN_INTERFACE);
    }
}

TEST_F(Bounds, SearchRecordIsReadUpToTheTerminatorOfItsDeviceId) {
    fake::plug("dev1", talkative(fake::bulkReader(), longest("f")));
    for (const std::int32_t mask : {0, 1, 2, 4, 7, -1}) {
        for (const int option : {GVUSB_SCAN_ALL, GVUSB_SCAN_FIRST}) {
            SCOPED_TRACE(mask);
            EdgeBuffer search(std::string(sizeof(GVUSB_SCANSEARCH) - 1, 'f') + '\0');
            search.record<GVUSB_SCANSEARCH>()->mask = mask;
            output.takeText();
            EXPECT_EQ(GVUSB_Scan(option | GVUSB_SCAN_SEARCH, search.record<GVUSB_SCANSEARCH>()),
                      GVUSB_ERR_NO_DEVICE_FOUND);
            EXPECT_THAT(output.takeLogLines(),
                        Contains("[search-opt] mask=" + std::to_string(mask) + " devId=0x" +
                                 std::string(24, 'f') + " devName=" + std::string(50, 'f') +
                                 " famName=" + std::string(25, 'f')));
        }
    }
}

TEST_F(Bounds, RegistrationIsReadWithinItsSize) {
    EdgeBuffer memory(sizeof(GVUSB_EVENT_INIT));
    auto* const registration = memory.record<GVUSB_EVENT_INIT>();
    registration->uiEvent = GVUSB_EVENT_CONNECT;
    registration->uiCallbackType = GVUSB_CALLBACK_FUNCTION;
    registration->cbFct = [](int, unsigned int, const char*) {};
    EXPECT_EQ(GVUSB_AddEventHandler(0, registration), 0);
    EXPECT_EQ(GVUSB_DelEventHandler(0, registration), 0);
    EXPECT_EQ(GVUSB_DelEventHandler(0, registration), GVUSB_ERR_UNKNOWN_PARAMETER);
}

TEST_F(Bounds, FramesAreSentAndReceivedWithinTheirSizes) {
    for (const bool bulk : {true, false}) {
        restartLogging(quiet);
        const int devHnd = openReader(bulk ? fake::bulkReader() : fake::controlReader());
        for (const std::size_t length : {1u, 2u, 63u, 64u, 65u, 1363u, 1364u, 1365u, 4095u, 4096u}) {
            SCOPED_TRACE(length);
            EdgeBuffer frame(std::string(length, 'q'));
            EdgeBuffer whole(length);
            EXPECT_EQ(GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, frame.bytes(),
                                       static_cast<unsigned int>(length), whole.bytes(),
                                       static_cast<unsigned int>(length)),
                      static_cast<int>(length));
            EXPECT_EQ(std::memcmp(frame.bytes(), whole.bytes(), length), 0);
            EXPECT_EQ(
                GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, frame.bytes(), static_cast<unsigned int>(length)), 0);
            EdgeBuffer first(1);
            EXPECT_EQ(GVUSB_Receive(devHnd, GVUSB_PROTOCOL, first.bytes(), 1), 1);
            EXPECT_EQ(GVUSB_SetDevicePara(devHnd, "RESETDEVICE", ""), 0);
        }
    }
}

TEST_F(Bounds, SendLengthBeyondLibusbsLimitIsRefusedWithoutACall) {
    for (const bool bulk : {true, false}) {
        const int code = bulk ? GVUSB_ERR_BULK_TRANSFER : GVUSB_ERR_SEND_LENGTH;
        restartLogging(quiet);
        GVLOG_SetLevel(0); // the log would read beyond the frame
        const int devHnd = openReader(bulk ? fake::bulkReader() : fake::controlReader());
        unsigned char frame[1] = {1};
        unsigned char answer[1] = {2};
        // The first exchange claims the interface.
        EXPECT_EQ(GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, frame, 1, answer, 1), 1);
        fake::takeCalls();
        fake::recordWithoutBookkeeping();
        for (const unsigned int length : {0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, frame, length), code);
            EXPECT_EQ(GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, frame, length, answer, 1), code);
        }
        EXPECT_EQ(answer[0], 1);
        EXPECT_THAT(fake::takeCalls(), IsEmpty());
    }
}

#if UINTPTR_MAX > UINT32_MAX
// More than 2 GB of addresses that map the same few megabytes repeatedly. With 32-bit addresses, no object is
// that large.
class HugeBuffer {
    static constexpr unsigned int piece = 1u << 24;

public:
    static constexpr unsigned int size = (1u << 31) + piece;

    HugeBuffer() {
        const int file = memfd_create("piece", MFD_CLOEXEC);
        void* const reserved =
            mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (file < 0 || ftruncate(file, piece) != 0 || reserved == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "2 GB of addresses");
        }
        memory_ = static_cast<unsigned char*>(reserved);
        for (std::size_t offset = 0; offset < size; offset += piece) {
            if (mmap(memory_ + offset, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) ==
                MAP_FAILED) {
                throw std::system_error(errno, std::generic_category(), "mmap");
            }
        }
        close(file);
    }
    ~HugeBuffer() { munmap(memory_, size); }
    HugeBuffer(const HugeBuffer&) = delete;
    HugeBuffer& operator=(const HugeBuffer&) = delete;

    unsigned char* bytes() { return memory_; }

private:
    unsigned char* memory_ = nullptr;
};

TEST_F(Bounds, ReceiveMemoryBeyondLibusbsLimitFailsWithoutACall) {
    const int devHnd = openReader(fake::bulkReader());
    unsigned char frame[1] = {1};
    EXPECT_EQ(GVUSB_Transceive(devHnd, GVUSB_PROTOCOL, 0, frame, 1, frame, 1), 1);
    fake::takeCalls();
    fake::recordWithoutBookkeeping();
    HugeBuffer buffer;
    buffer.bytes()[0] = 0xAA;
    EXPECT_EQ(GVUSB_Receive(devHnd, GVUSB_PROTOCOL, buffer.bytes(), HugeBuffer::size),
              GVUSB_ERR_BULK_TRANSFER);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(buffer.bytes()[0], 0);
}
#endif

} // namespace
