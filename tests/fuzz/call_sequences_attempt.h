// Run a library call, in which an allocation fails if the program has asked for it.
#pragma once

#include "../unit/manager/manager_lists.h"
#include "allocation_failure.h"
#include "call_sequences_check.h"
#include "call_sequences_session.h"

#include <new>
#include <optional>

namespace call_sequences {

// Return what the call returned, or nothing if it threw std::bad_alloc.
template <class Call>
std::optional<int> attempt(Session& session, Call call) {
    if (session.inHandler || session.failingAllocation == 0) {
        return call();
    }
    const support::AllocationFailure failure(session.failingAllocation);
    try {
        return call();
    } catch (const std::bad_alloc&) {
        expect(failure.happened(), "std::bad_alloc without a failed allocation");
        return std::nullopt;
    }
}

inline void expectLastError(int expected) {
    expectEqual(manager_lists::lastError(), expected, "the last error");
}

// Choose a handle: mostly that of an open reader, otherwise 0, a negative, closed or unknown one.
inline int chooseHandle(Session& session) {
    const std::size_t kind = session.input.number(12);
    const std::size_t index = session.input.byte();
    const auto& readers = session.model.readers();
    const auto& known = session.model.knownHandles();
    switch (kind) {
    case 0:
        return 0;
    case 1:
        return -1;
    case 2:
        return index % 2 == 0 ? -2 : std::numeric_limits<int>::min();
    case 3:
        return index % 2 == 0 ? 5 : std::numeric_limits<int>::max();
    case 4:
    case 5:
        return known.empty() ? 7 : std::next(known.begin(), static_cast<long>(index % known.size()))->first;
    default:
        return readers.empty() ? 9 : readers[index % readers.size()].devHnd;
    }
}

// The code that an exported function returns for an invalid handle, 0 if it looks the handle up.
inline int invalidHandleCode(int devHnd) {
    if (devHnd < 0) {
        return GVUSB_ERR_NEGATIVE_HANDLE;
    }
    return devHnd == 0 ? GVUSB_ERR_NULL_HANDLE : GVUSB_OK;
}

} // namespace call_sequences
