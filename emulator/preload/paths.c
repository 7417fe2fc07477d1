// Which paths belong to the emulated bus, and where their files are. Everything else goes straight to the C library.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

// What follows a first component with this name; null if it has another.
static const char* after(const char* path, const char* name) {
    if (path == NULL) {
        return NULL;
    }
    while (path[0] == '/' || (path[0] == '.' && path[1] == '/')) {
        ++path;
    }
    const size_t length = strlen(name);
    const bool same = strncmp(path, name, length) == 0 && (path[length] == '/' || path[length] == '\0');
    return same ? path + length : NULL;
}

static bool is_emulated(const char* path) {
    return after(path, "sys") != NULL || after(after(path, "dev"), "bus") != NULL ||
           after(after(path, "run"), "udev") != NULL;
}

// Whether a relative path can lead to the emulated bus from a folder outside, out of the emulated folders, or to a node.
static bool may_lead_to_bus(const char* path) {
    static const char* const names[] = {"sys", "dev", "bus", "usb", "run", "udev", ".", ".."};
    if (path[0] >= '0' && path[0] <= '9') {
        return true;
    }
    for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i) {
        const size_t length = strlen(names[i]);
        if (strncmp(path, names[i], length) == 0 &&
            (path[length] == '/' || (path[length] == '\0' && strcmp(path, ".") != 0))) {
            return true;
        }
    }
    return false;
}

bool may_be_emulated(const char* path) {
    // Bad pointers, which the system answers with EFAULT.
    const uintptr_t address = (uintptr_t)path;
    if (address < 4096 || address > UINTPTR_MAX - 4096 || settings()->root == NULL) {
        return false;
    }
    return path[0] == '/' ? is_emulated(path) : may_lead_to_bus(path);
}

// Three digits, as in a node's path.
static bool take_number(const char** text, unsigned* number) {
    *number = 0;
    while (**text == '/') {
        ++*text;
    }
    for (int i = 0; i < 3; ++i) {
        const char digit = *(*text)++;
        if (digit < '0' || digit > '9') {
            return false;
        }
        *number = *number * 10 + (unsigned)(digit - '0');
    }
    return true;
}

static bool is_node(const char* path, unsigned* bus, unsigned* address) {
    const char* rest = after(after(after(path, "dev"), "bus"), "usb");
    return rest != NULL && take_number(&rest, bus) && *rest == '/' && take_number(&rest, address) &&
           *rest == '\0';
}

const char* path_below_root(const char* path) {
    const struct settings* const known = settings();
    if (known->root == NULL || strncmp(path, known->root, known->root_length) != 0) {
        return NULL;
    }
    const char* const rest = path + known->root_length;
    return rest[0] == '/' ? rest : rest[0] == '\0' ? "/" : NULL;
}

size_t path_of_descriptor(char* path, size_t size, int descriptor) {
    char link[64];
    const int kept = errno;
    snprintf(link, sizeof link, descriptor == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/%d", descriptor);
    const ssize_t length = library()->readlink(link, path, size - 1);
    errno = kept;
    path[length > 0 ? length : 0] = '\0';
    return length > 0 ? (size_t)length : 0;
}

// Without the last component.
static void shorten(char* path) {
    char* const last = strrchr(path, '/');
    if (last != NULL) {
        last[last == path] = '\0';
    }
}

// Put the whole path of one that begins at a folder, whose own path has no links, into the text of the place. False if
// it does not concern the bus.
static bool join(struct place* place, int folder, const char* path) {
    char* const text = place->text;
    if (path_of_descriptor(text, sizeof place->text, folder) == 0 || text[0] != '/') {
        return false;
    }
    const char* const below = path_below_root(text);
    if (below != NULL) {
        memmove(text, below, strlen(below) + 1);
    }
    for (;;) {
        if (strncmp(path, "..", 2) == 0 && (path[2] == '/' || path[2] == '\0')) {
            shorten(text);
            path += 2;
        } else if (path[0] == '.' && path[1] == '/') {
            ++path;
        } else {
            break;
        }
        path += strspn(path, "/");
    }
    const size_t begin = text[1] != '\0' ? strlen(text) : 0;
    if (begin + 1 + strlen(path) >= sizeof place->text) {
        return false;
    }
    if (path[0] != '\0') {
        text[begin] = '/';
        memcpy(text + begin + 1, path, strlen(path) + 1);
    }
    return below != NULL || is_emulated(text);
}

// `path` and the place's own text may be the same.
static void put_below_root(struct place* place, const char* path) {
    const struct settings* const known = settings();
    const size_t length = strlen(path);
    if (known->root_length + length >= sizeof place->text) {
        return; // too long for the system, too
    }
    place->in_sysfs = after(path, "sys") != NULL;
    if (!is_node(path, &place->bus, &place->address)) {
        place->bus = 0;
    }
    memmove(place->text + known->root_length, path, length + 1);
    memcpy(place->text, known->root, known->root_length);
    place->path = place->text;
}

void find_place(struct place* place, int folder, const char* path) {
    place->bus = 0;
    place->in_sysfs = false;
    place->path = path;
    if (path[0] == '/') {
        put_below_root(place, path);
    } else if (join(place, folder, path)) {
        if (is_emulated(place->text)) {
            put_below_root(place, place->text);
        } else {
            place->path = place->text; // out of an emulated folder
        }
    }
}
