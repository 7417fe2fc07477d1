// Which paths belong to the emulated bus, and where their files are. Everything else goes straight to the C library.

#include "preload.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

static bool is_in(const char* path, const char* folder) {
    const size_t length = strlen(folder);
    return strncmp(path, folder, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

bool is_emulated_path(const char* path) {
    return path != NULL && path[0] == '/' &&
           (is_in(path, "/sys") || is_in(path, "/dev/bus") || is_in(path, "/run/udev"));
}

bool find_place(char* place, size_t size, const char* path) {
    const char* root = getenv(emulate_root_variable);
    const int length = root != NULL ? snprintf(place, size, "%s%s", root, path) : -1;
    return length >= 0 && (size_t)length < size;
}

// Three digits, as in a node's path.
static bool take_number(const char** text, unsigned* number) {
    *number = 0;
    for (int i = 0; i < 3; ++i) {
        const char digit = *(*text)++;
        if (digit < '0' || digit > '9') {
            return false;
        }
        *number = *number * 10 + (unsigned)(digit - '0');
    }
    return true;
}

bool is_node_path(const char* path, unsigned* bus, unsigned* address) {
    const size_t length = strlen(emulate_node_folder);
    if (path == NULL || strncmp(path, emulate_node_folder, length) != 0) {
        return false;
    }
    const char* rest = path + length;
    return take_number(&rest, bus) && *rest++ == '/' && take_number(&rest, address) && *rest == '\0';
}
