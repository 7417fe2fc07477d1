#include "random_calls.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <numeric>

namespace stress {
namespace {

std::array<std::atomic<int>, 16> knownHandles;
std::atomic<unsigned long> events = 0;

std::mutex problemMutex;
std::string problem;

void noteProblem(const std::string& text) {
    const std::lock_guard lock(problemMutex);
    if (problem.empty()) {
        problem = text;
    }
}

// A text buffer that detects writes past its end.
template <std::size_t size>
class TextBuffer {
public:
    TextBuffer() { bytes_.fill(guard_); }
    ~TextBuffer() {
        bool intact = true;
        for (std::size_t i = size; i < bytes_.size(); ++i) {
            intact = intact && bytes_[i] == guard_;
        }
        if (!intact) {
            noteProblem("a text was longer than its buffer");
        }
    }
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;
    operator char*() {
        bytes_[0] = '\0';
        return bytes_.data();
    }

private:
    static constexpr char guard_ = 0x55;
    std::array<char, size + 16> bytes_;
};

void callInHandler(int, unsigned, const char*) {
    static RandomCaller caller(7, handlerSlot());
    ++events;
    for (int i = 0; i < 3; ++i) {
        caller.callInHandler();
    }
}

void countEvent(int, unsigned, const char* text) {
    ++events;
    if (*text != '\0') {
        noteProblem("an event came with a text");
    }
}

constexpr std::array<GVUSB_EVENT_INIT, 4> registrations = {
    {{GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &callInHandler},
     {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &callInHandler},
     {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &countEvent},
     {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &countEvent}}};

// The last operations are those that handlers must not call.
constexpr std::size_t forbiddenInHandlers = 2;
std::array<std::atomic<unsigned long>, 32> callsOf;

} // namespace

struct RandomCaller::Operation {
    const char* function;
    unsigned weight;
    void (*call)(RandomCaller&);
};

const std::vector<RandomCaller::Operation> RandomCaller::operations = {
    {"GVUSB_Scan", 2, [](auto& self) { self.scan(false); }},
    {"GVUSB_ScanAndOpen", 2, [](auto& self) { self.scan(true); }},
    {"GVUSB_GetScanListPara", 6, [](auto& self) { self.getScanListPara(); }},
    {"GVUSB_GetScanListSize", 4, [](auto& self) { self.expectCode(GVUSB_GetScanListSize()); }},
    {"GVUSB_ClearScanList", 1, [](auto& self) { self.expectCode(GVUSB_ClearScanList()); }},
    {"GVUSB_OpenDevice", 10, [](auto& self) { self.openDevice(); }},
    {"GVUSB_CloseDevice", 4, [](auto& self) { self.closeDevice(); }},
    {"GVUSB_IsDevicePresent", 6, [](auto& self) { self.expectCode(GVUSB_IsDevicePresent(self.handle())); }},
    {"GVUSB_GetDeviceList", 6, [](auto& self) { self.getDeviceList(); }},
    {"GVUSB_GetDeviceHnd", 6, [](auto& self) { self.learn(GVUSB_GetDeviceHnd(self.deviceId())); }},
    {"GVUSB_Transceive", 12, [](auto& self) { self.transceive(); }},
    {"GVUSB_Transmit", 8, [](auto& self) { self.transmit(); }},
    {"GVUSB_Receive", 8, [](auto& self) { self.receive(); }},
    {"GVUSB_GetDevicePara", 8, [](auto& self) { self.getDevicePara(); }},
    {"GVUSB_SetDevicePara", 8, [](auto& self) { self.setDevicePara(); }},
    {"GVUSB_GetLastError", 6, [](auto& self) { self.getLastError(); }},
    {"GVUSB_GetErrorText", 4, [](auto& self) { self.getErrorText(); }},
    {"GVUSB_GetDLLVersion", 2, [](auto&) { GVUSB_GetDLLVersion(); }},
    {"GVUSB_GetDrvVersion", 2, [](auto& self) { self.expectCode(GVUSB_GetDrvVersion()); }},
    {"GVUSB_AddEventHandler", 3,
     [](auto& self) {
         GVUSB_EVENT_INIT registration = self.registration();
         self.expectCode(
             GVUSB_AddEventHandler(self.rarely() ? 1 : 0, self.rarely() ? nullptr : &registration));
     }},
    {"GVUSB_DelEventHandler", 2,
     [](auto& self) {
         GVUSB_EVENT_INIT registration = self.registration();
         self.expectCode(
             GVUSB_DelEventHandler(self.rarely() ? 1 : 0, self.rarely() ? nullptr : &registration));
     }},
};

void RandomCaller::run(std::size_t operation) {
    const Calling now(slot_, operations[operation].function);
    ++callsOf[operation];
    operations[operation].call(*this);
}

void RandomCaller::call() {
    static const unsigned total =
        std::accumulate(operations.begin(), operations.end(), 0U,
                        [](unsigned sum, const Operation& operation) { return sum + operation.weight; });
    unsigned left = pick(total);
    std::size_t chosen = 0;
    for (; left >= operations[chosen].weight; ++chosen) {
        left -= operations[chosen].weight;
    }
    run(chosen);
}

void RandomCaller::callInHandler() {
    run(pick(static_cast<unsigned>(operations.size() - forbiddenInHandlers)));
}

int RandomCaller::handle() {
    if (pick(16) == 0) {
        constexpr std::array odd = {-2, -1, 0, 1, 0x7FFFFFFF};
        return odd[pick(odd.size())];
    }
    return knownHandles[pick(knownHandles.size())];
}

void RandomCaller::learn(int devHnd) {
    expectCode(devHnd);
    if (devHnd > 0) {
        knownHandles[pick(knownHandles.size())] = devHnd;
    }
}

const char* RandomCaller::protocol() {
    return rarely() ? oneOf({"tesk-rci2", "TESK-RCI", "", nullptr}) : GVUSB_PROTOCOL;
}

void RandomCaller::expectCode(int result) {
    if (result < 0 && (result > GVUSB_ERR_EMPTY_DEVICE_LIST || result < GVUSB_ERR_INTERNAL)) {
        noteProblem(std::string(slot_.function) + " returned " + std::to_string(result));
    }
}

GVUSB_EVENT_INIT RandomCaller::registration() {
    GVUSB_EVENT_INIT one = registrations[pick(registrations.size())];
    if (rarely()) {
        one.uiCallbackType = 1;
    }
    return one;
}

void RandomCaller::scan(bool open) {
    constexpr std::array options = {1, 2, 2, 3, 3, 15, 0x20000, 7};
    int option = options[pick(options.size())];
    GVUSB_SCANSEARCH search = {};
    search.mask = static_cast<int>(pick(8));
    std::snprintf(search.devId, sizeof search.devId, "%X", deviceId());
    std::strcpy(search.famName, oneOf({"DESKTOP", "GATE"}));
    std::strcpy(search.devName, "READER ONE");
    if (pick(4) == 0) {
        option |= GVUSB_SCAN_SEARCH;
    }
    GVUSB_SCANSEARCH* const wanted = pick(8) == 0 ? nullptr : &search;
    if (open) {
        learn(GVUSB_ScanAndOpen(option, wanted));
    } else {
        expectCode(GVUSB_Scan(option, wanted));
    }
}

void RandomCaller::getScanListPara() {
    TextBuffer<GVUSB_PARAMETER_SIZE> value;
    const char* const key =
        oneOf({"DEVICE-ID", "DEVICENAME", "familyname", "DEVICEHND", "TYPENUMBER", "NONE", nullptr});
    expectCode(GVUSB_GetScanListPara(static_cast<int>(pick(10)) - 1, key, value));
}

void RandomCaller::openDevice() {
    learn(GVUSB_OpenDevice(deviceId()));
}

void RandomCaller::closeDevice() {
    expectCode(GVUSB_CloseDevice(handle()));
}

void RandomCaller::getDeviceList() {
    learn(GVUSB_GetDeviceList(pick(2) == 0 ? 0 : handle()));
}

void RandomCaller::transceive() {
    std::array<unsigned char, 80> frame = {};
    std::array<unsigned char, 80> answer = {};
    frame[0] = static_cast<unsigned char>(pick(256));
    const int result =
        GVUSB_Transceive(handle(), protocol(), 0, rarely() ? nullptr : frame.data(), pick(frame.size()),
                         rarely() ? nullptr : answer.data(), pick(answer.size()));
    expectCode(result);
    if (result > static_cast<int>(answer.size())) {
        noteProblem("more was received than there was room for");
    }
}

void RandomCaller::transmit() {
    std::array<unsigned char, 80> frame = {};
    expectCode(GVUSB_Transmit(handle(), protocol(), frame.data(), pick(frame.size())));
}

void RandomCaller::receive() {
    std::array<unsigned char, 80> answer = {};
    expectCode(GVUSB_Receive(handle(), protocol(), answer.data(), pick(answer.size())));
}

void RandomCaller::getDevicePara() {
    TextBuffer<GVUSB_PARAMETER_SIZE> value;
    const char* const key = oneOf({"TIMEOUT", "DEVICEHND", "DEVICE-ID", "devicename", "FAMILYNAME",
                                   "INTERFACE", "TYPENUMBER", "HOTPLUG-MODE", "NONE", nullptr});
    expectCode(GVUSB_GetDevicePara(handle(), key, value));
}

void RandomCaller::setDevicePara() {
    switch (pick(4)) {
    case 0:
        expectCode(
            GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", oneOf({"10", "200", "1000", "5", "x"})));
        break;
    case 1:
        expectCode(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", oneOf({"0", "0", "1", "2"})));
        break;
    default:
        expectCode(GVUSB_SetDevicePara(
            handle(), oneOf({"TIMEOUT", "RESETPIPE", "RESETDEVICE", "CANCEL", "NONE", nullptr}),
            oneOf({"1", "1000", "0", "", nullptr})));
    }
}

void RandomCaller::getLastError() {
    TextBuffer<GVUSB_TEXT_SIZE> text;
    int code = 0;
    expectCode(GVUSB_GetLastError(pick(2) == 0 ? 0 : handle(), &code, text));
}

void RandomCaller::getErrorText() {
    TextBuffer<GVUSB_TEXT_SIZE> text;
    expectCode(GVUSB_GetErrorText(static_cast<int>(pick(120)) - 1210,
                                  rarely() ? nullptr : static_cast<char*>(text)));
}

Slot& handlerSlot() {
    static Slot slot("event handler");
    return slot;
}

void removeHandlers() {
    for (GVUSB_EVENT_INIT registration : registrations) {
        GVUSB_DelEventHandler(0, &registration);
    }
}

std::vector<std::string> RandomCaller::functionsNotCalled() {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        if (callsOf[i] == 0) {
            names.emplace_back(operations[i].function);
        }
    }
    return names;
}

unsigned long callCount() {
    return std::accumulate(callsOf.begin(), callsOf.end(), 0UL);
}

unsigned long eventCount() {
    return events;
}

std::string firstProblem() {
    const std::lock_guard lock(problemMutex);
    return problem;
}

} // namespace stress
