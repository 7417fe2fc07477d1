// The functions of the library: what was asked for, and what came of it. The frames are in the transfers.

#include "preload.h"

#include <gvusb.h>

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

enum { longest_text = 128 };

static void (*find(const char* name))(void) {
    void* address = dlsym(RTLD_NEXT, name);
    if (address == NULL) {
        // The program has loaded the library without its names. It stays loaded, because its functions are kept.
        void* const library = dlopen("libgvusb.so.7", RTLD_LAZY | RTLD_NOLOAD);
        address = library != NULL ? dlsym(library, name) : NULL;
        // cppcheck-suppress resourceLeak
    }
    if (address == NULL) {
        abort();
    }
    void (*function)(void);
    memcpy(&function, &address, sizeof function);
    return function;
}

// Each function has a text or none, and up to three numbers.
static void record_call(enum recording_function function, int first, int second, int third,
                        const char* text) {
    struct recording_entry entry = {.kind = recording_call,
                                    .numbers = {(int32_t)function, first, second, third}};
    record(&entry, text, text != NULL ? strnlen(text, longest_text) : 0);
}

static int record_return(enum recording_function function, int result, const char* text) {
    struct recording_entry entry = {
        .kind = recording_return, .result = result, .numbers = {(int32_t)function}};
    record(&entry, text, text != NULL ? strnlen(text, longest_text) : 0);
    return result;
}

// NEXT(GVUSB_Scan): the library's own, found once.
#define NEXT(name)                                                                                           \
    static __typeof__(&(name)) own;                                                                          \
    if (__atomic_load_n(&own, __ATOMIC_RELAXED) == NULL) {                                                   \
        __atomic_store_n(&own, (__typeof__(&(name)))find(#name), __ATOMIC_RELAXED);                          \
    }

EXPORT int GVUSB_Scan(int scanOption, GVUSB_SCANSEARCH* search) {
    NEXT(GVUSB_Scan)
    record_call(recording_scan, scanOption, search != NULL ? (int)search->mask : 0, 0, NULL);
    return record_return(recording_scan, own(scanOption, search), NULL);
}

EXPORT int GVUSB_ScanAndOpen(int scanOption, GVUSB_SCANSEARCH* search) {
    NEXT(GVUSB_ScanAndOpen)
    record_call(recording_scan_and_open, scanOption, search != NULL ? (int)search->mask : 0, 0, NULL);
    return record_return(recording_scan_and_open, own(scanOption, search), NULL);
}

EXPORT int GVUSB_GetScanListPara(int index, const char* key, char* value) {
    NEXT(GVUSB_GetScanListPara)
    record_call(recording_get_scan_list_para, index, 0, 0, key);
    const int result = own(index, key, value);
    return record_return(recording_get_scan_list_para, result, result == GVUSB_OK ? value : NULL);
}

EXPORT int GVUSB_GetScanListSize(void) {
    NEXT(GVUSB_GetScanListSize)
    record_call(recording_get_scan_list_size, 0, 0, 0, NULL);
    return record_return(recording_get_scan_list_size, own(), NULL);
}

EXPORT int GVUSB_ClearScanList(void) {
    NEXT(GVUSB_ClearScanList)
    record_call(recording_clear_scan_list, 0, 0, 0, NULL);
    return record_return(recording_clear_scan_list, own(), NULL);
}

EXPORT int GVUSB_OpenDevice(unsigned int devId) {
    NEXT(GVUSB_OpenDevice)
    record_call(recording_open_device, (int)devId, 0, 0, NULL);
    return record_return(recording_open_device, own(devId), NULL);
}

EXPORT int GVUSB_CloseDevice(int devHnd) {
    NEXT(GVUSB_CloseDevice)
    record_call(recording_close_device, devHnd, 0, 0, NULL);
    return record_return(recording_close_device, own(devHnd), NULL);
}

EXPORT int GVUSB_IsDevicePresent(int devHnd) {
    NEXT(GVUSB_IsDevicePresent)
    record_call(recording_is_device_present, devHnd, 0, 0, NULL);
    return record_return(recording_is_device_present, own(devHnd), NULL);
}

EXPORT int GVUSB_GetDeviceList(int devHnd) {
    NEXT(GVUSB_GetDeviceList)
    record_call(recording_get_device_list, devHnd, 0, 0, NULL);
    return record_return(recording_get_device_list, own(devHnd), NULL);
}

EXPORT int GVUSB_GetDeviceHnd(unsigned int devId) {
    NEXT(GVUSB_GetDeviceHnd)
    record_call(recording_get_device_hnd, (int)devId, 0, 0, NULL);
    return record_return(recording_get_device_hnd, own(devId), NULL);
}

EXPORT int GVUSB_Transceive(int devHnd, const char* interfaceName, int reserved,
                            const unsigned char* sendData, unsigned int sendLength, unsigned char* buffer,
                            unsigned int size) {
    NEXT(GVUSB_Transceive)
    record_call(recording_transceive, devHnd, (int)sendLength, (int)size, interfaceName);
    return record_return(recording_transceive,
                         own(devHnd, interfaceName, reserved, sendData, sendLength, buffer, size), NULL);
}

EXPORT int GVUSB_Transmit(int devHnd, const char* interfaceName, const unsigned char* data,
                          unsigned int length) {
    NEXT(GVUSB_Transmit)
    record_call(recording_transmit, devHnd, (int)length, 0, interfaceName);
    return record_return(recording_transmit, own(devHnd, interfaceName, data, length), NULL);
}

EXPORT int GVUSB_Receive(int devHnd, const char* interfaceName, unsigned char* buffer, unsigned int size) {
    NEXT(GVUSB_Receive)
    record_call(recording_receive, devHnd, (int)size, 0, interfaceName);
    return record_return(recording_receive, own(devHnd, interfaceName, buffer, size), NULL);
}

EXPORT int GVUSB_GetDevicePara(int devHnd, const char* key, char* value) {
    NEXT(GVUSB_GetDevicePara)
    record_call(recording_get_device_para, devHnd, 0, 0, key);
    const int result = own(devHnd, key, value);
    return record_return(recording_get_device_para, result, result == GVUSB_OK ? value : NULL);
}

EXPORT int GVUSB_SetDevicePara(int devHnd, const char* key, const char* value) {
    NEXT(GVUSB_SetDevicePara)
    char texts[2 * longest_text] = "";
    if (key != NULL && value != NULL) {
        const size_t length = strnlen(key, longest_text - 1);
        memcpy(texts, key, length);
        texts[length] = '=';
        memcpy(texts + length + 1, value, strnlen(value, longest_text - 1));
    }
    record_call(recording_set_device_para, devHnd, 0, 0, texts);
    return record_return(recording_set_device_para, own(devHnd, key, value), NULL);
}

EXPORT int GVUSB_AddEventHandler(int devHnd, GVUSB_EVENT_INIT* registration) {
    NEXT(GVUSB_AddEventHandler)
    record_call(recording_add_event_handler, devHnd, registration != NULL ? (int)registration->uiEvent : 0, 0,
                NULL);
    return record_return(recording_add_event_handler, own(devHnd, registration), NULL);
}

EXPORT int GVUSB_DelEventHandler(int devHnd, GVUSB_EVENT_INIT* registration) {
    NEXT(GVUSB_DelEventHandler)
    record_call(recording_del_event_handler, devHnd, registration != NULL ? (int)registration->uiEvent : 0, 0,
                NULL);
    return record_return(recording_del_event_handler, own(devHnd, registration), NULL);
}
