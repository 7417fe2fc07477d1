/*
 * Loads and unloads the library as often as argument 1 says. In between it opens the reader A1, and the other one goes
 * and comes back. With an argument 2, "event-thread", a thread handles libusb's events all the time, with a reference
 * of its own to libusb's context. Prints what the process takes of the machine after the first loads and at the end.
 */
#include "bus.h"
#include "loaded.h"
#include "process_figures.h"

#include <libusb.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* After so many loads the dynamic linker and the allocator have what they keep. */
enum { first_loads = 20 };

enum { comer = 2 };

static void ignore(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
}

/* The exchange delivers libusb's events too, so in mode 2 a thread of the library reports when this returns. */
static bool use(const struct loaded* gvusb) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .devId = "A1"};
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    const int handle = gvusb->scan_and_open(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search);
    const int added = gvusb->add_event_handler(0, &connect);
    bus("replug %d", comer);
    const int count =
        gvusb->transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
    if (added != 0 || count != sizeof frame) {
        fprintf(stderr, "opening gave %d, adding a handler %d, exchanging %d\n", handle, added, count);
        return false;
    }
    return true;
}

/* A thread that handles events may be in the library's callback when the library is unloaded. */
static bool load_once(bool beside_event_thread) {
    struct loaded gvusb;
    if (!load(&gvusb)) {
        return false;
    }
    const bool used = use(&gvusb);
    if (beside_event_thread) {
        bus("replug %d", comer);
    }
    return unload(&gvusb) && used;
}

static void print_figures(int loads) {
    const struct process_figures figures = own_figures();
    printf("%d loads, resident %ld kB, descriptors %ld, threads %ld\n", loads, figures.resident_kb,
           figures.descriptors, figures.threads);
}

static void* handle_events(void* nothing) {
    for (;;) {
        libusb_handle_events(NULL);
    }
    return nothing;
}

static bool start_event_thread(void) {
    pthread_t thread;
    return libusb_init(NULL) == 0 && pthread_create(&thread, NULL, handle_events, NULL) == 0;
}

int main(int argc, char** argv) {
    const bool beside_event_thread = argc == 3 && strcmp(argv[2], "event-thread") == 0;
    if ((argc != 2 && !beside_event_thread) || (beside_event_thread && !start_event_thread())) {
        return 2;
    }
    const int loads = atoi(argv[1]);
    for (int i = 1; i <= loads; ++i) {
        if (!load_once(beside_event_thread)) {
            fprintf(stderr, "at load %d\n", i);
            return 1;
        }
        if (i == first_loads || i == loads) {
            print_figures(i);
        }
    }
    return 0;
}
