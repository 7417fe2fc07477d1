/* Uses only the public header, as C99. */
#include "gvusb.h"

/* The exact signatures: the compiler rejects a pointer of another type. */
struct Functions {
    int (*scan)(int, struct _GVUSB_SCANSEARCH*);
    int (*scanAndOpen)(int, struct _GVUSB_SCANSEARCH*);
    int (*getScanListPara)(int, const char*, char*);
    int (*getScanListSize)(void);
    int (*clearScanList)(void);
    int (*addEventHandler)(int, struct _GVUSB_EVENT_INIT*);
    int (*delEventHandler)(int, struct _GVUSB_EVENT_INIT*);
    int (*openDevice)(unsigned int);
    int (*closeDevice)(int);
    int (*isDevicePresent)(int);
    int (*getDeviceList)(int);
    const char* (*getDllVersion)(void);
    int (*getDrvVersion)(void);
    int (*getDevicePara)(int, const char*, char*);
    int (*setDevicePara)(int, const char*, const char*);
    int (*getDeviceHnd)(unsigned int);
    int (*transceive)(int, const char*, int, const unsigned char*, unsigned int, unsigned char*,
                      unsigned int);
    int (*transmit)(int, const char*, const unsigned char*, unsigned int);
    int (*receive)(int, const char*, unsigned char*, unsigned int);
    int (*getErrorText)(int, char*);
    int (*getLastError)(int, int*, char*);
};

static const struct Functions functions = {
    GVUSB_Scan,          GVUSB_ScanAndOpen,     GVUSB_GetScanListPara, GVUSB_GetScanListSize,
    GVUSB_ClearScanList, GVUSB_AddEventHandler, GVUSB_DelEventHandler, GVUSB_OpenDevice,
    GVUSB_CloseDevice,   GVUSB_IsDevicePresent, GVUSB_GetDeviceList,   GVUSB_GetDLLVersion,
    GVUSB_GetDrvVersion, GVUSB_GetDevicePara,   GVUSB_SetDevicePara,   GVUSB_GetDeviceHnd,
    GVUSB_Transceive,    GVUSB_Transmit,        GVUSB_Receive,         GVUSB_GetErrorText,
    GVUSB_GetLastError,
};

static void onEvent(int devHnd, unsigned int devId, const char* text) {
    (void)devHnd;
    (void)devId;
    (void)text;
}

const char* publicHeaderVersionFromC(void);
int publicHeaderRoundTripFromC(char* text);

const char* publicHeaderVersionFromC(void) {
    return functions.getDllVersion();
}

/* Initialize both records, and return the first nonzero code. */
int publicHeaderRoundTripFromC(char* text) {
    GVUSB_SCANSEARCH search = {GVUSB_SEARCH_DEVICE_NAME, "DESKTOP", "READER ONE", "1A2B3C"};
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onEvent};
    int code = functions.addEventHandler(0, &registration);
    if (code == GVUSB_OK) {
        code = functions.delEventHandler(0, &registration);
    }
    if (code == GVUSB_OK) {
        code = functions.scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search);
    }
    functions.getErrorText(code, text);
    return code;
}
