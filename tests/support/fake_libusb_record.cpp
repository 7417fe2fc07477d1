// Recording of calls.

#include "fake_libusb_state.h"

#include <utility>

namespace fake_libusb {
namespace {

void record(bool recording) {
    Access all;
    all->test.recording = recording;
    all->test.unrecorded = {};
}

} // namespace

std::vector<std::string> takeCalls() {
    return std::exchange(Access()->test.calls, {});
}

std::string takeCallText() {
    const support::AllocationPause pause;
    std::string text;
    for (const std::string& call : takeCalls()) {
        text += call + "\n";
    }
    return text;
}

void recordNothing() {
    record(false);
}

void recordAll() {
    record(true);
}

void recordAllBut(std::initializer_list<std::string_view> functions) {
    record(true);
    Access all;
    for (const std::string_view function : functions) {
        all->test.unrecorded[Function(function).index()] = true;
    }
}

void recordWithoutBookkeeping() {
    record(true);
    Access all;
    for (std::size_t i = 0; i < functionCount; ++i) {
        all->test.unrecorded[i] = functionTraits[i].bookkeeping;
    }
}

void watchOnlyThisThread() {
    Access()->test.watched = std::this_thread::get_id();
}

std::size_t timesCalled(std::string_view function) {
    Access all;
    return all->test.timesCalled[Function(function).index()];
}

} // namespace fake_libusb
