#include "failing.h"

#include "allocation_failure.h"
#include "fake_libusb.h"
#include "fake_libusb_functions.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <utility>

namespace failures {

Failing::Failing(Trace trace, std::size_t first, int code, Extent extent)
    : trace_(std::move(trace))
    , first_(first)
    , code_(code)
    , extent_(extent) {
}

bool Failing::fails(std::string_view function, std::string_view device, std::size_t nth) const {
    const std::size_t end = lasts() ? trace_.size() : std::min(first_ + 1, trace_.size());
    for (std::size_t i = first_; i < end; ++i) {
        const Call& call = trace_[i];
        if (call.function == function && (device.empty() || call.device == device) &&
            (nth == 0 || call.nth == nth)) {
            return true;
        }
    }
    return false;
}

std::string Failing::text() const {
    if (first_ >= trace_.size()) {
        return "nothing fails";
    }
    const Call& call = trace_[first_];
    return "call " + std::to_string(first_ + 1) + ", " + call.function + " of '" + call.device +
           (lasts() ? "', and all later ones fail with " : "', fails with ") + std::to_string(code_);
}

struct TraceRecorder::Notes {
    std::mutex mutex;
    Trace trace;
    std::map<std::pair<std::string, std::string>, std::size_t> times;
};

TraceRecorder::TraceRecorder()
    : notes_(std::make_shared<Notes>()) {
    fake_libusb::setHook([notes = notes_](std::string_view function, std::string_view device) {
        if (!fake_libusb::Function(function).fallible()) {
            return;
        }
        const support::AllocationPause pause;
        const std::lock_guard lock(notes->mutex);
        std::pair<std::string, std::string> call(function, device);
        const std::size_t nth = ++notes->times[call];
        notes->trace.push_back({std::move(call.first), std::move(call.second), nth});
    });
}

TraceRecorder::~TraceRecorder() {
    fake_libusb::setHook({});
}

Trace TraceRecorder::trace() const {
    const std::lock_guard lock(notes_->mutex);
    return notes_->trace;
}

LastingFailure::LastingFailure(std::size_t n, int code) {
    auto left = std::make_shared<std::atomic<std::size_t>>(n);
    fake_libusb::setHook([left, code](std::string_view function, std::string_view /*device*/) {
        if (!fake_libusb::Function(function).fallible() || left->load() == 0 || --*left > 0) {
            return;
        }
        for (const fake_libusb::FunctionTraits& each : fake_libusb::functionTraits) {
            if (each.fallible) {
                fake_libusb::failAlways(each.name, code);
            }
        }
    });
}

LastingFailure::~LastingFailure() {
    fake_libusb::setHook({});
    fake_libusb::stopFailing();
}

} // namespace failures
