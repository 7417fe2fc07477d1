// What the library can be asked to do, each in the situations that make a difference, with the outcome that the
// failure of any of its calls into libusb has.
//
// GVUSB_GetDevicePara and GVUSB_GetScanListPara with the key "PRESENT" are not among them: they never return.
#pragma once

#include "failing.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace failures {

// Last errors that an operation leaves as they are: what the sweep stores before it runs one.
inline constexpr int earlierError = -1152;

struct Outcome {
    int result = 0;
    unsigned handleOf = 0;                       // the result is the handle of this reader instead
    std::optional<int> lastError = std::nullopt; // the manager's; follows from the result unless given
    unsigned reader = 0;                         // an open reader whose own last error is...
    int readerError = 0;                         // ... this
    std::optional<std::vector<unsigned>> scanned = std::nullopt;   // device IDs in the scan list
    std::optional<std::vector<std::string>> events = std::nullopt; // reported
};

struct Operation {
    const char* name;
    void (*prepare)();
    int (*run)();
    Outcome (*outcome)(const Failing&);

    // Undoes what the operation did before it is tried again, where that is needed.
    void (*restore)() = [] {};

    // What holds once it has been tried again; gets the events of both times.
    void (*settled)(const std::vector<std::string>& events) = [](const std::vector<std::string>&) {};

    const char* configuration = "nopnp";
    bool polls = false;      // in a thread of its own, as configured
    bool callsLibusb = true; // functions that can fail
    // libusb's frames are below: memory that has run out there costs the event, as nothing can be thrown.
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
std::vector<Operation> quietOperations(); // those that never call libusb

std::vector<Operation> allOperations();

} // namespace failures
