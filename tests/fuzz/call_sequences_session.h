// A running program: its input, its bus, its model, and the steps that its event handlers run.
#pragma once

#include "call_sequences_model.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace call_sequences {

struct Session {
    explicit Session(Input program)
        : input(program) {}

    // Whether the program has asked for failures.
    [[nodiscard]] bool mayFail() const noexcept { return bus.failing() || failingAllocation > 0; }

    Input input;
    Bus bus;
    Model model{bus};
    std::size_t failingAllocation = 0; // of the next call, 0 for none
    // Handlers may run in a thread of the library. The lock gives exclusive access to the session.
    std::mutex handlerTurn;
    bool inHandler = false;
    int handlerCalls = 0;
    Changes outerChanges;                     // of the step that runs handlers
    bool polling = false;                     // whether that step is a poll
    int scansBeforePoll = 0;                  // the number of scans when that poll started
    std::vector<std::uint8_t> handlerProgram; // the steps for handlers, each run once
    std::size_t handlerPosition = 0;
};

// For event handlers.
extern Session* currentSession;

// Call the library with arguments from the input, and check the result and the state afterwards.
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

// Events without a call of the application.
void poll(Session& session);
void deliver(Session& session);

// Run one instruction. In a handler, skip an instruction that handlers must not run.
void runInstruction(Session& session);
void printInstructionCounts(); // to standard error

} // namespace call_sequences
