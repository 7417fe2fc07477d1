/*
 * Ends by calling exit() in an event handler, while main() handles libusb's events without its own reference
 * to libusb's default context.
 */
#include "bus.h"

#include <gvusb.h>
#include <libusb.h>

#include <stdlib.h>

static void end_program(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)text;
    if (id == 0xE0E) {
        exit(7);
    }
}

int main(void) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, end_program};
    if (GVUSB_AddEventHandler(0, &connect) != 0) {
        return 1;
    }
    plug_new("id=E0E");
    /* Mode 1 does not need this, but it does no harm. */
    for (;;) {
        libusb_handle_events(NULL);
    }
}
