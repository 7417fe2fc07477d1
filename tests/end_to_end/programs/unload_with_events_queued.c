/* Ends while an event handler is running and more events are queued. Prints how many handlers have begun. */
#include "bus.h"

#include <gvusb.h>
#include <libusb.h>

#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <unistd.h>

enum { arrivals = 5, handler_us = 300000 };

static atomic_int begun;
static int delivered;

static void be_slow(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    printf("handler\n");
    atomic_fetch_add(&begun, 1);
    usleep(handler_us);
}

static int LIBUSB_CALL count_arrival(libusb_context* context, libusb_device* device,
                                     libusb_hotplug_event event, void* data) {
    (void)context;
    (void)device;
    (void)event;
    (void)data;
    ++delivered;
    return 0;
}

static bool has_begun(void* context) {
    (void)context;
    return atomic_load(&begun) > 0;
}

int main(void) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, be_slow};
    if (GVUSB_AddEventHandler(0, &connect) != 0 ||
        libusb_hotplug_register_callback(NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0,
                                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                         LIBUSB_HOTPLUG_MATCH_ANY, count_arrival, NULL, NULL) != 0) {
        return 1;
    }
    for (int i = 0; i < arrivals; ++i) {
        bus("plug id=%X", 0xF00 + i);
    }
    while (delivered < arrivals) {
        libusb_handle_events(NULL);
    }
    return await(has_begun, NULL, 60000) ? 0 : 1;
}
