/*
 * A pthread_create that fails when it is told to, in the place of the C library's: a shared library that a program
 * links, so that it also stands behind a sanitizer's.
 */
#ifndef GVUSB_TESTS_THREAD_CREATION_H
#define GVUSB_TESTS_THREAD_CREATION_H

/* Has one of the next creations fail with EAGAIN, the first being 1; 0 has none fail. Counts anew. */
void fail_thread_creation(int which);

/* How many have been tried since. */
int thread_creations(void);

#endif
