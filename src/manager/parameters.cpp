#include "manager/on_device.h"

#include "base/key_text.h"
#include "base/log.h"
#include "base/numbers.h"
#include "device/gvdevice.h"

#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// The return code is hexadecimal too. After a failed read, the caller's buffer may have no terminating zero, so only its
// documented size is read.
void logParameter(const char* tag, int devHnd, const char* key, const char* value, std::size_t valueSize,
                  int code) {
    const auto text = [=] { return std::string_view(value, strnlen(value, valueSize)); };
    log<Level::manager>(tag, "Hnd(0x", std::hex, devHnd, ") ", key, " = '", text, "' => rc=", code);
}

// By default there is no parameter "CANCEL": no other thread can reach a reader while a call waits for it.
int setParameter(GVDevice& device, const char* key, const char* value, bool parallel) {
    return parallel && isKey(key, "CANCEL") ? device.Cancel() : device.SetDevicePara(key, value);
}

} // namespace

// Iterates over the readers of the device list, under its mutex. Other threads may close readers when the mutex is released
// between two steps.
class GVDrvHnd::Iteration {
public:
    explicit Iteration(GVDrvHnd& manager) noexcept GVUSB_REQUIRES(manager.m_mtxDevList)
        : m_manager(manager) {
        m_position.next = std::exchange(manager.m_Positions, &m_position);
    }
    ~Iteration() GVUSB_NO_THREAD_SAFETY_ANALYSIS {
        Position** link = &m_manager.m_Positions;
        while (*link != &m_position) {
            link = &(*link)->next;
        }
        *link = m_position.next;
    }
    Iteration(const Iteration&) = delete;
    Iteration& operator=(const Iteration&) = delete;

    // Return the next reader, or null at the end. Wait while it is being opened again.
    GVDevice* next() GVUSB_NO_THREAD_SAFETY_ANALYSIS {
        while (m_position.index < m_manager.m_DeviceList.size()) {
            GVDevice* const device = m_manager.m_DeviceList[m_position.index];
            if (device != nullptr && m_manager.IsChanging(*device)) {
                m_manager.AwaitChange();
                continue;
            }
            ++m_position.index;
            if (device != nullptr) {
                return device;
            }
        }
        return nullptr;
    }

private:
    GVDrvHnd& m_manager;
    Position m_position;
};

int GVDrvHnd::GetDevicePara(int devHnd, const char* key, char* value) {
    int code;
    if (devHnd == GVUSB_DRIVER) {
        code = GetDriverPara(key, value);
    } else {
        if (devHnd == GVUSB_ALL_DEVICES) {
            devHnd = FindFirstOrNextDeviceHandle(0);
            if (devHnd == 0) {
                return SetLastError(GVUSB_ERR_EMPTY_DEVICE_LIST);
            }
        }
        code = OnDevice(devHnd,
                        [&](GVDevice& device) { return SetLastError(device.GetDevicePara(key, value)); });
    }
    logParameter("get device para", devHnd, key, value, GVUSB_PARAMETER_SIZE, code);
    return code;
}

int GVDrvHnd::SetDevicePara(int devHnd, const char* key, const char* value) {
    int code;
    if (devHnd == GVUSB_DRIVER) {
        code = SetDriverPara(key, value);
    } else if (devHnd == GVUSB_ALL_DEVICES) {
        code = SetEveryDevicePara(key, value);
    } else {
        code = OnDevice(devHnd, [&, parallel = IsParallel()](GVDevice& device) {
            return SetLastError(setParameter(device, key, value, parallel));
        });
    }
    logParameter("set device para", devHnd, key, value, std::string_view::npos, code);
    return code;
}

int GVDrvHnd::GetDriverPara(const char* key, char* value) {
    if (isKey(key, "HOTPLUG-MODE")) {
        std::snprintf(value, GVUSB_PARAMETER_SIZE, "%u", static_cast<unsigned int>(m_iHotPlugMode));
        return SetLastError(GVUSB_OK);
    }
    if (isKey(key, "PARALLEL")) {
        std::snprintf(value, GVUSB_PARAMETER_SIZE, "%d", IsParallel() ? 1 : 0);
        return SetLastError(GVUSB_OK);
    }
    return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
}

int GVDrvHnd::SetDriverPara(const char* key, const char* value) {
    if (isKey(key, "HOTPLUG-UPDATERATE")) {
        const auto microseconds = unsignedNumber(value);
        if (microseconds.value_or(0) < 10) {
            return SetLastError(GVUSB_ERR_OUT_OF_RANGE);
        }
        relaxed::store(m_uiUpdateRate, *microseconds);
    } else if (isKey(key, "HOTPLUG-SUSPEND")) {
        return SetSwitch(m_bSuspend, value);
    } else if (isKey(key, "PARALLEL")) {
        return SetSwitch(m_bParallel, value);
    } else {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    return SetLastError(GVUSB_OK);
}

int GVDrvHnd::SetSwitch(bool& setting, std::string_view value) {
    if (value != "0" && value != "1") {
        return SetLastError(GVUSB_ERR_OUT_OF_RANGE);
    }
    relaxed::store(setting, value == "1");
    return SetLastError(GVUSB_OK);
}

// Set a parameter of every open reader, in order, until one refuses. If none is open, return the unchanged last error.
int GVDrvHnd::SetEveryDevicePara(const char* key, const char* value) {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    int code = relaxed::load(m_iLastError);
    Iteration iteration(*this);
    while (GVDevice* const device = iteration.next()) {
        const OwnedDevice used(device->Retain());
        int result;
        {
            const MutexUnlock usb(m_mtxDevList, parallel);
            result = setParameter(*device, key, value, parallel);
        }
        // A reader that another thread has closed meanwhile does not count.
        if (result != 0 && !IsInDeviceList(device)) {
            continue;
        }
        code = SetLastError(result);
        if (code != 0) {
            break;
        }
    }
    return code;
}
