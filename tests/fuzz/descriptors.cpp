// Find, open, use, replug and close readers with arbitrary descriptors, strings and answers.
//
// The input begins with the log level, the number of readers and their descriptions. After that, each byte chooses
// a step.
#include "descriptors_bus.h"
#include "descriptors_records.h"

#include "base/log.h"
#include "guarded_buffer.h"
#include "gvusb.h"
#include "input.h"
#include "manager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using fuzz::expect;
using fuzz::GuardedBuffer;
using fuzz::Input;

constexpr std::array<const char*, 8> readerKeys = {"TIMEOUT",    "DEVICEHND", "DEVICE-ID",  "DEVICENAME",
                                                   "FAMILYNAME", "INTERFACE", "TYPENUMBER", "no such key"};

void handler(int, unsigned int, const char* text) {
    expect(*text == '\0', "the text of an event is empty");
}

GVUSB_EVENT_INIT registrationOf(unsigned int event) {
    GVUSB_EVENT_INIT registration = {};
    registration.uiEvent = event;
    registration.uiCallbackType = GVUSB_CALLBACK_FUNCTION;
    registration.cbFct = &handler;
    return registration;
}

void prepareManager() {
    fuzz::discardStdout();
    fuzz::destroyManager();
    // Only the input polls.
    fuzz::putWorkerToSleep();
    fuzz::buildManager("gvusb_hotplug=2");
    for (const unsigned int event : {GVUSB_EVENT_CONNECT, GVUSB_EVENT_DISCONNECT}) {
        GVUSB_EVENT_INIT registration = registrationOf(event);
        expect(GVUSB_AddEventHandler(0, &registration) == 0, "a handler can be registered");
    }
}

std::vector<int> openHandles() {
    std::vector<int> handles;
    for (int devHnd = 0; (devHnd = GVUSB_GetDeviceList(devHnd)) != 0;) {
        expect(std::ranges::find(handles, devHnd) == handles.end(), "the device list ends");
        handles.push_back(devHnd);
    }
    return handles;
}

std::string scanned(int index, const char* key) {
    GuardedBuffer value(GVUSB_PARAMETER_SIZE);
    const int code = GVUSB_GetScanListPara(index, key, value.text());
    return code == 0 ? std::string(value.terminatedText()) : std::string();
}

class Session {
public:
    explicit Session(Input& input)
        : m_input(input)
        , m_bus(input) {}

