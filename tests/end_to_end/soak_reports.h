/*
 * Counts the events that the library reports, compared with the expected ones.
 *
 * Scans divide the time into periods. In each, a reader is expected to be reported in one direction, or not
 * at all. A poll that read the bus before a scan may report a change again after it: one such late repetition
 * from the previous period is not an error.
 *
 * Thread-safe.
 */
#ifndef GVUSB_TESTS_SOAK_REPORTS_H
#define GVUSB_TESTS_SOAK_REPORTS_H

#include <stdbool.h>

/* The maximum number of watched readers. */
enum { most_watched = 8 };

struct report_counts {
    long due;
    long reported; /* the expected ones */
    long late;
    long doubled; /* unexpected, or repeated */
    long wrong_handles;
};

/* Register the handlers; false if the library rejects them. */
bool count_reports(void);

/*
 * Watch a reader under a number (0, 1 ...): one that stays open under a handle, or (0) one that is never
 * open.
 */
void watch_reader(int number, unsigned int id, int handle);

/* Expect these readers (bit 0 is number 0) to be reported with this kind of event from now on. */
void begin_period(int kind, unsigned int which);

/* Whether all reports of this period have come. */
bool all_reported(void* nothing);

struct report_counts report_counts(void);

#endif
