// The environment is read once: a program may change it in another thread, and then nobody may look at it.

#include "preload.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct settings found;
static char root[PATH_MAX];

static void find_all(void) {
    const char* const folder = getenv(emulate_folder_variable);
    found.configuration_file = getenv(emulate_configuration_variable);
    if (folder == NULL) {
        return;
    }
    const int length = snprintf(root, sizeof root, "%s/%s", folder, emulate_root);
    if (length > 0 && (size_t)length < sizeof root) {
        found.root_length = (size_t)length;
        found.root = root;
        found.folder = folder;
    }
}

const struct settings* settings(void) {
    static int complete;
    static const struct settings none;
    if (__atomic_load_n(&complete, __ATOMIC_ACQUIRE)) {
        return &found;
    }
    if (environ == NULL) {
        return &none; // a sanitizer that starts before the C library does
    }
    find_all();
    __atomic_store_n(&complete, 1, __ATOMIC_RELEASE);
    return &found;
}

__attribute__((constructor)) static void find_at_load(void) {
    settings();
}
