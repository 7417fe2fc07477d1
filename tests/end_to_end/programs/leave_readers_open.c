/* Ends while every reader is open and event handlers are registered. */
#include <gvusb.h>

#include <stdio.h>

static void ignore(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
}

int main(void) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    if (GVUSB_AddEventHandler(0, &connect) != 0 || GVUSB_AddEventHandler(0, &disconnect) != 0 ||
        GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL) != 0) {
        return 1;
    }
    for (int handle = GVUSB_GetDeviceList(0); handle != 0; handle = GVUSB_GetDeviceList(handle)) {
        if (GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer) != 3) {
            return 2;
        }
    }
    printf("main ends\n");
    fflush(stdout);
    return 42;
}
