/*
 * Loads, uses and unloads the library while the creation of one thread, numbered by argument 1, fails; then
 * again without a failure. Arguments 2 and 3 tell for each time whether to wait for a handler: "event" or
 * "silence". Prints the results of the calls, the number of attempted creations, and the resources left over.
 */
#include "bus.h"
#include "loaded.h"
#include "process_figures.h"
#include "thread_creation.h"

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { used_id = 0xA1, comer = 2 };

enum { longest_wait_ms = 60000, silence_us = 100000, attempt_ms = 100 };

static atomic_int reports;

static void count_report(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    atomic_fetch_add(&reports, 1);
}

static int exchange(const struct loaded* gvusb, int handle) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    return gvusb->transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
}

static struct {
    const struct loaded* gvusb;
    int handle;
} user;

/* In mode 2, an exchange delivers libusb's events. */
static bool is_reported(void* nothing) {
    (void)nothing;
    exchange(user.gvusb, user.handle);
    return atomic_load(&reports) > 0;
}

/* Replug until the reader is reported. */
static bool is_reported_when_replugged(void* nothing) {
    bus("replug %d", comer);
    return await(is_reported, nothing, attempt_ms);
}

static void use(const struct loaded* gvusb, bool event) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, count_report};
    atomic_store(&reports, 0);
    bus("unplug %d", comer);
    printf("scan %d,", gvusb->scan(GVUSB_SCAN_ALL, NULL));
    user.gvusb = gvusb;
    user.handle = gvusb->open_device(used_id);
    printf(" open %d,", user.handle > 0 ? 1 : user.handle);
    printf(" exchange %d,", exchange(gvusb, user.handle));
    printf(" handler %d,", gvusb->add_event_handler(0, &connect));
    bus("plug %d", comer);
    if (event) {
        await(is_reported_when_replugged, NULL, longest_wait_ms);
    } else {
        usleep(silence_us);
    }
    printf(" %s", atomic_load(&reports) > 0 ? "event" : "silence");
}

int main(int argc, char** argv) {
    struct loaded gvusb;
    if (argc != 4) {
        return 2;
    }
    /* The bus's channel stays open, and a sanitizer's runtime has its own thread after the first. */
    bus("list");
    if (!load(&gvusb) || !unload(&gvusb)) {
        return 2;
    }
    const struct process_figures before = own_figures();
    fail_thread_creation(atoi(argv[1]));
    if (!load(&gvusb)) {
        return 2;
    }
    use(&gvusb, strcmp(argv[2], "event") == 0);
    if (!unload(&gvusb)) {
        return 3;
    }
    printf("; %d creations;", thread_creations());
    fail_thread_creation(0);
    const struct process_figures after = own_figures();
    printf(" %ld descriptors and %ld threads more; ", after.descriptors - before.descriptors,
           after.threads - before.threads);
    if (!load(&gvusb)) {
        return 2;
    }
    use(&gvusb, strcmp(argv[3], "event") == 0);
    return unload(&gvusb) ? 0 : 3;
}
