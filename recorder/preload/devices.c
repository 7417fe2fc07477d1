// What the devices are: their descriptors, and what sysfs says about them.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { usb_major = 189, addresses_per_bus = 128, buses = 256 };

// A digest of the descriptors that the recorder knows; 0: none.
static uint32_t known[buses][addresses_per_bus];

// Three digits, as in a node's path.
static const char* take_number(const char* text, unsigned* number) {
    *number = 0;
    for (int i = 0; i < 3; ++i, ++text) {
        if (*text < '0' || *text > '9') {
            return NULL;
        }
        *number = *number * 10 + (unsigned)(*text - '0');
    }
    return text;
}

struct place place_of_path(const char* path) {
    static const char folder[] = "/dev/bus/usb/";
    const struct place none = {.bus = 0};
    unsigned bus;
    unsigned address;
    // Bad pointers, which the system answers with EFAULT.
    const uintptr_t pointer = (uintptr_t)path;
    if (pointer < 4096 || pointer > UINTPTR_MAX - 4096 || strncmp(path, folder, sizeof folder - 1) != 0) {
        return none;
    }
    path = take_number(path + sizeof folder - 1, &bus);
    if (path == NULL || *path != '/' || (path = take_number(path + 1, &address)) == NULL || *path != '\0') {
        return none;
    }
    return (struct place){.bus = (uint16_t)bus, .address = (uint8_t)address};
}

static ssize_t read_file(const char* path, void* data, size_t size) {
    const int file = next()->open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    size_t length = 0;
    ssize_t got;
    while (length < size && (got = next()->read(file, (char*)data + length, size - length)) > 0) {
        length += (size_t)got;
    }
    next()->close(file);
    return (ssize_t)length;
}

static void read_attribute(const char* folder, const char* name, char* text, size_t size) {
    char path[96];
    snprintf(path, sizeof path, "%s/%s", folder, name);
    const ssize_t length = read_file(path, text, size - 1);
    text[length > 0 ? length : 0] = '\0';
    text[strcspn(text, "\n")] = '\0';
}

static void folder_of(struct place place, char* folder, size_t size) {
    snprintf(folder, size, "/sys/dev/char/%d:%d", usb_major,
             (place.bus - 1) * addresses_per_bus + place.address - 1);
}

static void read_facts(struct place place, struct recording_facts* facts) {
    char folder[64];
    char target[512];
    memset(facts, 0, sizeof *facts);
    folder_of(place, folder, sizeof folder);
    const ssize_t length = next()->readlink(folder, target, sizeof target - 1);
    if (length > 0) {
        target[length] = '\0';
        const char* const slash = strrchr(target, '/');
        const char* const name = slash != NULL ? slash + 1 : target;
        memcpy(facts->name, name, strnlen(name, sizeof facts->name - 1));
    }
    read_attribute(folder, "speed", facts->speed, sizeof facts->speed);
    read_attribute(folder, "bConfigurationValue", facts->configuration, sizeof facts->configuration);
    read_attribute(folder, "manufacturer", facts->manufacturer, sizeof facts->manufacturer);
    read_attribute(folder, "product", facts->product, sizeof facts->product);
    read_attribute(folder, "serial", facts->serial, sizeof facts->serial);
}

static size_t read_descriptors(struct place place, int descriptor, unsigned char* data, size_t size) {
    ssize_t length = descriptor >= 0 ? next()->pread(descriptor, data, size, 0) : -1;
    if (length <= 0) {
        char folder[64];
        char path[96];
        folder_of(place, folder, sizeof folder);
        snprintf(path, sizeof path, "%s/descriptors", folder);
        length = read_file(path, data, size);
    }
    return length > 0 ? (size_t)length : 0;
}

static uint32_t digest(const unsigned char* data, size_t size) {
    uint32_t value = 2166136261U;
    for (size_t i = 0; i < size; ++i) {
        value = (value ^ data[i]) * 16777619U;
    }
    return value != 0 ? value : 1;
}

void record_device(struct place place, int descriptor) {
    if (!is_recording() || place.bus == 0 || place.bus >= buses || place.address >= addresses_per_bus) {
        return;
    }
    const int kept = errno;
    // Enough for every reader. Signal handlers have little stack.
    unsigned char descriptors[4096];
    uint32_t* const digested = &known[place.bus][place.address];
    const size_t size = read_descriptors(place, descriptor, descriptors, sizeof descriptors);
    const uint32_t value = digest(descriptors, size);
    if (size != 0 && __atomic_load_n(digested, __ATOMIC_RELAXED) != value) {
        struct recording_facts facts;
        read_facts(place, &facts);
        struct recording_entry entry = {.kind = recording_device, .bus = place.bus, .address = place.address};
        record_two(&entry, &facts, sizeof facts, descriptors, size);
        __atomic_store_n(digested, value, __ATOMIC_RELAXED);
    }
    errno = kept;
}

void record_presence(struct place place, bool present, uint64_t sequence) {
    if (place.bus == 0 || place.bus >= buses || place.address >= addresses_per_bus) {
        return;
    }
    struct recording_entry entry = {
        .kind = present ? recording_came : recording_left, .bus = place.bus, .address = place.address};
    entry.id = sequence;
    record(&entry, NULL, 0);
    __atomic_store_n(&known[place.bus][place.address], 0, __ATOMIC_RELAXED);
    if (present) {
        record_device(place, -1);
    }
}
