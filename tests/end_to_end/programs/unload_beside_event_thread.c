/*
 * Loads and unloads the library as often as the argument says, while one thread handles libusb's events and
 * another one plugs and unplugs a reader. The event thread has its own reference to libusb's context.
 */
#include "bus.h"
#include "loaded.h"

#include <libusb.h>

#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

static atomic_bool stopping;

static void* handle_events(void* nothing) {
    while (!atomic_load(&stopping)) {
        struct timeval longest = {.tv_sec = 0, .tv_usec = 200000};
        libusb_handle_events_timeout_completed(NULL, &longest, NULL);
    }
    return nothing;
}

static void* change_bus(void* nothing) {
    const int reader = plug_new("id=77");
    while (!atomic_load(&stopping)) {
        bus("unplug %d", reader);
        bus("plug %d", reader);
    }
    bus("unplug %d", reader);
    return nothing;
}

/*
 * The emulated bus looks up each C library function on its first call, which waits for the loader's lock. If
 * a thread of the library did that during dlclose(), which waits for it, both would deadlock.
 */
static void open_each_device_once(void) {
    libusb_device** devices = NULL;
    libusb_device_handle* handle = NULL;
    const ssize_t count = libusb_get_device_list(NULL, &devices);
    for (ssize_t i = 0; i < count; ++i) {
        if (libusb_open(devices[i], &handle) == 0) {
            unsigned char text[8];
            libusb_get_string_descriptor_ascii(handle, 1, text, sizeof text);
            libusb_close(handle);
        }
    }
    libusb_free_device_list(devices, 1);
}

int main(int argc, char** argv) {
    if (argc != 2 || libusb_init(NULL) != 0) {
        return 2;
    }
    open_each_device_once();
    pthread_t events;
    pthread_t changes;
    if (pthread_create(&events, NULL, handle_events, NULL) != 0 ||
        pthread_create(&changes, NULL, change_bus, NULL) != 0) {
        return 2;
    }
    const double begin = now_ms();
    const int times = atoi(argv[1]);
    for (int i = 0; i < times; ++i) {
        struct loaded gvusb;
        if (!load(&gvusb) || !unload(&gvusb)) {
            return 3;
        }
    }
    printf("%.2f ms each\n", (now_ms() - begin) / times);
    atomic_store(&stopping, true);
    pthread_join(changes, NULL);
    pthread_join(events, NULL);
    return 0;
}
