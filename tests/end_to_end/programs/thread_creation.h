/*
 * Replaces the C library's pthread_create() with one that can fail on request. It is a shared library that a
 * program links, so that a sanitizer's pthread_create() calls it.
 */
#ifndef GVUSB_TESTS_THREAD_CREATION_H
#define GVUSB_TESTS_THREAD_CREATION_H

/* Make the n-th creation from now (1 is the next) fail with EAGAIN; with 0, none fails. Resets the count. */
void fail_thread_creation(int which);

/* The number of attempts since then. */
int thread_creations(void);

#endif
