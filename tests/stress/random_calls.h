// Calls every exported function with random arguments, valid and invalid.
//
// Each object belongs to one thread at a time. All objects share the handles that they learn.
#pragma once

#include "gvusb.h"
#include "watchdog.h"

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

namespace stress {

class RandomCaller {
public:
    RandomCaller(unsigned seed, Slot& slot)
        : random_(seed)
        , slot_(slot) {}

    void call();

    // Like call(), without the functions that a handler must not call.
    void callInHandler();

    // The functions that have not been called yet.
    static std::vector<std::string> functionsNotCalled();

private:
    struct Operation;
    static const std::vector<Operation> operations;

    void run(std::size_t operation);
    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() >> 8) % below; }
    bool rarely() { return pick(64) == 0; }
    const char* oneOf(std::initializer_list<const char*> texts) {
        return texts.begin()[pick(static_cast<unsigned>(texts.size()))];
    }
    unsigned deviceId() { return 0xA0 + pick(8); }
    int handle();
    void learn(int devHnd);
    const char* protocol();
    void expectCode(int result);
    GVUSB_EVENT_INIT registration();

    void scan(bool open);
    void getScanListPara();
    void openDevice();
    void closeDevice();
    void getDeviceList();
    void transceive();
    void transmit();
    void receive();
    void getDevicePara();
    void setDevicePara();
    void getLastError();
    void getErrorText();

    std::minstd_rand random_;
    Slot& slot_;
};

// The slot that all handlers use, because they run one at a time.
Slot& handlerSlot();

// Remove all event handlers.
void removeHandlers();

// The total number of calls.
unsigned long callCount();

// How often handlers have been called.
unsigned long eventCount();

// The first problem, "" for none: an invalid result, or a text longer than permitted.
std::string firstProblem();

} // namespace stress
