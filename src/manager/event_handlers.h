// The list of event registrations.
//
// g_MtxEvtInitAry guards it and is held while handlers run, so that no registration vanishes under a running
// handler.
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

// A handler may end the process by calling exit(), which tears the manager down inside the handler. Then no
// handler runs any more, and the mutex that this one holds is given back, as whoever waits for it has to end
// first. In a thread that is not running a handler this does nothing. Returns whether it was running one.
bool leaveEventHandlerForExit();

// Undoes that for a new manager.
void allowEventHandlers();
