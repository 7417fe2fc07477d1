/*
 * Shared by the tests: cmocka, the bus, and helpers that call the library.
 *
 * Each test begins with the readers that the program was started with, all plugged and in order, with nothing
 * open and nothing scanned. Only the main thread may use cmocka's checks and the functions here.
 */
#ifndef GVUSB_TESTS_TESTING_H
#define GVUSB_TESTS_TESTING_H

/* cmocka requires these before it. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>

#include <cmocka.h>

#include "bus.h"
#include "gvusb.h"

/* How late a reader or a thread may be on a busy machine before a test considers it stuck. */
enum { long_enough_ms = 60000 };

/*
 * Run the tests whose names match the pattern on the command line (by default all), except those that
 * GVUSB_TEST_LEAVE_OUT in the environment names. Returns main()'s result.
 */
int run_group(const char* name, const struct CMUnitTest* tests, size_t count, int argc, char** argv);

/* Whether GVUSB_TEST_PARALLEL is set: the same tests run with "gvusb_parallel=1" in their configuration. */
bool in_parallel_suite(void);

/* A test that begins with start_afresh(). */
#define TEST_CASE(function) cmocka_unit_test_setup(function, start_afresh)
int start_afresh(void** state);

/* Scan until the scan list has this many entries. Changes of the bus take a moment to arrive. */
void scan_until(int size);

/* Scan, expecting success, and open the reader with this device ID. Its "TIMEOUT" is then long_enough_ms. */
int open_reader(unsigned int id);

/* The same, with the "TIMEOUT" that a scan gives it. */
int open_reader_with_default_timeout(unsigned int id);

/* Set a reader's "TIMEOUT" to long_enough_ms, for exchanges that must succeed. */
void be_patient(int handle);

/* The last error of the manager (handle 0) or of a reader. Fetching the manager's clears it. */
int last_error(int handle);

/* A readable parameter; the text is valid until the next call. */
const char* parameter(int handle, const char* key);
const char* scan_list_parameter(int index, const char* key);

/* The index of a device ID in the scan list; -1 if it is missing. */
int scan_list_index(const char* id);

/* Check that a short frame comes back unchanged. */
void check_echo(int handle);

/*
 * For await(): whether the reader with this ID is found, can be opened and returns a short frame; closes it if not. If the machine
 * is busy, libusb learns of a change after the command to the bus has returned.
 */
bool reader_answers(void* id);

#endif
