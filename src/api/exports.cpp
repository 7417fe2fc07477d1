// The exported functions. Each rejects bad arguments in a fixed order and forwards to the manager.
#include "gvusb.h"

#include "api/error_text.h"
#include "base/relaxed.h"
#include "base/version.h"
#include "manager/gvdrvhnd.h"

#include <cstdio>
#include <cstring>

namespace {

int refuse(int code) noexcept {
    return g_GvUsbMan.SetLastError(code);
}

void clearLastError() noexcept {
    g_GvUsbMan.SetLastError(GVUSB_OK);
}

// Run a call on the manager, or fail if the manager is not constructed yet or already destroyed.
template <class Call>
int onManager(Call call, int otherwise = GVUSB_ERR_LIBUSB_API) {
    if (!relaxed::load(managerIsUsable)) {
        return otherwise < 0 ? refuse(otherwise) : otherwise;
    }
    return call();
}

// Return the code for an invalid handle of a reader, 0 for one that may exist.
int checkHandle(int devHnd) noexcept {
    if (devHnd < 0) {
        return GVUSB_ERR_NEGATIVE_HANDLE;
    }
    return devHnd == 0 ? GVUSB_ERR_NULL_HANDLE : GVUSB_OK;
}

// The same, but handles of the driver and of all readers are valid too.
int checkParameterRequest(int devHnd, const char* key, const char* value) noexcept {
    if (devHnd < GVUSB_DRIVER) {
        return GVUSB_ERR_NEGATIVE_HANDLE;
    }
    return key == nullptr || value == nullptr ? GVUSB_ERR_NULL_POINTER : GVUSB_OK;
}

} // namespace

int GVUSB_Scan(int scanOption, GVUSB_SCANSEARCH* search) {
    clearLastError();
    return onManager([&] { return g_GvUsbMan.Scan(scanOption, search, false); });
}

int GVUSB_ScanAndOpen(int scanOption, GVUSB_SCANSEARCH* search) {
    clearLastError();
    return onManager([&] { return g_GvUsbMan.Scan(scanOption, search, true); });
}

