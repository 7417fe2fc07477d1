/*
 * The number of descriptors of this process, for tests that nothing keeps a reader open.
 */
#ifndef GVUSB_TESTS_OPEN_DESCRIPTORS_H
#define GVUSB_TESTS_OPEN_DESCRIPTORS_H

#include <stdbool.h>

/* Suspend polls, and return how many descriptors there are without them. */
long descriptors_without_polls(void);

/* For await(): whether there are as many descriptors as in this long. */
bool has_descriptors(void* count);

#endif
