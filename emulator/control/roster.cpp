#include "control/roster.h"

#include <algorithm>

namespace emulator {

void Roster::checkHostFaultsPossible() const {
    if (hostIsElsewhere()) {
        throw TextError("not possible over USB/IP: the machine that attaches the reader is its host");
    }
}

void Roster::checkPossible(const ReaderDescription& description) const {
    if (!description.kernelDriver.empty()) {
        checkHostFaultsPossible();
    }
    if (hostIsElsewhere() && std::ranges::find(description.endpoints, TransferType::isochronous,
                                               &Endpoint::type) != description.endpoints.end()) {
        throw TextError("not possible over USB/IP: isochronous endpoints");
    }
}

} // namespace emulator