int GVUSB_GetScanListPara(int index, const char* key, char* value) {
    if (key == nullptr || value == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    clearLastError();
    return onManager([&] { return g_GvUsbMan.GetScanListPara(index, key, value); });
}

int GVUSB_GetScanListSize(void) {
    clearLastError();
    return onManager([] { return g_GvUsbMan.GetScanListSize(); }, 0);
}

int GVUSB_ClearScanList(void) {
    clearLastError();
    return onManager(
        [] {
            g_GvUsbMan.ClearScanList();
            return GVUSB_OK;
        },
        GVUSB_OK);
}

int GVUSB_AddEventHandler(int devHnd, GVUSB_EVENT_INIT* registration) {
    if (registration == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    clearLastError();
    return onManager([&] { return g_GvUsbMan.AddEventHandler(devHnd, registration); });
}

int GVUSB_DelEventHandler(int devHnd, GVUSB_EVENT_INIT* registration) {
    if (registration == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    clearLastError();
    return onManager([&] { return g_GvUsbMan.DelEventHandler(devHnd, registration); });
}

int GVUSB_OpenDevice(unsigned int devId) {
    return onManager([&] { return g_GvUsbMan.OpenDevice(devId); });
}

int GVUSB_CloseDevice(int devHnd) {
    if (const int code = checkHandle(devHnd); code != 0) {
        return refuse(code);
    }
    return onManager([&] { return g_GvUsbMan.CloseDevice(devHnd); });
}

int GVUSB_IsDevicePresent(int devHnd) {
    if (const int code = checkHandle(devHnd); code != 0) {
        return refuse(code);
    }
    return onManager([&] { return g_GvUsbMan.IsDevicePresent(devHnd); });
}

int GVUSB_GetDeviceList(int devHnd) {
    return onManager([&] { return g_GvUsbMan.FindFirstOrNextDeviceHandle(devHnd); }, 0);
}

const char* GVUSB_GetDLLVersion(void) {
    static char version[10];
    clearLastError();
    char text[sizeof version];
    std::snprintf(text, sizeof text, "%02u.%02u.%02u", version::major, version::minor, version::patch);
    relaxed::storeText(version, text);
    return version;
}

int GVUSB_GetDrvVersion(void) {
    return refuse(GVUSB_ERR_UNSUPPORTED_METHOD);
}

int GVUSB_GetDevicePara(int devHnd, const char* key, char* value) {
    if (const int code = checkParameterRequest(devHnd, key, value); code != 0) {
        return refuse(code);
    }
    return onManager([&] { return g_GvUsbMan.GetDevicePara(devHnd, key, value); });
}

int GVUSB_SetDevicePara(int devHnd, const char* key, const char* value) {
    if (const int code = checkParameterRequest(devHnd, key, value); code != 0) {
        return refuse(code);
    }
    return onManager([&] { return g_GvUsbMan.SetDevicePara(devHnd, key, value); });
}

int GVUSB_GetDeviceHnd(unsigned int devId) {
    return onManager([&] { return g_GvUsbMan.GetDeviceHnd(devId); });
}

// The hot paths. At link time each of these functions and everything that it calls become one function. They have the
// parameters of GVUSB_Transceive, even an unused one, so that it calls them by a jump. "used" keeps the compiler from removing
// that parameter.
[[gnu::noinline, gnu::flatten, gnu::used]] static int
transceiveAlone(int devHnd, const char* interfaceName, int /*reserved*/, const unsigned char* data,
                unsigned int len, unsigned char* buf, unsigned int size) {
    return g_GvUsbMan.TransceiveAlone(devHnd, interfaceName, data, len, buf, size);
}

[[gnu::noinline, gnu::flatten, gnu::used]] static int
transceiveEndable(int devHnd, const char* interfaceName, int /*reserved*/, const unsigned char* data,
                  unsigned int len, unsigned char* buf, unsigned int size) {
    return g_GvUsbMan.TransceiveEndable(devHnd, interfaceName, data, len, buf, size);
}

int GVUSB_Transceive(int devHnd, const char* interfaceName, int reserved, const unsigned char* sendData,
                     unsigned int sendLength, unsigned char* receiveBuffer, unsigned int receiveSize) {
    if (const int code = checkHandle(devHnd); code != 0) {
        return refuse(code);
    }
    if (sendData == nullptr || receiveBuffer == nullptr || interfaceName == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    if (sendLength == 0) {
        return refuse(GVUSB_ERR_NO_SEND_DATA);
    }
    if (receiveSize == 0) {
        return refuse(GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL);
    }
    if (!relaxed::load(managerIsUsable)) {
        return refuse(GVUSB_ERR_LIBUSB_API);
    }
    return g_GvUsbMan.IsParallel() ? transceiveEndable(devHnd, interfaceName, reserved, sendData, sendLength,
                                                       receiveBuffer, receiveSize)
                                   : transceiveAlone(devHnd, interfaceName, reserved, sendData, sendLength,
                                                     receiveBuffer, receiveSize);
}

int GVUSB_Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int length) {
    if (const int code = checkHandle(devHnd); code != 0) {
        return refuse(code);
    }
    if (interfaceName == nullptr || data == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    if (length == 0) {
        return refuse(GVUSB_ERR_NO_SEND_DATA);
    }
    return onManager([&] { return g_GvUsbMan.Transmit(devHnd, interfaceName, data, length); });
}

int GVUSB_Receive(int devHnd, const char* interfaceName, unsigned char* buffer, unsigned int size) {
    if (const int code = checkHandle(devHnd); code != 0) {
        return refuse(code);
    }
    if (interfaceName == nullptr || buffer == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    if (size == 0) {
        return refuse(GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL);
    }
    return onManager([&] { return g_GvUsbMan.Receive(devHnd, interfaceName, buffer, size); });
}

int GVUSB_GetErrorText(int code, char* text) {
    if (text == nullptr) {
        return refuse(GVUSB_ERR_NULL_POINTER);
    }
    clearLastError();
    if (const char* known = GvUsbErrorText::getErrorText(code)) {
        std::strcpy(text, known);
        return GVUSB_OK;
    }
    std::strcpy(text, UnknownErrorText(code).text);
    return GVUSB_ERR_UNKNOWN_ERROR_CODE;
}

// Clears the manager's last error, because GVUSB_GetErrorText stores its own result there.
int GVUSB_GetLastError(int devHnd, int* code, char* text) {
    const int lastError = devHnd == 0 ? relaxed::load(g_GvUsbMan.m_iLastError)
                                      : onManager([&] { return g_GvUsbMan.GetLastError(devHnd); });
    *code = lastError;
    return GVUSB_GetErrorText(lastError, text);
}
