// Complements umockdev's preload inside the emulated program: works around its limits and redirects the
// library's configuration file.
//
// - umockdev does not lock its table of what is open below /dev, and a failed open stays in it. So opens and
//   closes are serialized, and a failed open is followed by close(-1), which removes the entry.
// - The table has 50 places, and umockdev aborts a program that needs another. Here open() fails instead.
// - The emulator is told before a node is closed, so that interfaces are free when close() returns.
// - umockdev names a program's udev socket by its descriptor alone, so two programs would use the same name.
// - Opening a node can be refused, even to root.
//
// Any thread may call these functions, even before constructors have run.

// Both would rename the functions that are defined here.
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "preload_contract.h"

#define EXPORT __attribute__((visibility("default")))

static const char device_folder[] = "/dev/";

// What a descriptor refers to: a node of a USB device, anything else below /dev, or a udev socket.
enum kind { other, device, node, event_socket };
enum { most_descriptors = 4096 };
static struct {
    enum kind kind;
    pid_t owner; // a forked child that closes its copy must not affect its parent
} descriptors[most_descriptors];

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void take_lock(void) {
    pthread_mutex_lock(&lock);
}
static void leave_lock(void) {
    pthread_mutex_unlock(&lock);
}

__attribute__((constructor)) static void keep_lock_whole_across_fork(void) {
    pthread_atfork(take_lock, leave_lock, leave_lock);
}

typedef int open_function(const char*, int, ...);
typedef int openat_function(int, const char*, int, ...);
typedef int checked_open_function(const char*, int);
typedef FILE* fopen_function(const char*, const char*);

// The functions that those below replace: umockdev's, which replace the C library's.
static struct {
    open_function* open;
    open_function* open64;
    checked_open_function* checked_open;
    checked_open_function* checked_open64;
    openat_function* openat;
    openat_function* openat64;
    fopen_function* fopen;
    fopen_function* fopen64;
    int (*close)(int);
    int (*fclose)(FILE*);
    int (*ioctl)(int, unsigned long, ...);
    int (*bind)(int, __CONST_SOCKADDR_ARG, socklen_t);
} next;

static void find(const char* name, void* function, size_t size) {
    void* found = dlsym(RTLD_NEXT, name);
    if (found == NULL) {
        abort();
    }
    memcpy(function, &found, size); // C does not convert an object pointer to a function pointer
}

static void find_all(void) {
    find("open", &next.open, sizeof next.open);
    find("open64", &next.open64, sizeof next.open64);
    find("__open_2", &next.checked_open, sizeof next.checked_open);
    find("__open64_2", &next.checked_open64, sizeof next.checked_open64);
    find("openat", &next.openat, sizeof next.openat);
    find("openat64", &next.openat64, sizeof next.openat64);
    find("fopen", &next.fopen, sizeof next.fopen);
    find("fopen64", &next.fopen64, sizeof next.fopen64);
    find("close", &next.close, sizeof next.close);
    find("fclose", &next.fclose, sizeof next.fclose);
    find("ioctl", &next.ioctl, sizeof next.ioctl);
    find("bind", &next.bind, sizeof next.bind);
}

// Every exported function calls this first.
static void prepare(void) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, find_all);
}

static void note(int descriptor, enum kind kind) {
    if (descriptor >= 0 && descriptor < most_descriptors) {
        descriptors[descriptor].kind = kind;
        descriptors[descriptor].owner = getpid();
    }
}

// Remove and return the note about a descriptor that is about to be closed; `other` if another process made
// it.
static enum kind take_note(int descriptor) {
    if (descriptor < 0 || descriptor >= most_descriptors || descriptors[descriptor].kind == other) {
        return other;
    }
    enum kind kind = descriptors[descriptor].owner == getpid() ? descriptors[descriptor].kind : other;
    descriptors[descriptor].kind = other;
    return kind;
}

static bool is_device(int descriptor) {
    return descriptor >= 0 && descriptor < most_descriptors &&
           (descriptors[descriptor].kind == device || descriptors[descriptor].kind == node);
}

static int open_devices(void) {
    int count = 0;
    for (int i = 0; i < most_descriptors; ++i) {
        count += is_device(i);
    }
    return count;
}

