// The operations of the library, each in all relevant situations, with the expected outcome if any of its
// libusb calls fails.
//
// GVUSB_GetDevicePara() and GVUSB_GetScanListPara() with the key "PRESENT" are missing because they never
// return.
#pragma once

#include "failing.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace failures {

// A last error that the sweep stores before an operation, to detect whether the operation changes it.
inline constexpr int earlierError = -1152;

struct Outcome {
    int result = 0;
    unsigned handleOf = 0;                       // if set, the result is the handle of this reader
    std::optional<int> lastError = std::nullopt; // the manager's; if not set, it follows from the result
    unsigned reader = 0;                         // an open reader whose own last error is checked
    int readerError = 0;                         // the last error of `reader`
    std::optional<std::vector<unsigned>> scanned = std::nullopt;   // device IDs in the scan list
    std::optional<std::vector<std::string>> events = std::nullopt; // reported
};

struct Operation {
    const char* name;
    void (*prepare)();
    int (*run)();
    Outcome (*outcome)(const Failing&);

    // Restore the situation before the operation is repeated, if necessary.
    void (*restore)() = [] {};

    // Check the state after the repetition, given the events of both runs.
    void (*settled)(const std::vector<std::string>& events) = [](const std::vector<std::string>&) {};

    const char* configuration = "nopnp";
    bool polls = false;      // in the worker thread, as configured
    bool callsLibusb = true; // only fallible functions count
    // Called from libusb's C code, which cannot pass exceptions: if memory runs out, the event is lost.
    bool mayLoseEvents = false;
};

inline void PrintTo(const Operation& operation, std::ostream* stream) {
    *stream << operation.name;
}

std::vector<Operation> scanOperations();
std::vector<Operation> openingOperations();
std::vector<Operation> transferOperations();
std::vector<Operation> parameterOperations();
std::vector<Operation> hotPlugOperations();
std::vector<Operation> lifecycleOperations();
std::vector<Operation> quietOperations(); // operations that call no fallible libusb function

std::vector<Operation> allOperations();

} // namespace failures
