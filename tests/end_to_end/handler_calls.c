#include "handler_calls.h"

#include "gvusb.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

enum { used_id = 0xB2 };

static char failure[64];

static int used_handle;
static unsigned char frame[] = {9, 8, 7};
static unsigned char answer[64];
static char value[GVUSB_PARAMETER_SIZE];
static char text[GVUSB_TEXT_SIZE];
static int code;

static int scan(void) {
    return GVUSB_Scan(GVUSB_SCAN_ALL, NULL) == 0;
}
static int scan_list_size(void) {
    return GVUSB_GetScanListSize() > 0;
}
static int scan_list_parameter(void) {
    return GVUSB_GetScanListPara(0, "DEVICENAME", value) == 0;
}
static int open_device(void) {
    return (used_handle = GVUSB_OpenDevice(used_id)) > 0;
}
static int device_handle(void) {
    return GVUSB_GetDeviceHnd(used_id) == used_handle;
}
static int device_list(void) {
    return GVUSB_GetDeviceList(0) != 0;
}
static int presence(void) {
    return GVUSB_IsDevicePresent(used_handle) == 1;
}
static int set_parameter(void) {
    return GVUSB_SetDevicePara(used_handle, "TIMEOUT", "2000") == 0;
}
static int get_parameter(void) {
    return GVUSB_GetDevicePara(used_handle, "TIMEOUT", value) == 0 && strcmp(value, "2000") == 0;
}
static int set_driver_parameter(void) {
    return GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "10000") == 0;
}
static int transceive(void) {
    return GVUSB_Transceive(used_handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer) ==
           sizeof frame;
}
static int transmit(void) {
    return GVUSB_Transmit(used_handle, GVUSB_PROTOCOL, frame, sizeof frame) == 0;
}
static int receive(void) {
    return GVUSB_Receive(used_handle, GVUSB_PROTOCOL, answer, sizeof answer) == sizeof frame;
}
static int last_error(void) {
    return GVUSB_GetLastError(used_handle, &code, text) == 0 && code == 0;
}
static int error_text(void) {
    return GVUSB_GetErrorText(GVUSB_ERR_TIMEOUT, text) == 0;
}
static int library_version(void) {
    return GVUSB_GetDLLVersion()[0] == '0';
}
static int driver_version(void) {
    return GVUSB_GetDrvVersion() == GVUSB_ERR_UNSUPPORTED_METHOD;
}
static int close_device(void) {
    return GVUSB_CloseDevice(used_handle) == 0;
}
static int clear_scan_list(void) {
    return GVUSB_ClearScanList() == 0;
}
static int scan_and_open(void) {
    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .devId = "B2"};
    return (used_handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search)) > 0;
}

void call_everything(const struct event* event) {
    static const struct {
        const char* name;
        int (*call)(void);
    } calls[] = {
        {"scan", scan},
        {"scan list size", scan_list_size},
        {"scan list parameter", scan_list_parameter},
        {"open", open_device},
        {"device handle", device_handle},
        {"device list", device_list},
        {"presence", presence},
        {"set parameter", set_parameter},
        {"get parameter", get_parameter},
        {"set driver parameter", set_driver_parameter},
        {"transceive", transceive},
        {"transmit", transmit},
        {"receive", receive},
        {"last error", last_error},
        {"error text", error_text},
        {"library version", library_version},
        {"driver version", driver_version},
        {"close", close_device},
        {"clear scan list", clear_scan_list},
        {"scan and open", scan_and_open},
        {"transceive again", transceive},
        {"close again", close_device},
    };
    (void)event;
    failure[0] = '\0';
    for (size_t i = 0; i < sizeof calls / sizeof *calls; ++i) {
        if (!calls[i].call()) {
            snprintf(failure, sizeof failure, "%s", calls[i].name);
            return;
        }
    }
}

const char* failed_handler_call(void) {
    return failure[0] == '\0' ? NULL : failure;
}
