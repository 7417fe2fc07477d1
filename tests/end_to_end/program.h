/*
 * Runs another program on the same bus with its own configuration, and captures its output.
 *
 * Not thread-safe.
 */
#ifndef GVUSB_TESTS_PROGRAM_H
#define GVUSB_TESTS_PROGRAM_H

#include <stddef.h>

struct program_run {
    int status;          /* the exit status, or 128 plus the number of the signal that ended it */
    double first_output; /* when it first printed something, as returned by now_ms() */
    double ended;
    char output[1 << 20]; /* standard output and standard error */
};

/* The configuration after "gvusb_parallel=1", written to `text`, in the parallel suite; otherwise as it is. */
const char* configuration_of_suite(const char* configuration, char* text, size_t size);

/*
 * Run a program of the programs folder to its end, with up to three arguments (null: no more). It reads
 * configuration_of_suite() as /etc/gavo/gvusb.conf; null means a missing file. A program that does not end in
 * time is killed and fails the test.
 */
void run_program(struct program_run* run, const char* configuration, const char* name, const char* first,
                 const char* second, const char* third);

#endif
