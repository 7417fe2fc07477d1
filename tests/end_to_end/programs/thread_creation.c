#include "thread_creation.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>

static atomic_int failing;
static atomic_int creations;

void fail_thread_creation(int which) {
    atomic_store(&failing, which);
    atomic_store(&creations, 0);
}

int thread_creations(void) {
    return atomic_load(&creations);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) {
    int (*next)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    void* const found = dlsym(RTLD_NEXT, "pthread_create");
    if (found == NULL) {
        abort();
    }
    memcpy(&next, &found, sizeof next);
    if (atomic_fetch_add(&creations, 1) + 1 == atomic_load(&failing)) {
        return EAGAIN;
    }
    return next(thread, attributes, function, argument);
}
