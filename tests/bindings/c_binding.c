/* The cases in C: the functions of gvusb.h. */
#include "binding.h"
#include "events.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int next_event_index;

/* Return the record for a search, or null for every reader. */
static GVUSB_SCANSEARCH* record_of(const struct wanted* wanted, GVUSB_SCANSEARCH* record) {
    memset(record, 0, sizeof *record);
    if (wanted->family != NULL) {
        record->mask = GVUSB_SEARCH_FAMILY_NAME;
        snprintf(record->famName, sizeof record->famName, "%s", wanted->family);
    } else if (wanted->name != NULL) {
        record->mask = GVUSB_SEARCH_DEVICE_NAME;
        snprintf(record->devName, sizeof record->devName, "%s", wanted->name);
    } else if (wanted->id != NULL) {
        record->mask = GVUSB_SEARCH_DEVICE_ID;
        snprintf(record->devId, sizeof record->devId, "%s", wanted->id);
    } else {
        return NULL;
    }
    return record;
}

static int option(int option_without_search, const GVUSB_SCANSEARCH* record) {
    return record == NULL ? option_without_search : option_without_search | GVUSB_SCAN_SEARCH;
}

/* Read a number of each entry of the scan list, and return the number of entries. */
static int read_scan_list(const char* key, int base, unsigned int* numbers) {
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size && index < most_found; ++index) {
        char value[GVUSB_PARAMETER_SIZE] = "";
        const int code = GVUSB_GetScanListPara(index, key, value);
        if (code != 0) {
            return code;
        }
        numbers[index] = (unsigned int)strtoul(value, NULL, base);
    }
    return size;
}

static int scan(const struct wanted* wanted, unsigned int* ids) {
    GVUSB_SCANSEARCH search;
    GVUSB_SCANSEARCH* const record = record_of(wanted, &search);
    const int code = GVUSB_Scan(option(GVUSB_SCAN_ALL, record), record);
    if (code == GVUSB_ERR_NO_DEVICE_FOUND) {
        return GVUSB_GetScanListSize();
    }
    return code != 0 ? code : read_scan_list("DEVICE-ID", 16, ids);
}

static int open_reader(unsigned int id) {
    return GVUSB_OpenDevice(id);
}

static int open_first(const struct wanted* wanted) {
    GVUSB_SCANSEARCH search;
    GVUSB_SCANSEARCH* const record = record_of(wanted, &search);
    return GVUSB_ScanAndOpen(option(GVUSB_SCAN_FIRST, record), record);
}

static int open_all(const struct wanted* wanted, int* handles) {
    GVUSB_SCANSEARCH search;
    GVUSB_SCANSEARCH* const record = record_of(wanted, &search);
    const int code = GVUSB_ScanAndOpen(option(GVUSB_SCAN_ALL, record), record);
    if (code == GVUSB_ERR_NO_DEVICE_FOUND) {
        return 0;
    }
    return code != 0 ? code : read_scan_list("DEVICEHND", 10, (unsigned int*)handles);
}

static int transceive(int handle, const unsigned char* frame, size_t length, unsigned char* buffer,
                      size_t size) {
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, (unsigned int)length, buffer,
                            (unsigned int)size);
}

static int transmit(int handle, const unsigned char* frame, size_t length) {
    return GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, (unsigned int)length);
}

static int receive(int handle, unsigned char* buffer, size_t size) {
    return GVUSB_Receive(handle, GVUSB_PROTOCOL, buffer, (unsigned int)size);
}

static int watch(void) {
    forget_events();
    next_event_index = 0;
    return record_events() ? 0 : GVUSB_ERR_INTERNAL;
}

static int unwatch(void) {
    return stop_recording() ? 0 : GVUSB_ERR_INTERNAL;
}

static int next_event(int longest_ms, struct reported* event) {
    if (event_count() <= next_event_index && (longest_ms == 0 || !await_events(next_event_index + 1))) {
        return 0;
    }
    const struct event recorded = recorded_event(next_event_index++);
    *event = (struct reported){recorded.kind, recorded.handle, recorded.id};
    return 1;
}

