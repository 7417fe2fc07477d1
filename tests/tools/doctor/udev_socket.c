/* A preload that makes a program find udev running or not, according to the environment variable GVUSB_TEST_UDEV. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef int access_function(const char*, int);

int access(const char* path, int mode) {
    const char* const wanted = getenv("GVUSB_TEST_UDEV");
    if (wanted != NULL && strcmp(path, "/run/udev/control") == 0) {
        errno = ENOENT;
        return strcmp(wanted, "yes") == 0 ? 0 : -1;
    }
    void* const found = dlsym(RTLD_NEXT, "access");
    access_function* next;
    memcpy(&next, &found, sizeof next); /* C has no conversion from an object pointer to a function pointer */
    return next(path, mode);
}
