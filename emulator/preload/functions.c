// Finds the functions that the preload replaces, in the C library. Not the next function of the name, which may be a
// sanitizer's: that one would call functions of the preload again.

#include "preload.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct library found;

static void* library_function(const char* name) {
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

static void* next_function(const char* name) {
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
    FIND(fgets);
    FIND(lseek);
    FIND(mmap);
    FIND(ioctl);
    FIND(fcntl);
    FIND(syscall);
    FIND(memcpy);
    FIND(poll);
    FIND(ppoll);
    FIND(epoll_wait);
    FIND(epoll_pwait);
    FIND(epoll_pwait2);
    FIND(socket);
    FIND(bind);
    FIND(connect);
    FIND(recvmsg);
    FIND(send);
    FIND(fstat);
    FIND(fstatat);
    FIND(statx);
    FIND(statfs);
    FIND(fstatfs);
    FIND(statvfs);
    FIND(access);
    FIND(faccessat);
    FIND(euidaccess);
    FIND(readlink);
    FIND(readlinkat);
    FIND(realpath);
    FIND(chdir);
    FIND(getcwd);
    FIND(get_current_dir_name);
    FIND(inotify_add_watch);
    FIND(getxattr);
    FIND(lgetxattr);
    FIND(listxattr);
    FIND(llistxattr);
    FIND(name_to_handle_at);
    FIND(chmod);
    FIND(fchmodat);
    FIND(chown);
    FIND(lchown);
    FIND(fchownat);
    FIND(mkdir);
    FIND(mkdirat);
    FIND(rmdir);
    FIND(unlink);
    FIND(unlinkat);
    FIND(opendir);
    FIND(scandir);
    FIND(scandirat);
    FIND(glob);
    FIND(ftw);
    FIND(nftw);
#undef FIND
}

// A sanitizer that starts before the C library does. Opening the library would initialize it, with no environment.
static const struct library* find_early(void) {
    static struct library early;
    find_all(&early, next_function);
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
