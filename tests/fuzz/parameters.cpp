// Pass arbitrary keys, values, protocol names, events and codes to the library. Two readers stay open.
//
// Each line of the input is a call: a letter for the function, a letter for the handle if there is one, and the
// text.
//   g1TIMEOUT          GVUSB_GetDevicePara     s1TIMEOUT=250     GVUSB_SetDevicePara
//   l0DEVICENAME       GVUSB_GetScanListPara   e-1102            GVUSB_GetErrorText
//   t1TESK-RCI2        GVUSB_Transceive        o, i              GVUSB_Transmit, GVUSB_Receive
//   a01 3              GVUSB_AddEventHandler   d01 3             GVUSB_DelEventHandler
//                      (event and kind of callback)
//   k1                 GVUSB_GetLastError
#include "base/log.h"
#include "guarded_buffer.h"
#include "gvusb.h"
#include "input.h"
#include "manager.h"

#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <strings.h>

namespace {

int openHandles[2] = {};

void handler(int, unsigned int, const char*) {
}

void openReaders() {
    fuzz::discardStdout();
    fuzz::destroyManager();
    // Otherwise the worker polls when an input ends the suspension.
    fuzz::putWorkerToSleep();
    fuzz::buildManager("nopnp");
    fake_libusb::plug("dev1", fake_libusb::bulkReader("1A"));
    fake_libusb::plug("dev2", fake_libusb::controlReader("2B"));
    fuzz::expect(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr) == 0, "both readers are opened");
    openHandles[0] = GVUSB_GetDeviceHnd(0x1A);
    openHandles[1] = GVUSB_GetDeviceHnd(0x2B);
}

int handleOf(char letter) {
    switch (letter) {
    case '0':
        return GVUSB_ALL_DEVICES;
    case '-':
        return GVUSB_DRIVER;
    case '=':
        return GVUSB_DRIVER - 1;
    case 'm':
        return INT_MIN;
    case 'M':
        return INT_MAX;
    case '1':
        return openHandles[0];
    case '2':
        return openHandles[1];
    default:
        return static_cast<signed char>(letter);
    }
}