    void run() {
        GVLOG_SetLevel(static_cast<int>(m_input.below(4)));
        for (std::size_t count = 1 + m_input.below(3); count > 0; --count) {
            m_bus.plug();
        }
        for (int steps = 0; steps < 40 && !m_input.atEnd(); ++steps) {
            step();
            fuzz::expectConsistentRecords(m_bus.everPlugged());
        }
        finish();
    }

private:
    void step() {
        switch (m_input.below(20)) {
        case 0:
            return scan(false);
        case 1:
            return scan(true);
        case 2:
            return static_cast<void>(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr));
        case 3:
            return openByDeviceId();
        case 4:
            return close();
        case 5:
        case 6:
        case 7:
            return transfer();
        case 8:
            return readParameters();
        case 9:
            return changeParameters();
        case 10:
            return g_GvUsbMan.UpdateDevices();
        case 11:
            return m_bus.replug();
        case 12:
            return m_bus.report();
        case 13:
            return m_bus.changeReader();
        case 14:
            return m_bus.fail();
        case 15:
            return m_bus.queueAnswer();
        case 16:
            return m_bus.unplug();
        case 17:
            return m_bus.plug();
        case 18:
            return static_cast<void>(GVUSB_ClearScanList());
        default:
            return queryPresence();
        }
    }

    static void fill(char* field, std::size_t size, Input& input) {
        const std::string_view text = input.bytes(std::min<std::size_t>(input.byte(), size));
        std::memset(field, text.size() % 2 == 0 ? 0 : 'F', size);
        std::ranges::copy(text, field);
    }

    void scan(bool open) {
        constexpr std::array<int, 6> options = {GVUSB_SCAN_ALL,    GVUSB_SCAN_FIRST,   GVUSB_SCAN_NEXT,
                                                GVUSB_SCAN_ALL_15, GVUSB_SCAN_NOTHING, 7};
        const int option = m_input.oneOf(options);
        auto search = std::make_unique<GVUSB_SCANSEARCH>();
        const bool searching = m_input.flag();
        if (searching) {
            search->mask = static_cast<signed char>(m_input.byte());
            fill(search->famName, sizeof search->famName, m_input);
            fill(search->devName, sizeof search->devName, m_input);
            fill(search->devId, sizeof search->devId - 1, m_input);
        }
        const int asked = option | (searching ? int{GVUSB_SCAN_SEARCH} : 0);
        const int result = open ? GVUSB_ScanAndOpen(asked, search.get()) : GVUSB_Scan(asked, search.get());
        if (option == GVUSB_SCAN_ALL || option == GVUSB_SCAN_FIRST) {
            const int size = GVUSB_GetScanListSize();
            expect((result == GVUSB_ERR_NO_DEVICE_FOUND) == (size == 0), "a scan finds what is in the list");
            for (int index = 0; searching && index < size; ++index) {
                checkFound(index, *search);
            }
        }
    }

    static void checkFound(int index, const GVUSB_SCANSEARCH& search) {
        const auto equals = [&](const char* key, const char* field, std::size_t size) {
            const std::string found = scanned(index, key);
            return found.empty() || found == std::string_view(field, strnlen(field, size));
        };
        if ((search.mask & GVUSB_SEARCH_FAMILY_NAME) != 0) {
            expect(equals("FAMILYNAME", search.famName, sizeof search.famName),
                   "the family name is the wanted one");
        } else if ((search.mask & GVUSB_SEARCH_DEVICE_NAME) != 0) {
            expect(equals("DEVICENAME", search.devName, sizeof search.devName),
                   "the device name is the wanted one");
        }
    }

    void openByDeviceId() {
        const int index = m_input.byte() % 4;
        const std::string text = scanned(index, "DEVICE-ID");
        const auto devId = static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 16));
        const int result = GVUSB_OpenDevice(devId);
        expect(!text.empty() || result != 0, "opening returns a handle or a code");
    }

    // The handle of an open reader, sometimes an invalid one.
    int chosenHandle() {
        const std::vector<int> handles = openHandles();
        const std::size_t which = m_input.below(4);
        return which < handles.size() ? handles[which] : static_cast<int>(which) - 1;
    }

    void close() { GVUSB_CloseDevice(chosenHandle()); }

    void transfer() {
        const int handle = chosenHandle();
        GuardedBuffer frame(m_input.oneOf(fuzz::frameLengths));
        GuardedBuffer answer(m_input.oneOf(fuzz::frameLengths));
        const auto length = static_cast<unsigned int>(frame.size());
        const auto room = static_cast<unsigned int>(answer.size());
        int received = -1;
        switch (m_input.below(3)) {
        case 0:
            received =
                GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame.bytes(), length, answer.bytes(), room);
            break;
        case 1:
            expect(GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame.bytes(), length) <= 0,
                   "sending returns 0 or a code");
            return;
        default:
            received = GVUSB_Receive(handle, GVUSB_PROTOCOL, answer.bytes(), room);
        }
        expect(received <= static_cast<int>(room), "no more is received than there is room for");
        const std::size_t filled = std::min<std::size_t>(answer.size(), 4096);
        if (received >= 0) {
            expect(std::all_of(answer.bytes() +
                                   std::min<std::size_t>(static_cast<std::size_t>(received), filled),
                               answer.bytes() + filled, [](unsigned char byte) { return byte == 0; }),
                   "the rest of the buffer is zero");
        }
    }

    void readParameters() {
        const int handle = chosenHandle();
        for (const char* const key : readerKeys) {
            GuardedBuffer value(GVUSB_PARAMETER_SIZE);
            if (GVUSB_GetDevicePara(handle, key, value.text()) == 0) {
                value.terminatedText();
            }
        }
        const int index = m_input.byte() % 4;
        for (const char* const key : readerKeys) {
            scanned(index, key);
        }
    }

    void changeParameters() {
        constexpr std::array<const char*, 3> keys = {"RESETPIPE", "RESETDEVICE", "TIMEOUT"};
        const int handle = chosenHandle();
        GVUSB_SetDevicePara(handle, m_input.oneOf(keys), "20");
    }

    void queryPresence() {
        const int handle = chosenHandle();
        const int present = GVUSB_IsDevicePresent(handle);
        expect(present <= 1, "present is 1 or 0");
        GuardedBuffer text(GVUSB_TEXT_SIZE);
        int code = 0;
        GVUSB_GetLastError(handle, &code, text.text());
        text.terminatedText();
    }

    static void finish() {
        for (const int handle : openHandles()) {
            expect(GVUSB_CloseDevice(handle) == 0, "an open reader can be closed");
        }
        GVUSB_ClearScanList();
        GVLOG_SetLevel(0);
        fuzz::expectEmpty(fake_libusb::leftovers(), "leaked");
        fuzz::expectNoMisuse();
    }

    Input& m_input;
    fuzz::Bus m_bus;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = (prepareManager(), true);
    expect(ready, "the manager exists");
    fuzz::clearBus();
    // A scan of the empty bus resets the current entry and which readers were reported.
    GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr);
    g_GvUsbMan.SetLastError(0);
    Input input(data, size);
    Session(input).run();
    return 0;
}
