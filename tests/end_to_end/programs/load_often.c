/*
 * Loads and unloads the library as often as the argument says. While it is loaded, opens the reader A1 and
 * replugs the other reader. Prints the resources in use after the first loads and at the end.
 */
#include "bus.h"
#include "loaded.h"
#include "process_figures.h"

#include <stdio.h>
#include <stdlib.h>

/* After this many loads, the caches of the dynamic linker and the allocator are full. */
enum { first_loads = 20 };

enum { comer = 2 };

static void ignore(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
}

/*
 * The exchange also delivers libusb's events, so in mode 2 a thread of the library is reporting when this
 * returns.
 */
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

struct expected_scan {
    const struct loaded* gvusb;
    int readers;
};

static bool finds_readers(void* context) {
    const struct expected_scan* const expected = context;
    expected->gvusb->scan(GVUSB_SCAN_ALL, NULL);
    return expected->gvusb->scan_list_size() == expected->readers;
}

/*
 * The emulated bus looks up each C library function on its first call, which takes the loader's lock.
 * libusb's own thread must not do that during dlclose(): dlclose() holds the lock and waits for that thread.
 * So make sure that the functions are looked up before.
 */
static bool let_libusb_see_a_replug(const struct loaded* gvusb) {
    struct expected_scan without_comer = {gvusb, 1};
    struct expected_scan with_comer = {gvusb, 2};
    bus("unplug %d", comer);
    const bool seen_leaving = await(finds_readers, &without_comer, 60000);
    bus("plug %d", comer);
    return seen_leaving && await(finds_readers, &with_comer, 60000);
}

static bool load_once(void) {
    struct loaded gvusb;
    if (!load(&gvusb)) {
        return false;
    }
    const bool used = use(&gvusb);
    return unload(&gvusb) && used;
}

static void print_figures(int loads) {
    const struct process_figures figures = own_figures();
    printf("%d loads, resident %ld kB, descriptors %ld, threads %ld\n", loads, figures.resident_kb,
           figures.descriptors, figures.threads);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    const int loads = atoi(argv[1]);
    struct loaded first;
    if (!load(&first) || !let_libusb_see_a_replug(&first) || !unload(&first)) {
        fprintf(stderr, "libusb does not see a replug\n");
        return 1;
    }
    for (int i = 1; i <= loads; ++i) {
        if (!load_once()) {
            fprintf(stderr, "at load %d\n", i);
            return 1;
        }
        if (i == first_loads || i == loads) {
            print_figures(i);
        }
    }
    return 0;
}
