#include "manager/event_handlers.h"

#include "manager/gvdrvhnd.h"

#include <algorithm>
#include <memory>

namespace {

std::vector<_GVUSB_INTERNAL_EVENT_INIT*>::iterator findRegistration(const _GVUSB_EVENT_INIT& wanted)
    GVUSB_REQUIRES(g_MtxEvtInitAry) {
    return std::find_if(g_EvtInitAry.begin(), g_EvtInitAry.end(),
                        [&](const _GVUSB_INTERNAL_EVENT_INIT* known) {
                            return wanted.uiCallbackType == GVUSB_CALLBACK_FUNCTION &&
                                   known->uiCallbackType == GVUSB_CALLBACK_FUNCTION &&
                                   known->uiEvent == wanted.uiEvent && known->cbFct == wanted.cbFct;
                        });
}

// The thread that is running handlers, 0 for none. A thread that finds itself here is running one.
pthread_t handlerThread = 0;
bool exiting = false;

class RunningHandlers {
public:
    RunningHandlers() { relaxed::store(handlerThread, pthread_self()); }
    ~RunningHandlers() { relaxed::store(handlerThread, 0); }
    RunningHandlers(const RunningHandlers&) = delete;
    RunningHandlers& operator=(const RunningHandlers&) = delete;
};

} // namespace

void allowEventHandlers() {
    relaxed::store(exiting, false);
}

bool leaveEventHandlerForExit() GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    if (relaxed::load(handlerThread) != pthread_self()) {
        return false;
    }
    relaxed::store(exiting, true);
    relaxed::store(handlerThread, 0);
    g_MtxEvtInitAry.unlock();
    return true;
}

int GVDrvHnd::AddEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) {
    if (devHnd != 0) {
        return SetLastError(GVUSB_ERR_UNSUPPORTED_OPTION);
    }
    if (registration->uiCallbackType != GVUSB_CALLBACK_FUNCTION) {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    AddToEventInitList(registration);
    return SetLastError(GVUSB_OK);
}

int GVDrvHnd::DelEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) {
    if (devHnd != 0) {
        return SetLastError(GVUSB_ERR_UNSUPPORTED_OPTION);
    }
    if (registration->uiCallbackType != GVUSB_CALLBACK_FUNCTION || !RemoveFromEventInitList(registration)) {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    return SetLastError(GVUSB_OK);
}

bool GVDrvHnd::AddToEventInitList(_GVUSB_EVENT_INIT* registration) {
    const MutexLock lock(g_MtxEvtInitAry);
    if (findRegistration(*registration) != g_EvtInitAry.end()) {
        return false;
    }
    auto copy = std::make_unique<_GVUSB_INTERNAL_EVENT_INIT>();
    copy->uiEvent = registration->uiEvent;
    copy->uiCallbackType = GVUSB_CALLBACK_FUNCTION;
    copy->cbFct = registration->cbFct;
    g_EvtInitAry.push_back(copy.get());
    static_cast<void>(copy.release()); // the list owns it now
    return true;
}

bool GVDrvHnd::RemoveFromEventInitList(_GVUSB_EVENT_INIT* registration) {
    const MutexLock lock(g_MtxEvtInitAry);
    const auto found = findRegistration(*registration);
    if (found == g_EvtInitAry.end()) {
        return false;
    }
    delete *found;
    g_EvtInitAry.erase(found);
    return true;
}

// Called at unloading with the scan-list mutex held, whereas a handler that scans takes the two mutexes in the opposite
// order. No handler runs any more, so tryLock() succeeds, and lock-order checkers ignore it.
void GVDrvHnd::ClearEventInitList() {
    const MutexLock lock(g_MtxEvtInitAry, MutexLock::tryFirst);
    for (const _GVUSB_INTERNAL_EVENT_INIT* registration : g_EvtInitAry) {
        delete registration;
    }
    g_EvtInitAry.clear();
}

void GVDrvHnd::ExecEventInitListCallbacks(unsigned int event, int devHnd, unsigned int devId) {
    const MutexLock lock(g_MtxEvtInitAry);
    if (relaxed::load(exiting) || (event != GVUSB_EVENT_CONNECT && event != GVUSB_EVENT_DISCONNECT)) {
        return;
    }
    const RunningHandlers running;
    for (std::size_t i = 0; i < g_EvtInitAry.size(); ++i) {
        const _GVUSB_INTERNAL_EVENT_INIT& registration = *g_EvtInitAry[i];
        if (registration.uiCallbackType == GVUSB_CALLBACK_FUNCTION && registration.cbFct != nullptr &&
            registration.uiEvent == event) {
            registration.cbFct(devHnd, devId, "");
        }
    }
}
