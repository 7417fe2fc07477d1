// Hot-plug events: registrations, handlers that call the library, polls and deliveries.

#include "call_sequences_attempt.h"
#include "fake_libusb_state.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

namespace fake = fake_libusb;

namespace call_sequences {

Session* currentSession = nullptr;

namespace {

constexpr std::size_t maxStepsInHandler = 3;

// Run the next steps of the handler program. A planned allocation failure applies only to the outer step.
void runInHandler(Session& session) {
    const std::span<const std::uint8_t> program(session.handlerProgram);
    Input outerInput = session.input;
    session.input = Input(program.subspan(session.handlerPosition));
    const Changes outerChanges = session.outerChanges;
    session.inHandler = true;
    for (std::size_t step = 0; step < maxStepsInHandler && !session.input.atEnd(); ++step) {
        runInstruction(session);
    }
    session.inHandler = false;
    session.outerChanges = outerChanges;
    session.handlerPosition = program.size() - session.input.left();
    session.input = outerInput;
}

void handle(GVUSB_EventCallback self, int devHnd, unsigned devId, const char* text) {
    const support::AllocationPause pause;
    Session& session = *currentSession;
    const std::lock_guard turn(session.handlerTurn);
    ++session.handlerCalls;
    session.model.follow(session.outerChanges);
    expect(*text == '\0', "an event has a text");
    const bool disconnects = session.polling ? devHnd != 0 : devId == 0;
    expect(session.polling ? disconnects || devId != 0 : devHnd == 0, "an event has unknown arguments");
    const Model::Registration registration = {disconnects ? GVUSB_EVENT_DISCONNECT : GVUSB_EVENT_CONNECT,
                                              self};
    expect(std::ranges::count(session.model.registrations, registration) == 1,
           "a handler runs that is not registered for the event");
    expect(!session.polling ||
               session.model.reported.insert({session.scansBeforePoll, registration, devId}).second,
           "an event is reported twice between two scans");
    runInHandler(session);
}

template <int number>
void handler(int devHnd, unsigned devId, const char* text) {
    handle(&handler<number>, devHnd, devId, text);
}

constexpr std::array<GVUSB_EventCallback, 4> handlers = {&handler<0>, &handler<1>, &handler<2>, nullptr};

struct RegistrationArguments {
    explicit RegistrationArguments(Session& session) {
        static constexpr std::array<std::uint32_t, 4> events = {GVUSB_EVENT_CONNECT, GVUSB_EVENT_DISCONNECT,
                                                                0, 3};
        const std::uint8_t kind = session.input.byte();
        event = {.uiEvent = events[kind % 4],
                 .uiReserved1 = kind,
                 .uiCallbackType = (kind & 0x1C) == 0x1C ? 0U : std::uint32_t{GVUSB_CALLBACK_FUNCTION},
                 .uiReserved2 = 0,
                 .cbFct = session.input.oneOf(handlers)};
        devHnd = (kind & 0xE0) == 0xE0 ? chooseHandle(session) : 0;
        isNull = (kind & 0xE0) == 0xC0;
    }

    // The code for invalid arguments, 0 if the library looks at the registrations.
    [[nodiscard]] int error() const {
        if (isNull) {
            return GVUSB_ERR_NULL_POINTER;
        }
        if (devHnd != 0) {
            return GVUSB_ERR_UNSUPPORTED_OPTION;
        }
        return event.uiCallbackType == GVUSB_CALLBACK_FUNCTION ? 0 : int{GVUSB_ERR_UNKNOWN_PARAMETER};
    }
    GVUSB_EVENT_INIT* pointer() { return isNull ? nullptr : &event; }

