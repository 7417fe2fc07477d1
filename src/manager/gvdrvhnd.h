// GVDrvHnd: the driver manager. It owns the records of all readers, keeps the scan list and the device list, hands
// out device handles, opens and closes readers, and watches the bus for readers that come and go.
//
// The only instance, g_GvUsbMan, lives from loading to unloading. Two mutexes guard it, always taken in this order:
// - m_mtxScanList excludes scans and polls from each other and guards which readers have been reported.
// - m_mtxDevList guards both lists. A call holds it during all work on a reader, unless the call is parallel: then it
//   releases the mutex while it waits for USB.
// A scan that opens readers holds m_mtxScanList until they are open. Event handlers run with neither of them held, under
// g_MtxEvtInitAry. The other members are constant after construction, or single values that are accessed atomically.
#pragma once

#include "base/mutex.h"
#include "base/own_process.h"
#include "base/relaxed.h"
#include "base/sequential_search.h"
#include "device/gvdevice.h"
#include "gvusb.h"
#include "manager/event_handlers.h"
#include "manager/hotplug_queue.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <libusb.h>
#include <pthread.h>

class UsbDeviceList;

class GVDrvHnd {
public:
    // ---- lifecycle.cpp
    GVDrvHnd();
    virtual ~GVDrvHnd() noexcept(false);
    GVDrvHnd(const GVDrvHnd&) = delete;
    GVDrvHnd& operator=(const GVDrvHnd&) = delete;

    // ---- device_list.cpp: the device list and its handles. DL_ functions search the device list.
    // Return a handle that no record has.
    int NextDeviceHandle() GVUSB_REQUIRES(m_mtxDevList);
    void ClearDeviceList() GVUSB_EXCLUDES(m_mtxDevList);
    // Return the handle after devHnd, or the first one if devHnd is not positive; 0 at the end of the list.
    int FindFirstOrNextDeviceHandle(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    GVDevice* DL_DeviceOfUsbDev(const libusb_device* dev) GVUSB_REQUIRES(m_mtxDevList);
    GVDevice* DL_DeviceOfDevHnd(int devHnd) GVUSB_REQUIRES(m_mtxDevList);
    int DL_HandleOfDeviceId(unsigned int devId) GVUSB_REQUIRES(m_mtxDevList);
    int GetLastError(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    int GetDeviceHnd(unsigned int devId) GVUSB_EXCLUDES(m_mtxDevList);

    // ---- frames.cpp: exchanges with an open reader.
    int IsDevicePresent(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);
    int Transceive(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len,
                   unsigned char* buf, unsigned int size) GVUSB_EXCLUDES(m_mtxDevList);
    // Its two modes.
    [[gnu::visibility("hidden")]] int TransceiveAlone(int devHnd, const char* interfaceName,
                                                      const unsigned char* data, unsigned int len,
                                                      unsigned char* buf, unsigned int size)
        GVUSB_EXCLUDES(m_mtxDevList);
    [[gnu::visibility("hidden")]] int TransceiveEndable(int devHnd, const char* interfaceName,
                                                        const unsigned char* data, unsigned int len,
                                                        unsigned char* buf, unsigned int size)
        GVUSB_EXCLUDES(m_mtxDevList);
    int Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len)
        GVUSB_EXCLUDES(m_mtxDevList);
    int Receive(int devHnd, const char* interfaceName, unsigned char* buf, unsigned int size)
        GVUSB_EXCLUDES(m_mtxDevList);

    // ---- scan.cpp
    // Do what a scan option says; also open what it finds if `open` is true.
    int Scan(int option, _GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);

    // ---- discover.cpp
    // Rebuild the scan list. Return the number of its entries.
    int DiscoverDevices(_GVUSB_SCANSEARCH* search) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);

    // ---- probe.cpp: what a device on the bus is.
    bool IsUsableGavoDevice(libusb_device_descriptor* desc);
    // Open a device to read its device ID. Return 0 if this fails.
    unsigned int ReadDeviceIdOfUsbDev(libusb_device* dev);

    // ---- scan_list.cpp. SL_ functions search the scan list.
    int GetScanListPara(int index, const char* key, char* value) GVUSB_EXCLUDES(m_mtxDevList);
    int GetScanListSize() GVUSB_EXCLUDES(m_mtxDevList);
    void ClearScanList() GVUSB_EXCLUDES(m_mtxDevList);
    GVDevice* SL_DeviceOfUsbDev(const libusb_device* dev) GVUSB_REQUIRES(m_mtxDevList);
    int SL_IndexOfDevId(unsigned int devId) GVUSB_REQUIRES(m_mtxDevList);

