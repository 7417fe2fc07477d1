// Finds the functions that the preload replaces, in the C library.
//
// umockdev's preload, which comes after ours, replaces most of them too: with locks that are held during the call, and
// with tables of 50 descriptors at which it ends the program. So only what it does with paths in /sys is used.

#include "preload.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct library found;

void* library_function(const char* name) {
    // Found once more by each thread that comes here meanwhile, with the same result.
    static void* handle;
    void* const opened = __atomic_load_n(&handle, __ATOMIC_ACQUIRE);
    if (opened != NULL) {
        return dlsym(opened, name);
    }
    // Sanitizers replace dlopen() by a function that comes back here before it is ready.
    void* const loaded = dlmopen(LM_ID_BASE, "libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    if (loaded == NULL) {
        abort();
    }
    __atomic_store_n(&handle, loaded, __ATOMIC_RELEASE);
    return dlsym(loaded, name);
}

void* emulated_function(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

static void find_all(struct library* functions, void* (*find)(const char*)) {
    void* address;
// C does not convert an object pointer to a function pointer.
#define FIND(name)                                                                                           \
    address = find(#name);                                                                                   \
    memcpy(&functions->name, &address, sizeof address)
    FIND(open);
    FIND(openat);
    FIND(fopen);
    FIND(freopen);
    FIND(close);
    FIND(fclose);
    FIND(read);
    FIND(pread);
    FIND(write);
    FIND(fread);
    FIND(fwrite);
    FIND(fgets);
    FIND(lseek);
    FIND(mmap);
    FIND(ioctl);
    FIND(isatty);
    FIND(readlink);
    FIND(fstat);
    FIND(fstatat);
    FIND(statx);
    FIND(poll);
    FIND(ppoll);
    FIND(epoll_wait);
    FIND(epoll_pwait);
    FIND(epoll_pwait2);
    FIND(socket);
    FIND(bind);
    FIND(connect);
    FIND(recv);
    FIND(recvmsg);
    FIND(send);
#undef FIND
}

// A sanitizer that starts before the C library does. Opening the library would initialize it, with no environment.
static const struct library* find_early(void) {
    static struct library early;
    find_all(&early, emulated_function);
    return &early;
}

const struct library* library(void) {
    static int complete;
    if (__atomic_load_n(&complete, __ATOMIC_ACQUIRE)) {
        return &found;
    }
    if (environ == NULL) {
        return find_early();
    }
    find_all(&found, library_function);
    __atomic_store_n(&complete, 1, __ATOMIC_RELEASE);
    return &found;
}

__attribute__((constructor)) static void find_at_load(void) {
    library(); // dlsym() is not for signal handlers
}
