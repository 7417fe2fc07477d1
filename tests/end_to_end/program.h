/*
 * Runs another program on the same bus, with a configuration of its own, and catches what it prints.
 *
 * One thread at a time.
 */
#ifndef GVUSB_TESTS_PROGRAM_H
#define GVUSB_TESTS_PROGRAM_H

#include <stddef.h>

struct program_run {
    int status;          /* the exit status, or 128 and the number of the signal that ended it */
    double first_output; /* when it printed something for the first time, as now_ms tells */
    double ended;
    char output[1 << 20]; /* standard output and standard error */
};

/*
 * Runs a program of the programs folder to its end, with up to three arguments (null: no more).
 * `configuration` is what it reads as /etc/gavo/gvusb.conf; with null there is no such file. A program that
 * does not end is killed and fails the test.
 */
void run_program(struct program_run* run, const char* configuration, const char* name, const char* first,
                 const char* second, const char* third);

#endif