template <class Number>
Number takeNumber(std::string_view& text) {
    while (text.starts_with(' ')) {
        text.remove_prefix(1);
    }
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

void expectLastError(int code) {
    fuzz::expect(relaxed::load(g_GvUsbMan.m_iLastError) == code, "the last error is the returned code");
}

// Reading it blocks, as documented.
bool blocks(const char* key) {
    return strcasecmp(key, "PRESENT") == 0;
}

bool isDecimal(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void checkValue(const char* key, fuzz::GuardedBuffer& value) {
    const std::string_view text = value.terminatedText();
    if (strcasecmp(key, "TIMEOUT") == 0) {
        fuzz::expect(isDecimal(text) && text != "0", "the time-out is a decimal number above 0");
    } else if (strcasecmp(key, "DEVICEHND") == 0) {
        fuzz::expect(text == std::to_string(openHandles[0]) || text == std::to_string(openHandles[1]),
                     "the handle is that of an open reader");
    }
}

void getParameter(int handle, std::string_view text) {
    const fuzz::GuardedText key(text);
    if (blocks(key.text())) {
        return;
    }
    fuzz::GuardedBuffer value(GVUSB_PARAMETER_SIZE);
    const int code = GVUSB_GetDevicePara(handle, key.text(), value.text());
    expectLastError(code);
    if (code == 0) {
        checkValue(key.text(), value);
    }
    fuzz::expect(code <= 0, "reading a parameter returns 0 or a code");
    fuzz::expect(std::strlen(key.text()) < GVUSB_KEY_SIZE || code != 0, "an over-long key is unknown");
}

void setParameter(int handle, std::string_view text) {
    const std::size_t separator = std::min(text.find('='), text.size());
    const fuzz::GuardedText key(text.substr(0, separator));
    const fuzz::GuardedText value(text.substr(std::min(separator + 1, text.size())));
    const int code = GVUSB_SetDevicePara(handle, key.text(), value.text());
    expectLastError(code);
    fuzz::expect(code <= 0, "setting a parameter returns 0 or a code");
    fuzz::expect(std::strlen(key.text()) < GVUSB_KEY_SIZE || code != 0, "an over-long key is unknown");
    fuzz::expect(relaxed::load(g_GvUsbMan.m_uiUpdateRate) >= 10, "the update rate is at least 10");
}

void getScanListParameter(char index, std::string_view text) {
    const fuzz::GuardedText key(text);
    if (blocks(key.text())) {
        return;
    }
    fuzz::GuardedBuffer value(GVUSB_PARAMETER_SIZE);
    const int code = GVUSB_GetScanListPara(index - '0', key.text(), value.text());
    expectLastError(code);
    if (code == 0) {
        fuzz::expect(index == '0' || index == '1', "the entry exists");
        checkValue(key.text(), value);
    }
}

void transfer(char what, int handle, std::string_view text) {
    const fuzz::GuardedText protocol(text);
    const fuzz::GuardedBuffer frame("frame");
    fuzz::GuardedBuffer answer(text.size() % 8);
    const auto* const sent = reinterpret_cast<const unsigned char*>(frame.text());
    const auto length = static_cast<unsigned int>(frame.size());
    const auto room = static_cast<unsigned int>(answer.size());
    int result = 0;
    if (what == 't') {
        result = GVUSB_Transceive(handle, protocol.text(), 0, sent, length, answer.bytes(), room);
    } else if (what == 'o') {
        result = GVUSB_Transmit(handle, protocol.text(), sent, length);
    } else {
        result = GVUSB_Receive(handle, protocol.text(), answer.bytes(), room);
    }
    fuzz::expect(result <= static_cast<int>(room), "no more is received than there is room for");
    fuzz::expect(result < 0 || strcasecmp(protocol.text(), GVUSB_PROTOCOL) == 0,
                 "only one protocol is known");
}

void changeHandlers(char what, int handle, std::string_view text) {
    auto registration = std::make_unique<GVUSB_EVENT_INIT>();
    registration->uiEvent = takeNumber<std::uint32_t>(text);
    registration->uiCallbackType = takeNumber<std::uint32_t>(text);
    registration->cbFct = text.empty() ? &handler : nullptr;
    expectLastError(what == 'a' ? GVUSB_AddEventHandler(handle, registration.get())
                                : GVUSB_DelEventHandler(handle, registration.get()));
}

void checkErrorText(int code, fuzz::GuardedBuffer& buffer, int returned) {
    const std::string text(buffer.terminatedText());
    char unknown[GVUSB_TEXT_SIZE];
    std::snprintf(unknown, sizeof unknown, "GVUSB: Unknown Error: 0x%X (%d)", static_cast<unsigned int>(code),
                  code);
    const std::string number = "(" + std::to_string(code) + ")";
    const bool known = code == 0 ? text == "GVUSB: OK" : text.starts_with("GVUSB: " + number + " ");
    fuzz::expect(returned == 0 ? known : returned == GVUSB_ERR_UNKNOWN_ERROR_CODE && text == unknown,
                 "a code has its own text or is unknown");
}

void getErrorText(std::string_view text) {
    const int code = takeNumber<int>(text);
    fuzz::GuardedBuffer buffer(GVUSB_TEXT_SIZE);
    const int returned = GVUSB_GetErrorText(code, buffer.text());
    expectLastError(returned);
    checkErrorText(code, buffer, returned);
}

void getLastError(int handle) {
    fuzz::GuardedBuffer buffer(GVUSB_TEXT_SIZE);
    const auto code = std::make_unique<int>(1);
    const int returned = GVUSB_GetLastError(handle, code.get(), buffer.text());
    expectLastError(returned);
    checkErrorText(*code, buffer, returned);
}

void call(std::string_view line) {
    const char what = line.empty() ? '\0' : line[0];
    const char which = line.size() < 2 ? '0' : line[1];
    const std::string_view text = line.substr(std::min<std::size_t>(line.size(), 2));
    switch (what) {
    case 'g':
        return getParameter(handleOf(which), text);
    case 's':
        return setParameter(handleOf(which), text);
    case 'l':
        return getScanListParameter(which, text);
    case 't':
    case 'o':
    case 'i':
        return transfer(what, handleOf(which), text);
    case 'a':
    case 'd':
        return changeHandlers(what, which == '0' ? 0 : handleOf(which), text);
    case 'e':
        return getErrorText(line.substr(1));
    case 'k':
        return getLastError(handleOf(which));
    default:
        return;
    }
}

// Restore the initial state for the next input.
void restore() {
    for (const int handle : openHandles) {
        fuzz::expect(GVUSB_SetDevicePara(handle, "TIMEOUT", "1000") == 0, "the time-out can be set");
        fuzz::expect(GVUSB_SetDevicePara(handle, "RESETDEVICE", "") == 0, "a reader can be reset");
    }
    GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1");
    GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "300000");
    GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", support::inParallelSuite() ? "1" : "0");
    GVDrvHnd::ClearEventInitList();
    g_GvUsbMan.SetLastError(0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = (openReaders(), true);
    fuzz::expect(ready, "the readers are open");
    fuzz::Input input(data, size);
    GVLOG_SetLevel(static_cast<int>(size % 4));
    while (!input.atEnd()) {
        call(input.line());
    }
    GVLOG_SetLevel(0);
    restore();
    fuzz::expect(fake_libusb::openHandles("dev1") == 1 && fake_libusb::openHandles("dev2") == 1,
                 "both readers are still open");
    fuzz::expectNoMisuse();
    return 0;
}
