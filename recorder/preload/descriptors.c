// Which descriptors are nodes of USB devices, and the functions that change that.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/sysmacros.h>

enum { usb_major = 189, addresses_per_bus = 128, most_descriptors = 65536 };

// What is known of a descriptor: nothing, that it is no node, or the bus and address of the node.
enum { unknown, no_node };
static uint32_t places[most_descriptors];

static void note_place(int descriptor, uint32_t place) {
    if (descriptor >= 0 && descriptor < most_descriptors) {
        __atomic_store_n(&places[descriptor], place, __ATOMIC_RELAXED);
    }
}

static uint32_t place_number(struct place place) {
    return (uint32_t)place.bus << 8 | place.address;
}

static struct place numbered_place(uint32_t number) {
    return (struct place){.bus = (uint16_t)(number >> 8), .address = (uint8_t)number};
}

static void record_open(struct place place, int result) {
    struct recording_entry entry = {
        .kind = recording_open, .bus = place.bus, .address = place.address, .result = result};
    record(&entry, NULL, 0);
}

static struct place look_at(int descriptor) {
    struct place place = {.bus = 0};
    struct stat status;
    const int kept = errno;
    if (next()->fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) &&
        major(status.st_rdev) == usb_major) {
        place.bus = (uint16_t)(minor(status.st_rdev) / addresses_per_bus + 1);
        place.address = (uint8_t)(minor(status.st_rdev) % addresses_per_bus + 1);
    }
    errno = kept;
    return place;
}

struct place place_of_descriptor(int descriptor) {
    if (descriptor < 0 || descriptor >= most_descriptors) {
        return look_at(descriptor);
    }
    const uint32_t number = __atomic_load_n(&places[descriptor], __ATOMIC_RELAXED);
    if (number != unknown) {
        return numbered_place(number == no_node ? 0 : number);
    }
    // Duplicated, inherited, passed by another process, or opened by another name.
    const struct place place = look_at(descriptor);
    note_place(descriptor, place.bus != 0 ? place_number(place) : no_node);
    if (place.bus != 0) {
        record_device(place, descriptor);
        record_open(place, descriptor);
    }
    return place;
}

static int note_opened(const char* path, int flags, int descriptor) {
    const struct place place = is_recording() ? place_of_path(path) : (struct place){.bus = 0};
    if (place.bus == 0 || (flags & O_PATH) != 0) {
        return descriptor;
    }
    const int error = errno;
    record_device(place, descriptor);
    record_open(place, descriptor >= 0 ? descriptor : -error);
    if (descriptor >= 0) {
        note_place(descriptor, place_number(place));
    }
    errno = error;
    return descriptor;
}

// The mode, an argument only with these flags.
static mode_t mode_after(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers have started it
    return creates ? va_arg(arguments, mode_t) : 0;
}

#define DEFINE_OPEN(name)                                                                                    \
    EXPORT int name(const char* path, int flags, ...) {                                                      \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = mode_after(flags, arguments);                                                    \
        va_end(arguments);                                                                                   \
        return note_opened(path, flags, next()->name(path, flags, mode));                                    \
    }
#define DEFINE_OPENAT(name)                                                                                  \
    EXPORT int name(int folder, const char* path, int flags, ...) {                                          \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = mode_after(flags, arguments);                                                    \
        va_end(arguments);                                                                                   \
        return note_opened(path, flags, next()->name(folder, path, flags, mode));                            \
    }

DEFINE_OPEN(open)
DEFINE_OPEN(open64)
DEFINE_OPENAT(openat)
DEFINE_OPENAT(openat64)

// open() and openat() in fortified programs.
EXPORT int __open_2(const char* path, int flags);
EXPORT int __open_2(const char* path, int flags) {
    return note_opened(path, flags, next()->__open_2(path, flags));
}
EXPORT int __open64_2(const char* path, int flags);
EXPORT int __open64_2(const char* path, int flags) {
    return note_opened(path, flags, next()->__open64_2(path, flags));
}
EXPORT int __openat_2(int folder, const char* path, int flags);
EXPORT int __openat_2(int folder, const char* path, int flags) {
    return note_opened(path, flags, next()->__openat_2(folder, path, flags));
}
EXPORT int __openat64_2(int folder, const char* path, int flags);
EXPORT int __openat64_2(int folder, const char* path, int flags) {
    return note_opened(path, flags, next()->__openat64_2(folder, path, flags));
}

// Before the descriptor is closed: afterwards, another thread may have got the number.
static void note_closed(int descriptor) {
    if (descriptor < 0 || descriptor >= most_descriptors) {
        return;
    }
    const uint32_t number = __atomic_load_n(&places[descriptor], __ATOMIC_RELAXED);
    if (number == unknown || (number != no_node && !is_recorded_process())) {
        return;
    }
    __atomic_store_n(&places[descriptor], unknown, __ATOMIC_RELAXED);
    if (number != no_node) {
        const struct place place = numbered_place(number);
        struct recording_entry entry = {
            .kind = recording_close, .bus = place.bus, .address = place.address, .result = descriptor};
        record(&entry, NULL, 0);
    }
}

EXPORT int close(int descriptor) {
    note_closed(descriptor);
    return next()->close(descriptor);
}

EXPORT int dup2(int descriptor, int wanted) {
    if (descriptor != wanted) {
        note_closed(wanted);
    }
    return next()->dup2(descriptor, wanted);
}

EXPORT int dup3(int descriptor, int wanted, int flags) {
    if (descriptor != wanted) {
        note_closed(wanted);
    }
    return next()->dup3(descriptor, wanted, flags);
}

static void note_closed_from(unsigned first, unsigned last) {
    for (unsigned i = first; i <= last && i < most_descriptors; ++i) {
        note_closed((int)i);
    }
}

EXPORT int close_range(unsigned first, unsigned last, int flags) {
    if (next()->close_range == NULL) {
        errno = ENOSYS;
        return -1;
    }
    enum { only_at_exec = 1 << 2 };
    if ((flags & only_at_exec) == 0) {
        note_closed_from(first, last);
    }
    return next()->close_range(first, last, flags);
}

EXPORT void closefrom(int first) {
    if (next()->closefrom != NULL) {
        note_closed_from(first < 0 ? 0 : (unsigned)first, most_descriptors);
        next()->closefrom(first);
    }
}
