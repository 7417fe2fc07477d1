/*
 * A thread that exchanges frames with readers that stay: one over bulk endpoints, one over control
 * transfers, and one that is closed and opened again every now and then.
 *
 * Any thread.
 */
#ifndef GVUSB_TESTS_SOAK_EXCHANGES_H
#define GVUSB_TESTS_SOAK_EXCHANGES_H

#include <stdbool.h>

/* Begins with these readers, which a scan has found, and ends. */
bool begin_exchanges(unsigned int bulk_id, unsigned int control_id, unsigned int visited_id);
void end_exchanges(void);

/* In between the thread rests. */
void pause_exchanges(void);
void resume_exchanges(void);

/* An exchange of a frame that no other has; whether it came back unchanged. */
bool exchange(int handle);

/* Opens a reader, waiting for a scan in another thread to list it; 0 when that fails. */
int open_listed_reader(unsigned int id);

/* What should have succeeded did not. */
void note_failure(int code);

long exchange_count(void);
long failure_count(void);
int first_failure(void);

#endif