    // ---- opening.cpp
    // Open every reader of the scan list, the one at an index, or the first one with a device ID.
    int OpenAllDevices() GVUSB_EXCLUDES(m_mtxDevList);
    int OpenDevice(int index) GVUSB_EXCLUDES(m_mtxDevList);
    int OpenDevice(unsigned int devId) GVUSB_EXCLUDES(m_mtxDevList);
    int CloseDevice(int devHnd) GVUSB_EXCLUDES(m_mtxDevList);

    // ---- parameters.cpp: parameters of the driver, of every open reader, of one reader.
    int GetDevicePara(int devHnd, const char* key, char* value) GVUSB_EXCLUDES(m_mtxDevList);
    int SetDevicePara(int devHnd, const char* key, const char* value) GVUSB_EXCLUDES(m_mtxDevList);

    // ---- worker.cpp
    // The thread that polls.
    static void* CheckDevicesThread(void* manager);

    // ---- hotplug_polling.cpp
    // Poll once.
    void UpdateDevices() GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);

    // ---- hotplug_callbacks.cpp: called by libusb in mode 2.
    static int LIBUSB_CALL ExecDeviceConnectCallbacks(libusb_context* ctx, libusb_device* dev,
                                                      libusb_hotplug_event event, void* manager);
    static int LIBUSB_CALL ExecDeviceDisconnectCallbacks(libusb_context* ctx, libusb_device* dev,
                                                         libusb_hotplug_event event, void* manager);
    static int LIBUSB_CALL ExecDeviceCallbacks(libusb_context* ctx, libusb_device* dev,
                                               libusb_hotplug_event event, void* manager);

    // ---- event_handlers.cpp
    int AddEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    int DelEventHandler(int devHnd, _GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    // Return whether the list has changed.
    static bool AddToEventInitList(_GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static bool RemoveFromEventInitList(_GVUSB_EVENT_INIT* registration) GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static void ClearEventInitList() GVUSB_EXCLUDES(g_MtxEvtInitAry);
    static void ExecEventInitListCallbacks(unsigned int event, int devHnd, unsigned int devId)
        GVUSB_EXCLUDES(g_MtxEvtInitAry);

    // ---- reported.cpp
    // A list of device IDs as a set: add an ID that it does not have, and test for one.
    static void ToDevIds(std::vector<unsigned int>* ids, unsigned int id);
    static bool IsInDevIds(std::vector<unsigned int>* ids, unsigned int id);

    // ---- dumps.cpp
    void logScanSearchOpt(_GVUSB_SCANSEARCH* search);
    void logDevice(libusb_device* dev, libusb_device_descriptor* desc);
    void logScanList() GVUSB_REQUIRES(m_mtxDevList);
    void logDeviceList() GVUSB_REQUIRES(m_mtxDevList);

    // ---- replace.cpp
    // Replace the record of a reader that has come back, in the device list by its device ID (return whether there was
    // one), or in the scan list at an index.
    bool DL_ReplaceDevice(GVDevice* newDev) GVUSB_REQUIRES(m_mtxDevList);
    void SL_ReplaceDevice(GVDevice* newDev, int index) GVUSB_REQUIRES(m_mtxDevList);

    // Whether calls that begin now wait for USB without the device-list mutex. A call keeps the rule that it began with.
    bool IsParallel() const noexcept { return relaxed::load(m_bParallel); }

    // Store and return a code.
    int SetLastError(int code) noexcept {
        relaxed::store(m_iLastError, code);
        return code;
    }

    int m_iLastError = 0;
    // How many handles have been used since the start or the last wrap.
    int m_iHandleCounter GVUSB_GUARDED_BY(m_mtxDevList) = 0;
    // Index of the current scan-list entry, -1 for none.
    int m_iScanCursor GVUSB_GUARDED_BY(m_mtxDevList) = -1;
    // The lists own the records: see ownership.cpp. Entries can be null.
    std::vector<GVDevice*> m_ScanList GVUSB_GUARDED_BY(m_mtxDevList);
    std::vector<GVDevice*> m_DeviceList GVUSB_GUARDED_BY(m_mtxDevList);
    Mutex m_mtxDevList;
    Mutex m_mtxScanList GVUSB_ACQUIRED_BEFORE(m_mtxDevList);
    // The worker thread, which polls unless it is suspended.
    pthread_t m_Thread = {};
    bool m_bStopThread = false;
    bool m_bSuspend = true;
    unsigned int m_uiUpdateRate = 300000; // microseconds between two polls
    // Device IDs that have been reported since the last scan. Each is reported once per direction.
    std::vector<unsigned int> m_ReportedConnects GVUSB_GUARDED_BY(m_mtxScanList);
    std::vector<unsigned int> m_ReportedDisconnects GVUSB_GUARDED_BY(m_mtxScanList);
    int m_iLibUsbDebugLevel = 0;
    // Whether libusb supports hot-plug callbacks.
    bool m_bHasHotPlug = false;
    int m_iDebugLevel = 0;
    int m_iHotPlugMode = 1; // 0 off, 1 polling, 2 libusb's hot-plug callbacks; constant after construction
    libusb_hotplug_callback_handle m_hCbConnect = 0;
    libusb_hotplug_callback_handle m_hCbDisconnect = 0;
    // Whether libusb has a default context. Without one, most of its functions must not be called.
    bool m_bLibUsbUsable = false;
    bool m_bThreadStarted = false; // there is a thread to join
    bool m_bParallel = false;
    const OwnProcess m_Process;
    // Events of mode 2 that wait to be reported.
    HotPlugQueue m_HotPlugQueue{m_Process, &ReportQueued, this};

private:
    // lifecycle.cpp
    void ApplyDebugLevels();
    void LogStart(const libusb_version& libUsbVersion);
    static void LeaveLibUsb();
    void RegisterHotPlugCallbacks();

    // worker.cpp
    void StopThread();

    // device_list.cpp
    // The next reader of an iteration over the device list, also if other threads close readers meanwhile.
    struct Position {
        std::size_t index = 0;
        Position* next = nullptr;
    };
    [[gnu::cold, gnu::noinline]] GVDevice* DL_Search(int devHnd, std::uint32_t& hint)
        GVUSB_REQUIRES(m_mtxDevList);
    // Like DL_DeviceOfDevHnd, but wait while the reader is being opened again.
    GVDevice* UsableDevice(int devHnd) GVUSB_REQUIRES(m_mtxDevList);
    void EraseFromDeviceList(const GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);

    // on_device.h
    template <class Operation>
    int OnDevice(int devHnd, Operation operation) GVUSB_EXCLUDES(m_mtxDevList);
    template <class Operation>
    int OnDeviceAlone(int devHnd, Operation operation) GVUSB_EXCLUDES(m_mtxDevList);
    template <class Operation>
    int OnDeviceEndable(int devHnd, Operation operation) GVUSB_EXCLUDES(m_mtxDevList);

    // frames.cpp
    // Return a result of GVDevice::Transceive, and store it if it is a code.
    int FinishTransceive(int result) noexcept {
        SetLastError(std::min(result, 0));
        return result;
    }

    // changes.cpp
    class Change;
    [[gnu::cold]] bool IsChanging(const GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    // Whether a reader with this libusb device or device ID is being opened or closed.
    bool IsReaderChanging(const GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    std::size_t CountChanges() GVUSB_REQUIRES(m_mtxDevList);
    void BeginChange(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    void EndChange(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    void AwaitChange() GVUSB_REQUIRES(m_mtxDevList) { m_Changed.wait(m_mtxDevList); }

    // ownership.cpp
    bool IsInScanList(const GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    bool IsInDeviceList(const GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    // Make a record's entries in both lists null.
    void TakeFromLists(GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    // The same, and release the lists' reference.
    void DestroyDevice(GVDevice* device) GVUSB_REQUIRES(m_mtxDevList);
    void AddToScanList(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    void AddToDeviceList(GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    void DropFromScanList(std::size_t index) GVUSB_REQUIRES(m_mtxDevList);

    // scan.cpp
    int ScanAll(_GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    int ScanFirst(_GVUSB_SCANSEARCH* search, bool open) GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    int ScanNext(bool open) GVUSB_EXCLUDES(m_mtxDevList);

    // discover.cpp: the steps of a scan.
    struct ChosenDevice;
    using ChosenDevices = std::vector<ChosenDevice>;
    // If `cursor` is given, it is the current entry afterwards, provided that there are entries.
    int RebuildScanList(_GVUSB_SCANSEARCH* search, bool parallel, std::optional<int> cursor)
        GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
    ChosenDevices ChooseDevices(const UsbDeviceList& usbDevices, _GVUSB_SCANSEARCH* search, bool parallel)
        GVUSB_REQUIRES(m_mtxDevList);
    void ChooseOpenDevice(GVDevice& open, _GVUSB_SCANSEARCH* search, ChosenDevices& chosen)
        GVUSB_REQUIRES(m_mtxDevList);
    void ChooseNewDevice(libusb_device* usbDevice, _GVUSB_SCANSEARCH* search, bool parallel,
                         ChosenDevices& chosen) GVUSB_REQUIRES(m_mtxDevList);
    void FillScanList(ChosenDevices& chosen) GVUSB_REQUIRES(m_mtxDevList);
    GVDevice* KnownDevice(const libusb_device* usbDevice) GVUSB_REQUIRES(m_mtxDevList);
    void ReplaceReopenedDevices(ChosenDevices& chosen, bool parallel) GVUSB_REQUIRES(m_mtxDevList);
    void FinishReplacement(ChosenDevices& chosen, ChosenDevice& entry, bool parallel)
        GVUSB_REQUIRES(m_mtxDevList);

    // replace.cpp
    struct Replacement;
    // Replace a record in the device list, without opening the new one yet.
    Replacement ReplaceListed(GVDevice& newDev) GVUSB_REQUIRES(m_mtxDevList);
    Replacement ReplaceScanned(GVDevice& newDev, std::size_t index) GVUSB_REQUIRES(m_mtxDevList);
    // Release the old record, and open the new one if the old one was open.
    void FinishReplacement(GVDevice& newDev, Replacement& replacement, bool parallel)
        GVUSB_REQUIRES(m_mtxDevList);

    // scan_list.cpp
    GVDevice* ScannedDevice(int index) GVUSB_REQUIRES(m_mtxDevList);
    int CountScanList() GVUSB_REQUIRES(m_mtxDevList);
    void EmptyScanList() GVUSB_REQUIRES(m_mtxDevList);

    // opening.cpp
    bool IsReplaced(const GVDevice& device) GVUSB_REQUIRES(m_mtxDevList);
    int OpenScanned(GVDevice& device, bool parallel) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEntry(GVDevice& device, bool parallel) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEntryAt(int index, bool parallel) GVUSB_REQUIRES(m_mtxDevList);
    int OpenEveryEntry(bool parallel) GVUSB_REQUIRES(m_mtxDevList);

    // parameters.cpp
    int GetDriverPara(const char* key, char* value);
    int SetDriverPara(const char* key, const char* value);
    int SetSwitch(bool& setting, std::string_view value);
    class Iteration;
    int SetEveryDevicePara(const char* key, const char* value) GVUSB_EXCLUDES(m_mtxDevList);

    // probe.cpp
    int ReadDeviceId(libusb_device* dev, unsigned int& devId);

    // hotplug_callbacks.cpp
    int ReportArrival(libusb_device* dev);
    static void ReportDeparture();
    // Called by the queue's thread.
    static void ReportQueued(void* manager, libusb_hotplug_event event, libusb_device* dev);

    // reported.cpp
    struct Report {
        unsigned int devId;
        int devHnd;
    };
    struct Reports {
        std::vector<Report> disconnects;
        std::vector<Report> connects;
    };
    // Begin a new period, in which nothing has been reported.
    void ForgetReported() GVUSB_REQUIRES(m_mtxScanList);
    // Record that a reader in the scan list is connected. It needs no report.
    void RecordKnown(unsigned int devId) GVUSB_REQUIRES(m_mtxScanList);
    // Record the reports that are due and drop the others.
    void RecordReports(Reports& reports) GVUSB_REQUIRES(m_mtxScanList);

    // hotplug_polling.cpp
    // Compare the lists with the bus and record the reports that are due.
    Reports BeginReports() GVUSB_EXCLUDES(m_mtxScanList, m_mtxDevList);
    Reports CompareWithBus(std::vector<GVDevice*>& known, bool parallel)
        GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
    void UpdateFromUsbDevice(libusb_device* usbDevice, std::vector<GVDevice*>& known, bool parallel,
                             std::vector<Report>& arrived) GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);
    void TakeBack(OwnedDevice reconnected, std::vector<GVDevice*>& known, std::size_t index, bool parallel)
        GVUSB_REQUIRES(m_mtxScanList, m_mtxDevList);

    // A poll looks for the known readers in the order of the bus, which is usually that of the lists.
    SequentialSearch m_ScanListSearch GVUSB_GUARDED_BY(m_mtxDevList);
    SequentialSearch m_ReportedSearch GVUSB_GUARDED_BY(m_mtxScanList);
    // Where in the device list a handle was found last. Handles are mostly consecutive numbers, so up to this many readers
    // are found at once.
    std::array<std::uint32_t, 1024> m_HandleHints GVUSB_GUARDED_BY(m_mtxDevList) = {};
    // Iterations over the device list in progress.
    Position* m_Positions GVUSB_GUARDED_BY(m_mtxDevList) = nullptr;
    // Readers that a thread is opening or closing.
    GVDevice* m_Changing GVUSB_GUARDED_BY(m_mtxDevList) = nullptr;
    Condition m_Changed;
};

extern GVDrvHnd g_GvUsbMan;

// Whether calls may use g_GvUsbMan. Initializers and destructors of other libraries may call the library before it is
// constructed and after its destruction.
[[gnu::visibility("hidden")]] extern bool managerIsUsable;
