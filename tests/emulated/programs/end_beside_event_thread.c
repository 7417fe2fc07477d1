/*
 * Ends while another thread handles libusb's events, without a reference of its own to libusb's context: by returning from
 * main or, with the argument "handler", by exit() in an event handler.
 */
#include "bus.h"

#include <gvusb.h>
#include <libusb.h>

#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static atomic_bool begun;

static void* handle_events(void* nothing) {
    for (;;) {
        atomic_store(&begun, true);
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

static bool has_begun(void* context) {
    (void)context;
    return atomic_load(&begun);
}

int main(int argc, char** argv) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, end_program};
    pthread_t thread;
    GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    if (GVUSB_AddEventHandler(0, &connect) != 0 || pthread_create(&thread, NULL, handle_events, NULL) != 0 ||
        !await(has_begun, NULL, 10000)) {
        return 1;
    }
    if (argc == 2 && strcmp(argv[1], "handler") == 0) {
        plug_new("id=E0E");
        sleep(60);
        return 2;
    }
    usleep(20000); /* the usual case: the thread has found no event and sleeps */
    return 7;
}
