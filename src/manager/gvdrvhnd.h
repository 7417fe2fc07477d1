// GVDrvHnd: the driver manager. It owns every reader's record, keeps the scan list and the device list, hands
// out device handles, opens and closes readers, and watches the bus for readers that come and go.
//
// One instance exists, g_GvUsbMan, from loading to unloading. Two mutexes guard it, always taken in this
// order: the scan-list mutex, which keeps a scan and an update of the lists apart and guards what has been
// reported, and the device-list mutex, which guards both lists and is held during all work on a reader. A scan
// that opens holds both until the readers that it found are open. Event handlers run with neither of them held,
// under g_MtxEvtInitAry. The other members are constant after construction, or single values that any thread may
// read and write.
#pragma once

#include "base/mutex.h"
#include "base/own_process.h"
#include "base/relaxed.h"
#include "gvusb.h"
#include "manager/event_handlers.h"
#include "manager/hotplug_queue.h"

#include <vector>

#include <libusb.h>
#include <pthread.h>

class GVDevice;

class GVDrvHnd {
public:
    GVDrvHnd();
    virtual ~GVDrvHnd();
    GVDrvHnd(const GVDrvHnd&) = delete;
    GVDrvHnd& operator=(const GVDrvHnd&) = delete;

    // Device list and device handles.
    int NextDeviceHandle() GVUSB_REQUIRES(m_mtxDevList);
    void ClearDeviceList() GVUSB_EXCLUDES(m_mtxDevList);
    int FindFirstOrNextDeviceHandle(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    GVDevice* DL_DeviceOfUsbDev(const libusb_device* dev) GVUSB_REQUIRES(m_mtxDevList);
    GVDevice* DL_DeviceOfDevHnd(int devHnd) GVUSB_REQUIRES(m_mtxDevList);
    int DL_HandleOfDeviceId(unsigned int devId) GVUSB_REQUIRES(m_mtxDevList);
    int IsDevicePresent(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    int Transceive(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len,
                   unsigned char* buf, unsigned int size) GVUSB_EXCLUDES(m_mtxDevList);
    int Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len)
        GVUSB_EXCLUDES(m_mtxDevList);
    int Receive(int devHnd, const char* interfaceName, unsigned char* buf, unsigned int size)
        GVUSB_EXCLUDES(m_mtxDevList);
    int GetLastError(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    int GetDeviceHnd(unsigned int devId) GVUSB_EXCLUDES(m_mtxDevList);

    // Scan and scan list.
    int Scan(int option, _GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    int DiscoverDevices(_GVUSB_SCANSEARCH* search) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    bool IsUsableGavoDevice(libusb_device_descriptor* desc);
    unsigned int ReadDeviceIdOfUsbDev(libusb_device* dev);
    int GetScanListPara(int index, const char* key, char* value) GVUSB_EXCLUDES(m_mtxDevList);
    int GetScanListSize() GVUSB_EXCLUDES(m_mtxDevList);
    void ClearScanList() GVUSB_EXCLUDES(m_mtxDevList);
    GVDevice* SL_DeviceOfUsbDev(const libusb_device* dev) GVUSB_REQUIRES(m_mtxDevList);
    int SL_IndexOfDevId(unsigned int devId) GVUSB_REQUIRES(m_mtxDevList);

    // Opening and closing.
    int OpenAllDevices() GVUSB_EXCLUDES(m_mtxDevList);
    int OpenDevice(int index) GVUSB_EXCLUDES(m_mtxDevList);
    int OpenDevice(unsigned int devId) GVUSB_EXCLUDES(m_mtxDevList);
    int CloseDevice(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);

    // Parameters of the driver, of every open reader, of one.
    int GetDevicePara(int devHnd, const char* key, char* value) GVUSB_EXCLUDES(m_mtxDevList);
    int SetDevicePara(int devHnd, const char* key, const char* value) GVUSB_EXCLUDES(m_mtxDevList);

    // Hot-plug.
    static void* CheckDevicesThread(void* manager);
    void UpdateDevices() GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    static int LIBUSB_CALL ExecDeviceConnectCallbacks(libusb_context* ctx, libusb_device* dev,
                                                      libusb_hotplug_event event, void* manager);
    static int LIBUSB_CALL ExecDeviceDisconnectCallbacks(libusb_context* ctx, libusb_device* dev,
                                                         libusb_hotplug_event event, void* manager);
    static int LIBUSB_CALL ExecDeviceCallbacks(libusb_context* ctx, libusb_device* dev,
                                               libusb_hotplug_event event, void* manager);

    // Event handlers.
    int AddEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    int DelEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static bool AddToEventInitList(_GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static bool RemoveFromEventInitList(_GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static void ClearEventInitList() GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static void ExecEventInitListCallbacks(unsigned int event, int devHnd, unsigned int devId)
        GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static void ToDevIds(std::vector<unsigned int>* ids, unsigned int id);
    static bool IsInDevIds(std::vector<unsigned int>* ids, unsigned int id);

    // Diagnostic dumps.
    void logScanSearchOpt(_GVUSB_SCANSEARCH* search);
    void logDevice(libusb_device* dev, libusb_device_descriptor* desc);
    void logScanList() GVUSB_REQUIRES(m_mtxDevList);
    void logDeviceList() GVUSB_REQUIRES(m_mtxDevList);

    // Replacing a reader's record when the reader is found again.
    bool DL_ReplaceDevice(GVDevice* newDev) GVUSB_REQUIRES(m_mtxDevList);
    void SL_ReplaceDevice(GVDevice* newDev, int index) GVUSB_REQUIRES(m_mtxDevList);

    // Stores and returns a code.
    int SetLastError(int code) noexcept {
        relaxed::store(m_iLastError, code);
        return code;
    }

    int m_iLastError = 0;
    int m_iHandleCounter GVUSB_GUARDED_BY(m_mtxDevList) = 0;
    // Index of the scan-list entry last handed out, -1 for none.
    int m_iScanCursor GVUSB_GUARDED_BY(m_mtxDevList) = -1;
    std::vector<GVDevice*> m_ScanList GVUSB_GUARDED_BY(m_mtxDevList);
    std::vector<GVDevice*> m_DeviceList GVUSB_GUARDED_BY(m_mtxDevList);
    Mutex m_mtxDevList;
    Mutex m_mtxScanList GVUSB_ACQUIRED_BEFORE(m_mtxDevList);
    pthread_t m_Thread = {};
    bool m_bStopThread = false;
    bool m_bSuspend = true;
    unsigned int m_uiUpdateRate = 300000; // microseconds between two polls
    // Readers whose report began since the last scan: each is reported once per direction.
    std::vector<unsigned int> m_ReportedConnects GVUSB_GUARDED_BY(m_mtxScanList);
    std::vector<unsigned int> m_ReportedDisconnects GVUSB_GUARDED_BY(m_mtxScanList);
    int m_iLibUsbDebugLevel = 0;
    bool m_bHasHotPlug = false;
    int m_iDebugLevel = 0;
    int m_iHotPlugMode = 1; // 0 off, 1 polling, 2 libusb's hot-plug callbacks; constant after construction
    libusb_hotplug_callback_handle m_hCbConnect = 0;
    libusb_hotplug_callback_handle m_hCbDisconnect = 0;
    // Whether libusb has a default context; without one most of its functions must not be called.
    bool m_bLibUsbUsable = false;
    bool m_bThreadStarted = false; // there is a thread to join
    const OwnProcess m_Process;
    HotPlugQueue m_HotPlugQueue{m_Process, &ReportQueued, this};

private:
    void ApplyDebugLevels();
    void LogStart(const libusb_version& libUsbVersion);
    static void LeaveLibUsb(bool inHandler);
    void RegisterHotPlugCallbacks();
    void StopThread();

    bool IsInScanList(const GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    bool IsInDeviceList(const GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    void DestroyDevice(GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    void DropFromScanList(std::size_t index) GVUSB_REQUIRES(m_mtxDevList);

    int ScanAll(_GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    int ScanFirst(_GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    int ScanNext(bool open) GVUSB_EXCLUDES(m_mtxDevList);
    int RebuildScanList(_GVUSB_SCANSEARCH* search) GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
    int CountScanList() GVUSB_REQUIRES(m_mtxDevList);
    void EmptyScanList() GVUSB_REQUIRES(m_mtxDevList);

    int OpenScanned(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEntry(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEntryAt(int index) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEveryEntry() GVUSB_REQUIRES(m_mtxDevList);

    int GetDriverPara(const char* key, char* value);
    int SetDriverPara(const char* key, const char* value);
    int SetEveryDevicePara(const char* key, const char* value) GVUSB_EXCLUDES(m_mtxDevList);

    int ReadDeviceId(libusb_device* dev, unsigned int& devId);
    int ReportArrival(libusb_device* dev);
    static void ReportDeparture();
    static void ReportQueued(void* manager, libusb_hotplug_event event, libusb_device* dev);
    struct Report {
        unsigned int devId;
        int devHnd;
    };
    struct Reports {
        std::vector<Report> disconnects;
        std::vector<Report> connects;
    };
    Reports BeginReports() GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    Reports CompareWithBus() GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
    void UpdateFromUsbDevice(libusb_device* usbDevice, std::vector<Report>& arrived)
        GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
};

extern GVDrvHnd g_GvUsbMan;

// Whether g_GvUsbMan has been built and is not yet going. Other libraries' initializers and destructors may call before
// and after.
[[gnu::visibility("hidden")]] extern bool managerIsUsable;
