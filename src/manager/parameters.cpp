#include "manager/gvdrvhnd.h"

#include "base/key_text.h"
#include "base/log.h"
#include "base/numbers.h"
#include "device/gvdevice.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

// The return code is hexadecimal too. After a failed read, the caller's buffer may have no terminating zero, so only its
// documented size is read.
void logParameter(const char* tag, int devHnd, const char* key, const char* value, std::size_t valueSize,
                  int code) {
    const auto text = [=] { return std::string_view(value, strnlen(value, valueSize)); };
    log<Level::manager>(tag, "Hnd(0x", std::hex, devHnd, ") ", key, " = '", text, "' => rc=", code);
}

} // namespace

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
        const MutexLock lock(m_mtxDevList);
        GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
        code = SetLastError(device == nullptr ? int{GVUSB_ERR_HANDLE_NOT_FOUND}
                                              : device->GetDevicePara(key, value));
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
        const MutexLock lock(m_mtxDevList);
        GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
        code = SetLastError(device == nullptr ? int{GVUSB_ERR_HANDLE_NOT_FOUND}
                                              : device->SetDevicePara(key, value));
    }
    logParameter("set device para", devHnd, key, value, std::string_view::npos, code);
    return code;
}

int GVDrvHnd::GetDriverPara(const char* key, char* value) {
    if (isKey(key, "HOTPLUG-MODE")) {
        std::snprintf(value, GVUSB_PARAMETER_SIZE, "%u", static_cast<unsigned int>(m_iHotPlugMode));
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
        const std::string_view suspend(value);
        if (suspend != "0" && suspend != "1") {
            return SetLastError(GVUSB_ERR_OUT_OF_RANGE);
        }
        relaxed::store(m_bSuspend, suspend == "1");
    } else {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    return SetLastError(GVUSB_OK);
}

// Set a parameter of every open reader, in order, until one refuses. If none is open, return the unchanged last error.
int GVDrvHnd::SetEveryDevicePara(const char* key, const char* value) {
    const MutexLock lock(m_mtxDevList);
    int code = relaxed::load(m_iLastError);
    for (GVDevice* device : m_DeviceList) {
        if (device == nullptr) {
            continue;
        }
        code = SetLastError(device->SetDevicePara(key, value));
        if (code != 0) {
            break;
        }
    }
    return code;
}