static int code_named(const char* name) {
    static const struct {
        const char* name;
        int code;
    } codes[] = {
#define CODE(name) {#name, name}
        CODE(GVUSB_OK),
        CODE(GVUSB_ERR_EMPTY_DEVICE_LIST),
        CODE(GVUSB_ERR_EMPTY_SCAN_LIST),
        CODE(GVUSB_ERR_NULL_POINTER),
        CODE(GVUSB_ERR_NO_MEMORY),
        CODE(GVUSB_ERR_SET_CONFIGURATION),
        CODE(GVUSB_ERR_KERNEL_FUNCTION),
        CODE(GVUSB_ERR_UNSUPPORTED_OPTION),
        CODE(GVUSB_ERR_UNSUPPORTED_METHOD),
        CODE(GVUSB_ERR_NO_CONFIGURATION),
        CODE(GVUSB_ERR_LIBUSB_API),
        CODE(GVUSB_ERR_NO_GAVO_DEVICE),
        CODE(GVUSB_ERR_SEARCH_MISMATCH),
        CODE(GVUSB_ERR_NO_DEVICE_FOUND),
        CODE(GVUSB_ERR_ALREADY_SCANNED),
        CODE(GVUSB_ERR_SCAN_LIST_OVERFLOW),
        CODE(GVUSB_ERR_NO_CURRENT_ENTRY),
        CODE(GVUSB_ERR_UNKNOWN_DEVICE_HANDLE),
        CODE(GVUSB_ERR_NULL_HANDLE),
        CODE(GVUSB_ERR_NEGATIVE_HANDLE),
        CODE(GVUSB_ERR_HANDLE_NOT_FOUND),
        CODE(GVUSB_ERR_TIMEOUT),
        CODE(GVUSB_ERR_NO_SEND_DATA),
        CODE(GVUSB_ERR_UNKNOWN_INTERFACE),
        CODE(GVUSB_ERR_UNKNOWN_DIRECTION),
        CODE(GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL),
        CODE(GVUSB_ERR_SEND_LENGTH),
        CODE(GVUSB_ERR_UNKNOWN_DESCRIPTOR),
        CODE(GVUSB_ERR_NOT_PRESENT),
        CODE(GVUSB_ERR_TRANSMIT_PROCESS),
        CODE(GVUSB_ERR_BULK_TRANSFER),
        CODE(GVUSB_ERR_NOT_SCANNED),
        CODE(GVUSB_ERR_NOT_IN_SCAN_LIST),
        CODE(GVUSB_ERR_DEVICE_LIST_HANDLE),
        CODE(GVUSB_ERR_CANNOT_OPEN),
        CODE(GVUSB_ERR_NOT_OPENED),
        CODE(GVUSB_ERR_CANNOT_CLAIM),
        CODE(GVUSB_ERR_WRONG_DEVICE),
        CODE(GVUSB_ERR_UNKNOWN_PARAMETER),
        CODE(GVUSB_ERR_OUT_OF_RANGE),
        CODE(GVUSB_ERR_ODD_PARAMETER),
        CODE(GVUSB_ERR_INDEX_OUT_OF_RANGE),
        CODE(GVUSB_ERR_UNKNOWN_SCAN_OPTION),
        CODE(GVUSB_ERR_UNKNOWN_ERROR_CODE),
        CODE(GVUSB_ERR_PARAMETER_SYNTAX),
        CODE(GVUSB_ERR_PARAMETER_NOT_AVAILABLE),
        CODE(GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_HID_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_STRING_DESCRIPTOR_LENGTH),
        CODE(GVUSB_ERR_DEVICE_DESCRIPTOR_READ),
        CODE(GVUSB_ERR_CONFIG_DESCRIPTOR_READ),
        CODE(GVUSB_ERR_STRING_DESCRIPTOR_READ),
        CODE(GVUSB_ERR_TOO_MANY_INTERFACES),
        CODE(GVUSB_ERR_TOO_MANY_ENDPOINTS),
        CODE(GVUSB_ERR_TOO_MANY_STRINGS),
        CODE(GVUSB_ERR_CONTROL_TRANSFER),
        CODE(GVUSB_ERR_INTERNAL),
        CODE(GVUSB_NO_SCAN_LIST_ENTRY),
#undef CODE
    };
    for (size_t i = 0; i < sizeof codes / sizeof *codes; ++i) {
        if (strcmp(codes[i].name, name) == 0) {
            return codes[i].code;
        }
    }
    return strcmp(name, "GVUSB_OK") == 0 ? GVUSB_OK : 1;
}

