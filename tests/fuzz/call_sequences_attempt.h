// Runs a call of the library, with the failure of an allocation if one is planned.
#pragma once

#include "../unit/manager/manager_lists.h"
#include "allocation_failure.h"
#include "call_sequences_broken.h"
#include "call_sequences_session.h"

#include <new>
#include <optional>

namespace call_sequences {

// What the call returned; nothing when memory ran out.
template <class Call>
std::optional<int> attempt(Session& session, Call call) {
    if (session.inHandler || session.failingAllocation == 0) {
        return call();
    }
    const support::AllocationFailure failure(session.failingAllocation);
    try {
        return call();
    } catch (const std::bad_alloc&) {
        expect(failure.happened(), "memory ran out without a failed allocation");
        return std::nullopt;
    }
}

inline void expectLastError(int expected) {
    expectEqual(manager_lists::lastError(), expected, "the last error");
}

// A handle: of an open reader more often than 0, a negative one, one that was closed or one that never was.
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

// The code with which an export refuses a reader's handle, 0 for one that it looks up.
inline int handleRefusal(int devHnd) {
    if (devHnd < 0) {
        return GVUSB_ERR_NEGATIVE_HANDLE;
    }
    return devHnd == 0 ? GVUSB_ERR_NULL_HANDLE : GVUSB_OK;
}

} // namespace call_sequences
