/*
 * Loads the library with dlopen(), for programs that prepare something first or unload it.
 *
 * Nothing here prints to standard output.
 */
#ifndef GVUSB_TESTS_LOADED_H
#define GVUSB_TESTS_LOADED_H

#include <gvusb.h>

#include <stdbool.h>

struct loaded {
    void* library;
    __typeof__(GVUSB_Scan)* scan;
    __typeof__(GVUSB_ScanAndOpen)* scan_and_open;
    __typeof__(GVUSB_GetScanListSize)* scan_list_size;
    __typeof__(GVUSB_OpenDevice)* open_device;
    __typeof__(GVUSB_CloseDevice)* close_device;
    __typeof__(GVUSB_IsDevicePresent)* is_present;
    __typeof__(GVUSB_GetDevicePara)* get_parameter;
    __typeof__(GVUSB_SetDevicePara)* set_parameter;
    __typeof__(GVUSB_Transceive)* transceive;
    __typeof__(GVUSB_Receive)* receive;
    __typeof__(GVUSB_AddEventHandler)* add_event_handler;
};

/* If it returns false, the reason is on standard error. */
bool load(struct loaded* gvusb);

/* False if the library stays loaded. */
bool unload(struct loaded* gvusb);

#endif