static void text_of(int code, char* text) {
    GVUSB_GetErrorText(code, text);
}

static void ignore_event(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
}

static int call(const char* function, const struct argument* arguments, size_t count) {
    static const struct argument none = {0, 0, NULL};
    const struct argument first = count > 0 ? arguments[0] : none;
    const struct argument second = count > 1 ? arguments[1] : none;
    const struct argument third = count > 2 ? arguments[2] : none;
    char value[GVUSB_PARAMETER_SIZE] = "";
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, (unsigned int)second.number, 0, ignore_event};
    GVUSB_EVENT_INIT* const given = second.is_number ? &registration : NULL;
#define IS(name) (strcmp(function, #name) == 0)
    if (IS(GVUSB_Scan)) {
        return GVUSB_Scan(first.number, NULL);
    }
    if (IS(GVUSB_ScanAndOpen)) {
        return GVUSB_ScanAndOpen(first.number, NULL);
    }
    if (IS(GVUSB_GetScanListSize)) {
        return GVUSB_GetScanListSize();
    }
    if (IS(GVUSB_ClearScanList)) {
        return GVUSB_ClearScanList();
    }
    if (IS(GVUSB_GetScanListPara)) {
        return GVUSB_GetScanListPara(first.number, second.text, value);
    }
    if (IS(GVUSB_OpenDevice)) {
        return GVUSB_OpenDevice((unsigned int)first.number);
    }
    if (IS(GVUSB_CloseDevice)) {
        return GVUSB_CloseDevice(first.number);
    }
    if (IS(GVUSB_GetDeviceHnd)) {
        return GVUSB_GetDeviceHnd((unsigned int)first.number);
    }
    if (IS(GVUSB_GetDeviceList)) {
        return GVUSB_GetDeviceList(first.number);
    }
    if (IS(GVUSB_GetDevicePara)) {
        return GVUSB_GetDevicePara(first.number, second.text, value);
    }
    if (IS(GVUSB_SetDevicePara)) {
        return GVUSB_SetDevicePara(first.number, second.text, third.text);
    }
    if (IS(GVUSB_Transmit)) {
        const size_t length = third.text == NULL ? 0 : strlen(third.text);
        return GVUSB_Transmit(first.number, second.text, (const unsigned char*)third.text,
                              (unsigned int)length);
    }
    if (IS(GVUSB_AddEventHandler)) {
        return GVUSB_AddEventHandler(first.number, given);
    }
    if (IS(GVUSB_DelEventHandler)) {
        return GVUSB_DelEventHandler(first.number, given);
    }
    if (IS(GVUSB_GetErrorText)) {
        char text[GVUSB_TEXT_SIZE];
        return GVUSB_GetErrorText(first.number, text);
    }
    if (IS(GVUSB_GetDrvVersion)) {
        return GVUSB_GetDrvVersion();
    }
#undef IS
    fprintf(stderr, "the C binding cannot call %s\n", function);
    abort();
}

const struct binding c_binding = {
    .scan = scan,
    .open = open_reader,
    .open_first = open_first,
    .open_all = open_all,
    .close = GVUSB_CloseDevice,
    .transceive = transceive,
    .transmit = transmit,
    .receive = receive,
    .get = GVUSB_GetDevicePara,
    .set = GVUSB_SetDevicePara,
    .present = GVUSB_IsDevicePresent,
    .watch = watch,
    .unwatch = unwatch,
    .next_event = next_event,
    .code_named = code_named,
    .text_of = text_of,
    .call = call,
};
