/*
 * Counts the events that the library reports against those that are due.
 *
 * Scans divide the time into periods; in each a reader is to be reported in one direction, or not at all. A
 * poll that has looked at the bus before a scan may report after it what that scan has made news again: one
 * such late repetition of the period before is no mistake.
 *
 * Any thread.
 */
#ifndef GVUSB_TESTS_SOAK_REPORTS_H
#define GVUSB_TESTS_SOAK_REPORTS_H

#include <stdbool.h>

/* How many readers are watched at most. */
enum { most_watched = 8 };

struct report_counts {
    long due;
    long reported; /* of those that were due */
    long late;
    long doubled; /* not due, or told before */
    long wrong_handles;
};

/* Registers the handlers; false when the library refuses. */
bool count_reports(void);

/* Has a reader watched, as number 0, 1 ...: one that stays open under a handle, or (0) one that is never
 * open. */
void watch_reader(int number, unsigned int id, int handle);

/* From now on these readers, bit 0 for number 0, are to be reported with this kind of event. */
void begin_period(int kind, unsigned int which);

/* Whether nothing of this period is outstanding. */
bool all_reported(void* nothing);

struct report_counts report_counts(void);

#endif
