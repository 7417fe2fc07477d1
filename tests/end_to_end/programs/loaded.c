#include "loaded.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

/* C cannot cast a void pointer to a function pointer, so copy it. */
static bool look_up(void* library, const char* name, void* function) {
    void* const symbol = dlsym(library, name);
    if (symbol == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    memcpy(function, &symbol, sizeof symbol);
    return true;
}

bool load(struct loaded* gvusb) {
    void* const library = dlopen(GVUSB_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    gvusb->library = library;
    return look_up(library, "GVUSB_Scan", &gvusb->scan) &&
           look_up(library, "GVUSB_ScanAndOpen", &gvusb->scan_and_open) &&
           look_up(library, "GVUSB_GetScanListSize", &gvusb->scan_list_size) &&
           look_up(library, "GVUSB_OpenDevice", &gvusb->open_device) &&
           look_up(library, "GVUSB_CloseDevice", &gvusb->close_device) &&
           look_up(library, "GVUSB_IsDevicePresent", &gvusb->is_present) &&
           look_up(library, "GVUSB_GetDevicePara", &gvusb->get_parameter) &&
           look_up(library, "GVUSB_SetDevicePara", &gvusb->set_parameter) &&
           look_up(library, "GVUSB_Transceive", &gvusb->transceive) &&
           look_up(library, "GVUSB_Receive", &gvusb->receive) &&
           look_up(library, "GVUSB_AddEventHandler", &gvusb->add_event_handler);
}

bool unload(struct loaded* gvusb) {
    dlclose(gvusb->library);
    void* const still_loaded = dlopen(GVUSB_TEST_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (still_loaded != NULL) {
        dlclose(still_loaded);
        fprintf(stderr, "the library stays loaded\n");
        return false;
    }
    return true;
}