    GVUSB_EVENT_INIT event = {};
    int devHnd = 0;
    bool isNull = false;
};

// A replugged reader takes its old place, the first entry with its device ID. A reader that has its own entry was
// not replugged.
void checkReturned(const Session& session) {
    const manager_lists::Devices list = manager_lists::scanList();
    const auto hasEntry = [&](const Device& device) {
        return std::ranges::any_of(list, [&](const GVDevice* record) {
            return record != nullptr && record->usbdev == device.usbDevice;
        });
    };
    for (const Device& device : session.bus.devices()) {
        const unsigned devId = device.identity().value_or(0);
        if (devId != 0 && device.plugged && device.usable && !hasEntry(device)) {
            const auto entry = std::ranges::find_if(
                list, [&](const GVDevice* record) { return record != nullptr && record->devId == devId; });
            expect(entry == list.end() || session.bus.find((*entry)->usbdev)->plugged,
                   "a replugged reader is not in its old place");
        }
    }
}

bool allReported(Session& session, const std::vector<libusb_device*>& usbDevices) {
    const std::unique_lock turn(session.handlerTurn, std::try_to_lock);
    if (!turn) {
        return false;
    }
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    std::set<const GVDevice*> records(g_GvUsbMan.m_ScanList.begin(), g_GvUsbMan.m_ScanList.end());
    records.insert(g_GvUsbMan.m_DeviceList.begin(), g_GvUsbMan.m_DeviceList.end());
    records.erase(nullptr);
    const fake::Access all;
    return std::ranges::all_of(usbDevices, [&](const libusb_device* usbDevice) {
        return usbDevice->references ==
               std::ranges::count(records, usbDevice, [](const GVDevice* record) { return record->usbdev; });
    });
}

// The event queue has a reference to a device until it has reported the event.
void waitUntilReported(Session& session, const std::vector<libusb_device*>& usbDevices) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!allReported(session, usbDevices)) {
        expect(std::chrono::steady_clock::now() < end, "the events are not reported");
        std::this_thread::yield();
    }
}

} // namespace

void addEventHandler(Session& session) {
    RegistrationArguments arguments(session);
    const auto result =
        attempt(session, [&] { return GVUSB_AddEventHandler(arguments.devHnd, arguments.pointer()); });
    if (!result) {
        return;
    }
    expectEqual(*result, arguments.error(), "the result of adding a handler");
    expectLastError(*result);
    const Model::Registration wanted = {arguments.event.uiEvent, arguments.event.cbFct};
    auto& known = session.model.registrations;
    if (*result == 0 && std::ranges::find(known, wanted) == known.end()) {
        known.push_back(wanted);
    }
}

void delEventHandler(Session& session) {
    RegistrationArguments arguments(session);
    const auto result =
        attempt(session, [&] { return GVUSB_DelEventHandler(arguments.devHnd, arguments.pointer()); });
    expect(result.has_value(), "removing a handler allocates memory");
    int expected = arguments.error();
    if (expected == 0) {
        const Model::Registration wanted = {arguments.event.uiEvent, arguments.event.cbFct};
        const bool removed = std::erase(session.model.registrations, wanted) > 0;
        expected = removed ? 0 : int{GVUSB_ERR_UNKNOWN_PARAMETER};
    }
    expectEqual(*result, expected, "the result of removing a handler");
    expectLastError(*result);
}

void poll(Session& session) {
    session.outerChanges = {.replaces = true, .mayFailToOpen = session.mayFail()};
    session.polling = true;
    session.scansBeforePoll = session.model.scans;
    const int before = manager_lists::lastError();
    const int handlerCalls = session.handlerCalls;
    const auto result = attempt(session, [] {
        g_GvUsbMan.UpdateDevices();
        return 0;
    });
    session.polling = false;
    session.model.follow(session.outerChanges);
    if (!result) {
        expectEqual(session.handlerCalls, handlerCalls, "the number of reports of a poll that failed");
    } else if (handlerCalls == session.handlerCalls) {
        expectLastError(before);
        if (!session.mayFail()) {
            checkReturned(session);
        }
    }
}

void deliver(Session& session) {
    session.outerChanges = {};
    std::vector<libusb_device*> usbDevices;
    for (const Device& device : session.bus.devices()) {
        usbDevices.push_back(device.usbDevice);
    }
    const std::size_t events = 1 + session.input.number(3);
    const int before = manager_lists::lastError();
    const int handlerCalls = session.handlerCalls;
    for (std::size_t i = 0; i < events && !usbDevices.empty(); ++i) {
        const std::size_t chosen = session.input.number(usbDevices.size());
        const std::size_t kind = session.input.number(4);
        const auto delivery = kind % 2 == 0 ? fake::Delivery::plain : fake::Delivery::insideEventHandling;
        const std::string name = [&] {
            const fake::Access all;
            return usbDevices[chosen]->name;
        }();
        const auto result = attempt(session, [&] {
            return kind < 2 ? fake::fireArrived(name, delivery) : fake::fireLeft(name, delivery);
        });
        expect(result.has_value(), "a delivery runs out of memory");
        waitUntilReported(session, usbDevices);
    }
    session.model.follow({});
    expectEqual(fake::registeredCallbacks(), 2, "the number of libusb's callbacks");
    if (handlerCalls == session.handlerCalls) {
        expectLastError(before);
    }
}

} // namespace call_sequences
