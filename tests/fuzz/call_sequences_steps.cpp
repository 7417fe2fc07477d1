// The instructions of a program. Each is one byte, followed by its arguments.

#include "call_sequences_attempt.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace fake = fake_libusb;

namespace call_sequences {
namespace {

enum class In { both, main }; // whether handlers may run it

struct Instruction {
    const char* name;
    void (*run)(Session&);
    In where = In::both;
};

template <void (Bus::*event)(Input&)>
void onBus(Session& session) {
    (session.bus.*event)(session.input);
}

void stopFailing(Session& session) {
    session.bus.stopFailing();
}

void failAllocation(Session& session) {
    session.failingAllocation = 1 + session.input.number(32);
}

void setHandlerProgram(Session& session) {
    const auto bytes = session.input.take(session.input.number(24));
    session.handlerProgram.assign(bytes.begin(), bytes.end());
    session.handlerPosition = 0;
}

void setLogLevel(Session& session) {
    GVLOG_SetLevel(static_cast<int>(session.input.number(4)));
}

void setEventsHandled(Session& session) {
    fake::setEventsHandled(session.input.number(2) == 1);
}

// The corpus contains these numbers: append new instructions at the end.
constexpr std::array<Instruction, 36> instructions = {{
    {"plug", &onBus<&Bus::plug>},
    {"unplug", &onBus<&Bus::unplug>},
    {"replug", &onBus<&Bus::replug>},
    {"change string", &onBus<&Bus::changeString>},
    {"change claim", &onBus<&Bus::changeClaim>},
    {"queue answer", &onBus<&Bus::queueAnswer>},
    {"fail a function", &onBus<&Bus::failNextCall>},
    {"fail a call", &onBus<&Bus::failNthCall>},
    {"stop failing", &stopFailing},
    {"change the bus during a call", &onBus<&Bus::changeDuringCall>},
    {"scan", &scan},
    {"scan and open", &scanAndOpen},
    {"get scan-list parameter", &getScanListPara},
    {"get scan-list size", &getScanListSize},
    {"clear scan list", &clearScanList},
    {"open device", &openDevice},
    {"close device", &closeDevice},
    {"is device present", &isDevicePresent},
    {"get device list", &getDeviceList},
    {"get device handle", &getDeviceHnd},
    {"transceive", &transceive},
    {"transmit", &transmit},
    {"receive", &receive},
    {"get device parameter", &getDevicePara},
    {"set device parameter", &setDevicePara},
    {"get last error", &getLastError},
    {"get error text", &getErrorText},
    {"get versions", &getVersions},
    {"add event handler", &addEventHandler, In::main},
    {"delete event handler", &delEventHandler, In::main},
    {"poll", &poll, In::main},
    {"deliver", &deliver, In::main},
    {"set handler program", &setHandlerProgram, In::main},
    {"fail an allocation", &failAllocation, In::main},
    {"set log level", &setLogLevel},
    {"set events handled", &setEventsHandled},
}};

std::array<std::atomic<unsigned long>, instructions.size()> executed;
std::array<std::atomic<unsigned long>, instructions.size()> executedInHandler;

} // namespace

void runInstruction(Session& session) {
    const std::size_t number = session.input.number(instructions.size());
    const Instruction& instruction = instructions[number];
    if (session.inHandler && instruction.where == In::main) {
        return;
    }
    ++(session.inHandler ? executedInHandler : executed)[number];
    setCurrentStep(instruction.name);
    const std::size_t failingAllocation = session.failingAllocation;
    instruction.run(session);
    if (!session.inHandler) {
        if (failingAllocation != 0) {
            session.failingAllocation = 0;
        }
        session.bus.forgetGone();
    }
    session.model.check(session.inHandler);
}

void printInstructionCounts() {
    std::fprintf(stderr, "%-30s %12s %12s\n", "instruction", "in main", "in handlers");
    for (std::size_t i = 0; i < instructions.size(); ++i) {
        std::fprintf(stderr, "%-30s %12lu %12lu\n", instructions[i].name, executed[i].load(),
                     executedInHandler[i].load());
    }
}

} // namespace call_sequences
