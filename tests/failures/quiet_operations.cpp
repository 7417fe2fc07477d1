// Operations that call no fallible libusb function, so failures on the bus do not affect them.
#include "operations.h"
#include "situations.h"

#include "configuration_file.h"
#include "gvusb.h"

#include <cstring>

namespace failures {
namespace {

char value[GVUSB_PARAMETER_SIZE];
char text[GVUSB_TEXT_SIZE];
unsigned char buffer[4];

void onConnect(int /*devHnd*/, unsigned /*devId*/, const char* /*text*/) {
}
GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onConnect};

void registered() {
    plugged();
    GVUSB_AddEventHandler(0, &registration);
}

void stepping() {
    plugged();
    GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr);
}

int errorText() {
    int code = 0;
    return GVUSB_GetLastError(0, &code, text) == 0 && code == earlierError ? 0 : -1;
}

template <int result>
Outcome gives(const Failing& /*failing*/) {
    return {.result = result};
}

// These operations do not change the last error.
template <int result>
Outcome onlyGives(const Failing& /*failing*/) {
    return {.result = result, .lastError = earlierError};
}

Operation quiet(
    const char* name, void (*prepare)(), int (*run)(), Outcome (*outcome)(const Failing&),
    void (*restore)() = [] {}) {
    return {.name = name,
            .prepare = prepare,
            .run = run,
            .outcome = outcome,
            .restore = restore,
            .callsLibusb = false};
}

} // namespace

