/*
 * Calls the library, argument 1, when it has ended: from an atexit function that was registered before it was loaded, which
 * therefore runs after it.
 */
#include <gvusb.h>

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int (*scan)(int, GVUSB_SCANSEARCH*);
static int (*scan_and_open)(int, GVUSB_SCANSEARCH*);
static int (*add_handler)(int, GVUSB_EVENT_INIT*);
static int (*next_handle)(int);
static int (*transmit)(int, const char*, const unsigned char*, unsigned int);
static int handle;

static void ignore(int of, unsigned int id, const char* text) {
    (void)of;
    (void)id;
    (void)text;
}

static void call_it(void) {
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    printf("scan: %d\n", scan(GVUSB_SCAN_ALL, NULL));
    printf("scan and open: %d\n", scan_and_open(GVUSB_SCAN_FIRST, NULL));
    for (int i = 0; i < 1000; ++i) {
        const int code = add_handler(0, &registration);
        if (code != GVUSB_ERR_LIBUSB_API) {
            printf("add handler: %d\n", code);
        }
    }
    printf("next handle: %d\n", next_handle(0));
    printf("transmit: %d\n", transmit(handle, GVUSB_PROTOCOL, (const unsigned char*)"x", 1));
}

static void look_up(void* library, const char* name, void* function) {
    void* symbol = dlsym(library, name);
    memcpy(function, &symbol, sizeof symbol);
}

int main(int argc, char** argv) {
    if (argc != 2 || atexit(call_it) != 0) {
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_NOW);
    if (library == NULL) {
        printf("%s\n", dlerror());
        return 2;
    }
    look_up(library, "GVUSB_Scan", &scan);
    look_up(library, "GVUSB_ScanAndOpen", &scan_and_open);
    look_up(library, "GVUSB_AddEventHandler", &add_handler);
    look_up(library, "GVUSB_GetDeviceList", &next_handle);
    look_up(library, "GVUSB_Transmit", &transmit);
    handle = scan_and_open(GVUSB_SCAN_FIRST, NULL);
    return handle > 0 ? 0 : 1;
}
