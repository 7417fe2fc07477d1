// Reads and writes the manager's lists, each under its mutex, and captures the log.
#pragma once

#include "base/log.h"
#include "captured_stdout.h"
#include "configuration_file.h"
#include "device/gvdevice.h"
#include "fake_libusb.h"
#include "manager/gvdrvhnd.h"
#include "mutex_probe.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

namespace manager_lists {

using Devices = std::vector<GVDevice*>;
using Lines = std::vector<std::string>;

inline constexpr int firstHandle = 0x10000001;

inline Devices scanList() {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    return g_GvUsbMan.m_ScanList;
}

inline Devices deviceList() {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    return g_GvUsbMan.m_DeviceList;
}

inline void setScanList(Devices devices) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    g_GvUsbMan.m_ScanList = std::move(devices);
}

inline void setDeviceList(Devices devices) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    g_GvUsbMan.m_DeviceList = std::move(devices);
}

inline int scanCursor() {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    return g_GvUsbMan.m_iScanCursor;
}

inline void setScanCursor(int cursor) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    g_GvUsbMan.m_iScanCursor = cursor;
}

// The device IDs that count as reported since the last scan.
inline std::vector<unsigned> reportedConnects() {
    const MutexLock lock(g_GvUsbMan.m_mtxScanList);
    return g_GvUsbMan.m_ReportedConnects;
}

inline std::vector<unsigned> reportedDisconnects() {
    const MutexLock lock(g_GvUsbMan.m_mtxScanList);
    return g_GvUsbMan.m_ReportedDisconnects;
}

inline std::vector<unsigned> deviceIds(const Devices& devices) {
    std::vector<unsigned> ids;
    for (const GVDevice* device : devices) {
        ids.push_back(device == nullptr ? 0 : device->devId);
    }
    return ids;
}

// The handles in the order in which an application iterates over them.
inline std::vector<int> openHandlesInOrder() {
    std::vector<int> handles;
    for (int devHnd = 0; (devHnd = GVUSB_GetDeviceList(devHnd)) != 0;) {
        handles.push_back(devHnd);
    }
    return handles;
}

inline bool isOpen(GVDevice& device) {
    const MutexLock lock(device.mutex);
    return device.usbdev_hnd != nullptr;
}

// The manager's last error, without clearing it as GVUSB_GetLastError() does.
inline int lastError() {
    return relaxed::load(g_GvUsbMan.m_iLastError);
}

// Whether a function of libusb waits for USB or for the system.
inline bool waitsForUsb(std::string_view function) {
    return std::ranges::find(fake_libusb::fallibleFunctions, function) !=
               fake_libusb::fallibleFunctions.end() &&
           function != "libusb_get_device_list" && function != "libusb_get_device_descriptor";
}

// Whether the device-list mutex is as it must be during a call into libusb: held, but in parallel mode free while the call waits
// for USB.
inline bool isGuarded(std::string_view function) {
    const bool held = support::isHeld(g_GvUsbMan.m_mtxDevList);
    return support::inParallelSuite() ? !held || !waitsForUsb(function) : held;
}

// Whether the call waits while the mutex is held, and returns after it is unlocked.
template <class Call>
bool waitsFor(Mutex& mutex, Call call) {
    std::future<void> done;
    bool waited = false;
    {
        const MutexLock lock(mutex);
        done = std::async(std::launch::async, call);
        waited = done.wait_for(std::chrono::milliseconds(10)) == std::future_status::timeout;
    }
    done.get();
    return waited;
}

// Sets a log level for the length of a block, and captures the log. takeLines() leaves out the lines of the
// worker thread, which can appear at any time.
class LogAt {
public:
    explicit LogAt(int level) { GVLOG_SetLevel(level); }
    ~LogAt() { GVLOG_SetLevel(0); }
    LogAt(const LogAt&) = delete;
    LogAt& operator=(const LogAt&) = delete;

    Lines takeAllLines() { return captured_.takeLogLines(); }
    Lines takeLines() {
        Lines lines = takeAllLines();
        std::erase_if(lines, [](const std::string& line) { return line.starts_with("[thread] "); });
        return lines;
    }

private:
    support::CapturedStdout captured_;
};

inline std::string hex(unsigned number) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", number);
    return text;
}

inline std::string pointerText(const std::string& deviceName) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<void*>(fake_libusb::device(deviceName)));
    return text;
}

// "devHnd=0x10000001 devId=0x1a2b3c usbDevPtr=0x55d0c0ffee00 owner=1"
inline std::string deviceText(int devHnd, unsigned devId, const std::string& deviceName, bool owner) {
    return "devHnd=0x" + hex(static_cast<unsigned>(devHnd)) + " devId=0x" + hex(devId) +
           " usbDevPtr=" + pointerText(deviceName) + " owner=" + (owner ? "1" : "0");
}

} // namespace manager_lists