std::vector<Operation> quietOperations() {
    return {
        quiet(
            "scanNext", stepping, [] { return GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr); },
            [](const Failing&) { return Outcome{.result = 1, .lastError = 0}; },
            [] { GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr); }),
        quiet(
            "scanNothing", scanned, [] { return GVUSB_Scan(GVUSB_SCAN_NOTHING, nullptr); }, gives<0>),
        quiet(
            "scanUnknownOption", scanned, [] { return GVUSB_Scan(5, nullptr); },
            gives<GVUSB_ERR_UNKNOWN_SCAN_OPTION>),
        quiet("getScanListSize", scanned, GVUSB_GetScanListSize, gives<3>),
        quiet(
            "getScanListPara", scanned, [] { return GVUSB_GetScanListPara(0, "DEVICE-ID", value); },
            gives<0>),
        quiet(
            "getScanListParaOfClosed", scanned, [] { return GVUSB_GetScanListPara(0, "TYPENUMBER", value); },
            gives<GVUSB_ERR_NOT_OPENED>),
        quiet(
            "getScanListParaBeyond", scanned, [] { return GVUSB_GetScanListPara(3, "DEVICE-ID", value); },
            [](const Failing&) {
                return Outcome{.result = GVUSB_NO_SCAN_LIST_ENTRY, .lastError = GVUSB_NO_SCAN_LIST_ENTRY};
            }),
        quiet(
            "addEventHandler", plugged, [] { return GVUSB_AddEventHandler(0, &registration); }, gives<0>,
            [] { GVUSB_DelEventHandler(0, &registration); }),
        quiet(
            "addEventHandlerTwice", registered, [] { return GVUSB_AddEventHandler(0, &registration); },
            gives<0>),
        quiet(
            "delEventHandler", registered, [] { return GVUSB_DelEventHandler(0, &registration); }, gives<0>,
            [] { GVUSB_AddEventHandler(0, &registration); }),
        quiet(
            "delUnknownEventHandler", plugged, [] { return GVUSB_DelEventHandler(0, &registration); },
            gives<GVUSB_ERR_UNKNOWN_PARAMETER>),
        quiet(
            "openUnscanned", plugged, [] { return GVUSB_OpenDevice(bulkId); }, gives<GVUSB_ERR_NOT_SCANNED>),
        quiet(
            "closeUnknown", scanned, [] { return GVUSB_CloseDevice(firstHandle); },
            gives<GVUSB_ERR_HANDLE_NOT_FOUND>),
        quiet(
            "getDeviceList", opened, [] { return GVUSB_GetDeviceList(0); }, onlyGives<firstHandle>),
        quiet(
            "getDeviceHnd", opened, [] { return GVUSB_GetDeviceHnd(bulkId); }, onlyGives<firstHandle>),
        quiet(
            "getDeviceHndOfClosed", scanned, [] { return GVUSB_GetDeviceHnd(bulkId); },
            gives<GVUSB_ERR_NOT_OPENED>),
        quiet(
            "getDriverPara", plugged, [] { return GVUSB_GetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", value); },
            gives<0>),
        quiet(
            "setUpdateRate", plugged,
            [] { return GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "300000"); }, gives<0>),
        quiet(
            "suspend", plugged, [] { return GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"); },
            gives<0>),
        quiet(
            "getParallel", plugged, [] { return GVUSB_GetDevicePara(GVUSB_DRIVER, "PARALLEL", value); },
            gives<0>),
        // The value that it has, so that all operations of the suite run in one mode.
        quiet(
            "setParallel", plugged,
            [] {
                return GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", support::inParallelSuite() ? "1" : "0");
            },
            gives<0>),
        quiet(
            "setParallelOutOfRange", plugged,
            [] { return GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", "2"); }, gives<GVUSB_ERR_OUT_OF_RANGE>),
        quiet(
            "getTimeOut", opened, [] { return GVUSB_GetDevicePara(firstHandle, "TIMEOUT", value); },
            gives<0>),
        quiet(
            "setTimeOut", opened, [] { return GVUSB_SetDevicePara(firstHandle, "TIMEOUT", "250"); },
            gives<0>),
        quiet(
            "cancel", opened, [] { return GVUSB_SetDevicePara(firstHandle, "CANCEL", ""); },
            support::inParallelSuite() ? gives<0> : gives<GVUSB_ERR_UNKNOWN_PARAMETER>),
        quiet(
            "setEveryTimeOut", opened,
            [] { return GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "250"); }, gives<0>),
        quiet(
            "setTimeOutOfNone", scanned,
            [] { return GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "250"); }, onlyGives<earlierError>),
        quiet(
            "getTimeOutOfNone", scanned,
            [] { return GVUSB_GetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", value); },
            gives<GVUSB_ERR_EMPTY_DEVICE_LIST>),
        quiet(
            "unknownKey", opened, [] { return GVUSB_SetDevicePara(firstHandle, "COLOUR", "red"); },
            gives<GVUSB_ERR_UNKNOWN_PARAMETER>),
        quiet(
            "transceiveUnknownHandle", scanned,
            [] { return GVUSB_Transceive(firstHandle, GVUSB_PROTOCOL, 0, buffer, 4, buffer, 4); },
            gives<GVUSB_ERR_HANDLE_NOT_FOUND>),
        quiet(
            "transmitUnknownProtocol", opened, [] { return GVUSB_Transmit(firstHandle, "MORSE", buffer, 4); },
            gives<GVUSB_ERR_UNKNOWN_INTERFACE>),
        quiet(
            "receiveNothing", opened, [] { return GVUSB_Receive(firstHandle, GVUSB_PROTOCOL, buffer, 0); },
            gives<GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL>),
        quiet(
            "isUnknownPresent", scanned, [] { return GVUSB_IsDevicePresent(firstHandle); },
            gives<GVUSB_ERR_HANDLE_NOT_FOUND>),
        quiet("getLastError", plugged, errorText, gives<0>),
        quiet(
            "getUnknownErrorText", plugged, [] { return GVUSB_GetErrorText(-1124, text); },
            gives<GVUSB_ERR_UNKNOWN_ERROR_CODE>),
        quiet(
            "getDLLVersion", plugged, [] { return std::strcmp(GVUSB_GetDLLVersion(), "07.01.00"); },
            gives<0>),
        quiet("getDrvVersion", plugged, GVUSB_GetDrvVersion, gives<GVUSB_ERR_UNSUPPORTED_METHOD>),
    };
}

} // namespace failures
