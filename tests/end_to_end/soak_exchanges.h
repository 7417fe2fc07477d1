/*
 * A thread that exchanges frames with readers that stay plugged: one over bulk endpoints, one over control
 * transfers, and one that is closed and reopened from time to time.
 *
 * Thread-safe.
 */
#ifndef GVUSB_TESTS_SOAK_EXCHANGES_H
#define GVUSB_TESTS_SOAK_EXCHANGES_H

#include <stdbool.h>

/* Start with these readers, which a scan must have found, and stop. */
bool begin_exchanges(unsigned int bulk_id, unsigned int control_id, unsigned int visited_id);
void end_exchanges(void);

/* Pause the thread. */
void pause_exchanges(void);
void resume_exchanges(void);

/* Exchange a unique frame; true if it came back unchanged. */
bool exchange(int handle);

/* Open a reader, waiting until another thread's scan lists it; 0 on failure. */
int open_listed_reader(unsigned int id);

/* Count a call that failed unexpectedly. */
void note_failure(int code);

long exchange_count(void);
long failure_count(void);
int first_failure(void);

#endif
