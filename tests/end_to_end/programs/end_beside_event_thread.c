/*
 * Ends while another thread handles libusb's events without its own reference to libusb's context. Ends by
 * returning from main() or, with the argument "handler", by exit() in an event handler.
 */
#include "bus.h"

#include <gvusb.h>
#include <libusb.h>

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void* handle_events(void* nothing) {
    for (;;) {
        libusb_handle_events(NULL);
    }
    return nothing;
}

static void end_program(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)text;
    if (id == 0xE0E) {
        exit(7);
    }
}

/* A thread that started late would find no context. */
static bool events_are_handled(void* context) {
    (void)context;
    return libusb_event_handler_active(NULL) != 0;
}

int main(int argc, char** argv) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, end_program};
    pthread_t thread;
    GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    if (GVUSB_AddEventHandler(0, &connect) != 0 || pthread_create(&thread, NULL, handle_events, NULL) != 0 ||
        !await(events_are_handled, NULL, 60000)) {
        return 1;
    }
    if (argc == 2 && strcmp(argv[1], "handler") == 0) {
        plug_new("id=E0E");
        sleep(60);
        return 2;
    }
    return 7;
}