static bool begins_with(const char* text, const char* beginning) {
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

// The errno with which opening a path below /dev fails now, or 0.
static int refusal(const char* path) {
    if (open_devices() >= emulate_most_open_devices) {
        return EMFILE;
    }
    const char* folder = getenv(emulate_folder_variable);
    if (folder == NULL || !begins_with(path, emulate_node_folder)) {
        return 0;
    }
    char link[PATH_MAX];
    if (!emulate_refusal_path(link, sizeof link, folder, path)) {
        return 0;
    }
    char text[16] = "";
    const ssize_t length = readlink(link, text, sizeof text - 1);
    return length > 0 ? atoi(text) : 0;
}

static const char* redirected(const char* path) {
    if (strcmp(path, emulate_configuration_file) != 0) {
        return path;
    }
    const char* replacement = getenv(emulate_configuration_variable);
    return replacement != NULL ? replacement : path;
}

// Record the result of an open below /dev.
static void after_open(const char* path, int opened) {
    if (opened >= 0) {
        note(opened, begins_with(path, emulate_node_folder) ? node : device);
        return;
    }
    const int error = errno;
    next.close(-1);
    errno = error;
}

static int open_by(open_function* function, const char* path, int flags, mode_t mode) {
    if (!begins_with(path, device_folder)) {
        return function(redirected(path), flags, mode);
    }
    take_lock();
    int opened = -1;
    const int error = refusal(path);
    if (error != 0) {
        errno = error;
    } else {
        opened = function(path, flags, mode);
        after_open(path, opened);
    }
    leave_lock();
    return opened;
}

static int checked_open_by(checked_open_function* function, const char* path, int flags) {
    if (!begins_with(path, device_folder)) {
        return function(redirected(path), flags);
    }
    take_lock();
    int opened = -1;
    const int error = refusal(path);
    if (error != 0) {
        errno = error;
    } else {
        opened = function(path, flags);
        after_open(path, opened);
    }
    leave_lock();
    return opened;
}

static FILE* fopen_by(fopen_function* function, const char* path, const char* mode) {
    if (!begins_with(path, device_folder)) {
        return function(redirected(path), mode);
    }
    take_lock();
    FILE* opened = NULL;
    const int error = refusal(path);
    if (error != 0) {
        errno = error;
    } else {
        opened = function(path, mode);
        after_open(path, opened != NULL ? fileno(opened) : -1);
    }
    leave_lock();
    return opened;
}

// The mode, an argument only with these flags.
static mode_t mode_after(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? va_arg(arguments, mode_t) : 0;
}

EXPORT int open(const char* path, int flags, ...) {
    prepare();
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_by(next.open, path, flags, mode);
}

EXPORT int open64(const char* path, int flags, ...) {
    prepare();
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_by(next.open64, path, flags, mode);
}

// open() in fortified programs.
EXPORT int __open_2(const char* path, int flags);
EXPORT int __open_2(const char* path, int flags) {
    prepare();
    return checked_open_by(next.checked_open, path, flags);
}

EXPORT int __open64_2(const char* path, int flags);
EXPORT int __open64_2(const char* path, int flags) {
    prepare();
    return checked_open_by(next.checked_open64, path, flags);
}

EXPORT int openat(int folder, const char* path, int flags, ...) {
    prepare();
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return next.openat(folder, redirected(path), flags, mode);
}

EXPORT int openat64(int folder, const char* path, int flags, ...) {
    prepare();
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return next.openat64(folder, redirected(path), flags, mode);
}

EXPORT FILE* fopen(const char* path, const char* mode) {
    prepare();
    return fopen_by(next.fopen, path, mode);
}

EXPORT FILE* fopen64(const char* path, const char* mode) {
    prepare();
    return fopen_by(next.fopen64, path, mode);
}

static void event_socket_name(char* name, size_t size, int descriptor, bool with_process) {
    const char* root = getenv(emulate_root_variable);
    const int length =
        snprintf(name, size, "%s/%s%d", root != NULL ? root : "", emulate_event_socket, descriptor);
    if (with_process && length > 0 && (size_t)length < size) {
        snprintf(name + length, size - (size_t)length, ".%d", (int)getpid());
    }
}

EXPORT int bind(int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length) {
    prepare();
    if (address.__sockaddr__ == NULL || address.__sockaddr__->sa_family != AF_NETLINK) {
        return next.bind(descriptor, address, length);
    }
    take_lock();
    const int result = next.bind(descriptor, address, length);
    const int error = errno;
    char by_descriptor[PATH_MAX];
    char by_process[PATH_MAX];
    event_socket_name(by_descriptor, sizeof by_descriptor, descriptor, false);
    event_socket_name(by_process, sizeof by_process, descriptor, true);
    if (result == 0 && rename(by_descriptor, by_process) == 0) {
        note(descriptor, event_socket);
    }
    leave_lock();
    errno = error;
    return result;
}

// Announce that a descriptor is about to be closed, and forget it.
static void before_close(int descriptor) {
    const enum kind kind = take_note(descriptor);
    if (kind == node) {
        next.ioctl(descriptor, emulate_closing_request, NULL);
    } else if (kind == event_socket) {
        char name[PATH_MAX];
        event_socket_name(name, sizeof name, descriptor, true);
        unlink(name);
    }
}

EXPORT int close(int descriptor) {
    prepare();
    take_lock();
    before_close(descriptor);
    const int result = next.close(descriptor);
    leave_lock();
    return result;
}

EXPORT int fclose(FILE* file) {
    prepare();
    take_lock();
    const int descriptor = fileno(file);
    const bool of_device = is_device(descriptor);
    before_close(descriptor);
    if (!of_device) {
        leave_lock(); // flushing may take long
    }
    const int result = next.fclose(file);
    if (of_device) {
        leave_lock();
    }
    return result;
}
