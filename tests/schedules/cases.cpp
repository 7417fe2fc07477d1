#include "cases.h"

#include "configuration_file.h"
#include "fake_libusb.h"
#include "fake_libusb_state.h"
#include "gvusb.h"
#include "list_consistency.h"
#include "manager/gvdrvhnd.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <utility>

namespace fake = fake_libusb;

namespace schedules {
namespace {

constexpr unsigned firstId = 0xA1;
constexpr unsigned secondId = 0xA2;
constexpr unsigned newId = 0xA3;

const char* textOf(Readers readers) {
    switch (readers) {
    case Readers::one:
        return "one";
    case Readers::two:
        return "two";
    case Readers::unlisted:
        return "unlisted";
    }
    return "";
}

const char* textOf(Beside beside) {
    switch (beside) {
    case Beside::nothing:
        return "nothing";
    case Beside::poll:
        return "poll";
    case Beside::departure:
        return "departure";
    case Beside::comeback:
        return "return";
    case Beside::secondComeback:
        return "second-return";
    case Beside::callback:
        return "callback";
    }
    return "";
}

// What the handler was called with. Handlers run one at a time.
std::vector<std::string> events;
const Targets* targetsOfRun = nullptr;

void noteEvent(const char* what, int devHnd, unsigned devId) {
    events.push_back(std::string(what) + " " + (devHnd != 0 ? handleText(devHnd, *targetsOfRun) : "-") + " " +
                     std::to_string(devId));
}

void noteConnect(int devHnd, unsigned devId, const char* /*text*/) {
    noteEvent("connect", devHnd, devId);
}

void noteDisconnect(int devHnd, unsigned devId, const char* /*text*/) {
    noteEvent("disconnect", devHnd, devId);
}

void registerHandlers() {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &noteConnect};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &noteDisconnect};
    GVUSB_AddEventHandler(0, &connect);
    GVUSB_AddEventHandler(0, &disconnect);
}

std::string hex(unsigned devId) {
    std::array<char, 12> text = {};
    std::snprintf(text.data(), text.size(), "%X", devId);
    return text.data();
}

Targets openReaders(Readers readers) {
    Targets targets;
    fake::plug("first", fake::bulkReader(hex(firstId)));
    fake::plug("second", fake::controlReader(hex(secondId)));
    GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
    targets[0] = {.handle = GVUSB_OpenDevice(firstId), .devId = firstId};
    targets[1] = {.handle = readers == Readers::two ? GVUSB_OpenDevice(secondId) : 0, .devId = secondId};
    if (readers == Readers::unlisted) {
        GVUSB_ClearScanList();
    }
    return targets;
}

void changeBus(Beside beside) {
    switch (beside) {
    case Beside::nothing:
        break;
    case Beside::poll:
    case Beside::callback:
        fake::plug("new", fake::bulkReader(hex(newId)));
        break;
    case Beside::departure:
        fake::unplug("first");
        break;
    case Beside::comeback:
        fake::replug("first", "first again");
        break;
    case Beside::secondComeback:
        fake::replug("second", "second again");
        break;
    }
}

// As the thread that polls and a thread that handles libusb's events do.
void noticeChange(Beside beside) {
    if (beside == Beside::callback) {
        fake::fireArrived("new", fake::Delivery::plain);
    } else {
        g_GvUsbMan.UpdateDevices();
    }
}

std::string listsText(const Targets& targets) {
    std::string text = "scan list:";
    std::array<char, GVUSB_PARAMETER_SIZE> value = {};
    const int size = GVUSB_GetScanListSize();
    for (int i = 0; i < size; ++i) {
        const int code = GVUSB_GetScanListPara(i, "DEVICE-ID", value.data());
        text += " " + (code >= 0 ? std::string(value.data()) : std::to_string(code));
    }
    text += "; device list:";
    for (int handle = GVUSB_GetDeviceList(0); handle > 0; handle = GVUSB_GetDeviceList(handle)) {
        const int code = GVUSB_GetDevicePara(handle, "DEVICE-ID", value.data());
        text += " " + (code >= 0 ? std::string(value.data()) : std::to_string(code));
        text += " " + handleText(handle, targets);
        text += " present " + std::to_string(GVUSB_IsDevicePresent(handle));
        GVUSB_GetDevicePara(handle, "TIMEOUT", value.data());
        text += std::string(" timeout ") + value.data() + ",";
    }
    return text;
}

