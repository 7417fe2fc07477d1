/*
 * What the tests share: cmocka, the bus, and the library's functions as tests call them.
 *
 * Each test begins with the readers that the program was started with, all plugged and in order, with nothing
 * open and nothing scanned. cmocka's checks, and so the functions here, belong to the main thread.
 */
#ifndef GVUSB_TESTS_TESTING_H
#define GVUSB_TESTS_TESTING_H

/* cmocka needs these before it. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>

#include <cmocka.h>

#include "bus.h"
#include "gvusb.h"

/* What a reader or a thread may be late on a busy machine before a test takes it to be stuck. */
enum { long_enough_ms = 10000 };

/* Runs the tests, or those alone whose names match the pattern on the command line, without those that
 * GVUSB_TEST_LEAVE_OUT in the environment names; returns main's result. */
int run_group(const char* name, const struct CMUnitTest* tests, size_t count, int argc, char** argv);

/* A test that begins with start_afresh. */
#define TEST_CASE(function) cmocka_unit_test_setup(function, start_afresh)
int start_afresh(void** state);

/* Scans again and again until the scan list has this many entries; the bus's changes take a moment to arrive.
 */
void scan_until(int size);

/* Scans, which finds something, and opens the reader with this device ID. */
int open_reader(unsigned int id);

/* The last error of the manager (handle 0) or of a reader. Fetching the manager's clears it. */
int last_error(int handle);

/* A parameter that can be read; the text is valid until the next call. */
const char* parameter(int handle, const char* key);
const char* scan_list_parameter(int index, const char* key);

/* Where a device ID stands in the scan list; -1 when it does not. */
int scan_list_index(const char* id);

/* Checks that an exchange of a short frame comes back unchanged. */
void check_echo(int handle);

#endif
