/* A user's application: reads settings, then exchanges one frame. */
#include <gvusb.h>

#include <stdio.h>

int main(void) {
    static const unsigned char request[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    unsigned char answer[256];
    char mode[GVUSB_PARAMETER_SIZE];
    GVUSB_GetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", mode);
    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, NULL);
    int count = handle;
    if (handle > 0) {
        count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request, sizeof request, answer, sizeof answer);
    }
    printf("version %s, mode %s, %d bytes\n", GVUSB_GetDLLVersion(), mode, count);
    return count > 0 ? 0 : 1;
}
