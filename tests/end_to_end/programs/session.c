/* A session with the reader 1A2B3C, including some mistakes. Its only output is the log. */
#include <gvusb.h>

#include <string.h>

int main(void) {
    static const unsigned char frame[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    unsigned char answer[64];
    char value[GVUSB_PARAMETER_SIZE] = "";

    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    GVUSB_GetScanListSize();
    GVUSB_OpenDevice(0xDECAF);
    const int handle = GVUSB_OpenDevice(0x1A2B3C);
    if (handle < 0) {
        return 1;
    }
    const int count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
    if (count != sizeof frame || memcmp(answer, frame, sizeof frame) != 0) {
        return 2;
    }
    GVUSB_SetDevicePara(handle, "TimeOut", "20");
    GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, sizeof answer);
    GVUSB_IsDevicePresent(handle);
    GVUSB_GetDevicePara(handle, "colour", value);
    GVUSB_GetDevicePara(handle, "TYPENUMBER", value);
    GVUSB_SetDevicePara(GVUSB_DRIVER, "hotplug-updaterate", "5");

    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .devId = "1a2b3c"};
    GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search);
    strcpy(search.devId, "1A2B3F");
    GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search);
    GVUSB_Scan(99, NULL);

    GVUSB_CloseDevice(handle);
    return GVUSB_CloseDevice(handle) == GVUSB_ERR_HANDLE_NOT_FOUND ? 0 : 3;
}
