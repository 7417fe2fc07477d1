// One program in progress: its input, its bus, what it may rely on, and what its event handlers shall do.
#pragma once

#include "call_sequences_model.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace call_sequences {

struct Session {
    explicit Session(Input program)
        : input(program) {}

    // Whether what a call does depends on failures that the program has asked for.
    [[nodiscard]] bool mayFail() const noexcept { return bus.failing() || failingAllocation > 0; }

    Input input;
    Bus bus;
    Model model{bus};
    std::size_t failingAllocation = 0; // of the next call, 0 for none
    // Handlers may run in a thread of the library. Who holds this has the session, and the library, to itself.
    std::mutex handlerTurn;
    bool inHandler = false;
    int handlerCalls = 0;
    Changes outerChanges;                     // of the step that runs handlers
    bool polling = false;                     // whether that step is a poll
    int scansBeforePoll = 0;                  // its reports belong to the period after these
    std::vector<std::uint8_t> handlerProgram; // what handlers do, used up front to back
    std::size_t handlerPosition = 0;
};

// The one in progress, for event handlers.
extern Session* present;

// Calls of the library, each with arguments from the input, and what they may return and leave behind.
void scan(Session& session);
void scanAndOpen(Session& session);
void getScanListPara(Session& session);
void getScanListSize(Session& session);
void clearScanList(Session& session);
void openDevice(Session& session);
void closeDevice(Session& session);
void isDevicePresent(Session& session);
void getDeviceList(Session& session);
void getDeviceHnd(Session& session);
void transceive(Session& session);
void transmit(Session& session);
void receive(Session& session);
void getDevicePara(Session& session);
void setDevicePara(Session& session);
void addEventHandler(Session& session);
void delEventHandler(Session& session);
void getLastError(Session& session);
void getErrorText(Session& session);
void getVersions(Session& session);

// What happens without a call of the application.
void poll(Session& session);
void deliver(Session& session);

// One instruction of the program; in a handler only one that a handler may run.
void runInstruction(Session& session);
void tellInstructions(); // how often each has been run, on standard error

} // namespace call_sequences
