/*
 * Calls the library after its destructors have run: in an atexit() function that was registered before the
 * library was loaded, and so runs after them.
 */
#include "loaded.h"

#include <stdio.h>
#include <stdlib.h>

static struct loaded gvusb;
static int handle;

static void ignore(int of, unsigned int id, const char* text) {
    (void)of;
    (void)id;
    (void)text;
}

static void call_it(void) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    printf("scan: %d\n", gvusb.scan(GVUSB_SCAN_ALL, NULL));
    printf("scan and open: %d\n", gvusb.scan_and_open(GVUSB_SCAN_FIRST, NULL));
    for (int i = 0; i < 1000; ++i) {
        const int code = gvusb.add_event_handler(0, &registration);
        if (code != GVUSB_ERR_LIBUSB_API) {
            printf("add handler: %d\n", code);
        }
    }
    printf("scan list: %d\n", gvusb.scan_list_size());
    printf("transceive: %d\n",
           gvusb.transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer));
}

int main(void) {
    if (atexit(call_it) != 0 || !load(&gvusb)) {
        return 2;
    }
    handle = gvusb.scan_and_open(GVUSB_SCAN_FIRST, NULL);
    return handle > 0 ? 0 : 1;
}
