#include "manager/gvdrvhnd.h"

#include "base/log.h"

#include <unistd.h>

namespace {

// Logs the end of the thread, also if it is cancelled in its sleep.
struct StopLogger {
    ~StopLogger() {
        if (isLogged(Level::poll)) {
            GVLOG_Msg("thread", "stop");
        }
    }
};

void sleepCancellably(unsigned int microseconds) {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    usleep(microseconds);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

} // namespace

void* GVDrvHnd::CheckDevicesThread(void* manager) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    GVDrvHnd& self = *static_cast<GVDrvHnd*>(manager);
    log<Level::poll>("thread", "start");
    const StopLogger stopLogger;
    while (!relaxed::load(self.m_bStopThread)) {
        sleepCancellably(relaxed::load(self.m_uiUpdateRate));
        if (relaxed::load(self.m_bSuspend)) {
            continue;
        }
        if (relaxed::load(self.m_bStopThread)) {
            break;
        }
        log<Level::poll>("thread", "next update");
        self.UpdateDevices();
    }
    return nullptr;
}

// Waits for a poll in progress, but not for the end of the sleep, which can take more than an hour. If a handler calls
// exit() in this thread, the thread cannot join itself.
void GVDrvHnd::StopThread() {
    relaxed::store(m_bStopThread, true);
    if (m_bThreadStarted && pthread_equal(m_Thread, pthread_self()) == 0) {
        pthread_cancel(m_Thread);
        pthread_join(m_Thread, nullptr);
    }
}