std::string eventsText() {
    std::string text = "; events:";
    for (const std::string& event : events) {
        text += " " + event + ",";
    }
    return text;
}

// What must hold after every run.
std::string mistakesNow() {
    std::string text;
    std::vector<std::string> names = {"first", "second"};
    text += manager_lists::inconsistencies(names);
    for (std::string& misuse : fake::misuses()) {
        text += "libusb: " + misuse + "\n";
    }
    std::vector<std::string> sorted = events;
    std::ranges::sort(sorted);
    if (std::ranges::adjacent_find(sorted) != sorted.end()) {
        text += "an event was reported twice" + eventsText() + "\n";
    }
    return text;
}

void load(const std::string& configuration) {
    fake::reset();
    fake::forgetDead();
    fake::recordNothing();
    support::setConfigurationText(configuration);
    new (&g_GvUsbMan) GVDrvHnd;
}

std::vector<Case> allCases() {
    std::vector<Case> all;
    for (const Readers readers : {Readers::one, Readers::two, Readers::unlisted}) {
        for (const Beside beside : {Beside::nothing, Beside::poll, Beside::departure, Beside::comeback,
                                    Beside::secondComeback, Beside::callback}) {
            if (beside == Beside::secondComeback && readers != Readers::one) {
                continue;
            }
            for (std::size_t i = 0; i < calls().size(); ++i) {
                // On two readers, both orders differ.
                for (std::size_t j = readers == Readers::two ? 0 : i; j < calls().size(); ++j) {
                    all.push_back({&calls()[i], &calls()[j], readers, beside});
                }
            }
        }
    }
    return all;
}

} // namespace

std::string Case::name() const {
    return std::string(first->name) + "+" + second->name + "/" + textOf(readers) + "/" + textOf(beside);
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = allCases();
    return all;
}

void unloadFirst() {
    g_GvUsbMan.~GVDrvHnd();
}

void loadLast() {
    load("nopnp");
}

Run runOnce(const Case& which, Mode mode, Decider& decider, const StuckHandler& stuck, const Model& model) {
    ignore(&fake::state().mutex);
    ignore(&fake::state().transferChanged);
    Run run;
    runControlled(
        [&] {
            load(std::string(mode == Mode::parallel ? "gvusb_parallel=1\n" : "") +
                 (which.beside == Beside::callback ? "gvusb_hotplug=2\n" : "nopnp\n"));
            events.clear();
            registerHandlers();
            const Targets targets = openReaders(which.readers);
            targetsOfRun = &targets;

            bool changed = false;
            const auto change = [&] {
                if (!std::exchange(changed, true)) {
                    changeBus(which.beside);
                }
            };
            const auto call = [&](const Call& one, const Target& target) {
                const bool inSteps = model.inOrder && (mode == Mode::parallel || one.isSeveralCalls);
                return (inSteps && one.runInSteps != nullptr ? one.runInSteps : one.run)(target, targets);
            };
            std::array<std::string, 2>& results = run.seen.results;
            std::vector<std::function<void()>> bodies = {
                [&] { results[0] = call(*which.first, targets[0]); },
                [&] { results[1] = call(*which.second, targets[which.readers == Readers::two ? 1 : 0]); }};
            if (which.beside != Beside::nothing) {
                bodies.emplace_back([&] {
                    change();
                    yield();
                    noticeChange(which.beside);
                });
            }
            fake::setHook([&](std::string_view, std::string_view) {
                if (run.libusbCalls++ == model.changeAt) {
                    change();
                }
                yield();
            });
            explore(decider, bodies);
            letOthersRun();
            fake::setHook(nullptr);

            run.mistakes = mistakesNow();
            run.seen.afterwards = listsText(targets) + eventsText();
            g_GvUsbMan.~GVDrvHnd();
        },
        stuck);
    run.mistakes += fake::leftovers();
    for (const std::string& misuse : fake::misuses()) {
        run.mistakes += "libusb, at unload: " + misuse + "\n";
    }
    return run;
}

std::string text(const Case& which, const Seen& seen) {
    return std::string(which.first->name) + ": " + seen.results[0] + "; " + which.second->name + ": " +
           seen.results[1] + "; " + seen.afterwards;
}

} // namespace schedules
