// The list of event registrations.
//
// g_MtxEvtInitAry guards it and is held while handlers run, so a registration cannot be removed while its handler
// runs.
#pragma once

#include "base/mutex.h"
#include "gvusb.h"

#include <cstdint>
#include <vector>

// The library's copy of an application's registration.
struct _GVUSB_INTERNAL_EVENT_INIT {
    std::uint32_t uiEvent;
    std::uint32_t uiReserved1;
    std::uint32_t uiCallbackType;
    std::uint32_t uiReserved2;
    GVUSB_EventCallback cbFct;
};
static_assert(sizeof(_GVUSB_INTERNAL_EVENT_INIT) == sizeof(_GVUSB_EVENT_INIT));

extern Mutex g_MtxEvtInitAry;
extern std::vector<_GVUSB_INTERNAL_EVENT_INIT*>
    g_EvtInitAry GVUSB_GUARDED_BY(g_MtxEvtInitAry); // in order of registration

// Prepare for the destruction of the manager in a handler that has called exit(): no handler runs any more, and the
// mutex that is held for this handler is released, because the destructor joins threads that may wait for it. Does
// nothing in a thread that is not running a handler. Return whether it was running one.
bool leaveEventHandlerForExit();

// Undo this for a new manager.
void allowEventHandlers();
