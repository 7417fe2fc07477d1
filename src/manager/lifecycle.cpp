#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/own_thread.h"
#include "base/owner.h"
#include "base/version.h"
#include "manager/configuration.h"
#include "manager/libusb_events.h"

#include <optional>

#include <sys/stat.h>

// Older versions of libusb may lack these functions. Without them, its descriptors are assumed to be open.
#pragma weak libusb_get_pollfds
#pragma weak libusb_free_pollfds

// In this order, because the destructor of the manager still uses the registrations.
constinit Mutex g_MtxEvtInitAry;
constinit std::vector<_GVUSB_INTERNAL_EVENT_INIT*> g_EvtInitAry;
GVDrvHnd g_GvUsbMan;
constinit bool managerIsUsable = false;

namespace {

// A constant instead of LIBUSB_API_VERSION, because a program can run with an older libusb than it was built with.
constexpr unsigned int usedLibUsbApi = 0x01000105;

bool startLibUsb() {
    const BlockedSignals blocked; // libusb starts a thread
    return libusb_init(nullptr) == LIBUSB_SUCCESS;
}

// Whether libusb's descriptors are open. A program that becomes a daemon may have closed all descriptors.
bool descriptorsAreOpen() {
    if (&libusb_get_pollfds == nullptr || &libusb_free_pollfds == nullptr) {
        return true;
    }
    const Owner<const libusb_pollfd*, libusb_free_pollfds> all(libusb_get_pollfds(nullptr));
    bool open = true;
    for (const libusb_pollfd** next = all.get(); next != nullptr && *next != nullptr; ++next) {
        struct stat status = {};
        open = open && fstat((*next)->fd, &status) == 0;
    }
    return open;
}

} // namespace

GVDrvHnd::GVDrvHnd() {
    allowEventHandlers();
    ConfigurationFile configurationFile;
    m_bLibUsbUsable = startLibUsb();
    const libusb_version* const libUsbVersion = libusb_get_version();
    if (libusb_has_capability(LIBUSB_CAP_HAS_CAPABILITY) == 0) {
        SetLastError(GVUSB_ERR_LIBUSB_API);
    }
    m_bThreadStarted = startOwnThread(m_Thread, &CheckDevicesThread, this);
    m_bHasHotPlug = libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0;
    ApplyDebugLevels();

    if (const std::optional<Configuration> configuration = configurationFile.read()) {
        m_iLibUsbDebugLevel = configuration->libUsbDebugLevel;
        m_iDebugLevel = configuration->debugLevel;
        m_iHotPlugMode = configuration->hotPlugMode;
        relaxed::store(m_bParallel, configuration->parallel);
        relaxed::store(m_uiUpdateRate, configuration->updateRate);
        if (configuration->logFile[0] != '\0') {
            openLogFile(configuration->logFile);
        }
        ApplyDebugLevels();
    }
    if (m_iHotPlugMode == 2 && !m_bHasHotPlug) {
        m_iHotPlugMode = 0;
    }

    LogStart(*libUsbVersion);
    if (m_iHotPlugMode == 1) {
        relaxed::store(m_bSuspend, false);
        log<Level::manager>("init", "gvUSB-UpdateRate=", relaxed::load(m_uiUpdateRate) / 1000, "msec");
    } else if (m_iHotPlugMode == 2) {
        RegisterHotPlugCallbacks();
    }
    relaxed::store(managerIsUsable, true);
}

GVDrvHnd::~GVDrvHnd() noexcept(false) {
    // A forked child must not touch the readers, which it shares with its parent.
    if (!m_Process.isCurrent()) {
        relaxed::store(managerIsUsable, false);
        return;
    }
    log<Level::manager>("exit", "cleaning up ...");
    const bool inHandler = leaveEventHandlerForExit();
    StopThread();
    m_HotPlugQueue.Stop();
    relaxed::store(managerIsUsable, false);
    // Never unlocked, so that a scan that is wrongly started now waits instead of using destroyed objects.
    m_mtxScanList.lock();
    bool contextInUse = m_bLibUsbUsable && eventsAreBeingHandled();
    if (m_iHotPlugMode == 2 && m_bLibUsbUsable) {
        libusb_hotplug_deregister_callback(nullptr, m_hCbConnect);
        libusb_hotplug_deregister_callback(nullptr, m_hCbDisconnect);
        contextInUse = awaitDeregisteredCallbacks() || contextInUse;
    }
    ClearEventInitList();
    ClearScanList();
    ClearDeviceList();
    if (m_bLibUsbUsable && !contextInUse && !inHandler) {
        LeaveLibUsb();
    }
    log<Level::manager>("exit", "... done");
    closeLogFile();
}

void GVDrvHnd::ApplyDebugLevels() {
    if (m_bLibUsbUsable) {
        // Deprecated in favor of libusb_set_option, which older versions do not have.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        libusb_set_debug(nullptr, m_iLibUsbDebugLevel);
#pragma GCC diagnostic pop
    }
    GVLOG_SetLevel(m_iDebugLevel);
}

// Call libusb_exit, unless this would free the context under a thread of the application that handles events, or wait
// forever for libusb's own thread, which cannot wake up if the descriptors are closed. Then the context stays. It also stays
// if a handler ends the process: the thread that handled the event is probably between two rounds, where it cannot be
// seen.
void GVDrvHnd::LeaveLibUsb() {
    constexpr std::chrono::milliseconds betweenRounds(1);
    if (!eventsAreHandledWithin(betweenRounds) && descriptorsAreOpen()) {
        libusb_exit(nullptr);
    }
}

void GVDrvHnd::LogStart(const libusb_version& libUsbVersion) {
    if (!isLogged(Level::manager)) {
        return;
    }
    logLine("init", "libUSB-Version=", libUsbVersion.major, ".", libUsbVersion.minor, ".",
            libUsbVersion.micro, ".", libUsbVersion.nano, libUsbVersion.rc, "   ", "API=", std::hex,
            usedLibUsbApi);
    logLine("init", "libUSB-DebugLevel=", m_iLibUsbDebugLevel);
    logLine("init", "libUSB-HasHotPlug=", m_bHasHotPlug);
    logLine("init", "gvUSB-Version=", version::major, ".", version::minor, ".", version::patch, "  ");
    logLine("init", "gvUSB-DebugLevel=", m_iDebugLevel);
    logLine("init", "gvUSB-UseHotPlug=", m_iHotPlugMode);
    if (IsParallel()) {
        logLine("init", "gvUSB-Parallel=1");
    }
}

void GVDrvHnd::RegisterHotPlugCallbacks() {
    if (m_bLibUsbUsable) {
        libusb_hotplug_register_callback(nullptr, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0, GVUSB_VENDOR_ID,
                                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                         &ExecDeviceConnectCallbacks, this, &m_hCbConnect);
        libusb_hotplug_register_callback(nullptr, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0, GVUSB_VENDOR_ID,
                                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                         &ExecDeviceDisconnectCallbacks, this, &m_hCbDisconnect);
    }
    log<Level::manager>("init", "libUSB callbacks registered");
}
