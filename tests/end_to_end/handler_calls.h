/*
 * Calls every function that an event handler may call: all except those that register handlers.
 *
 * Call it in a handler. The main thread reads the results after the handler has returned.
 */
#ifndef GVUSB_TESTS_HANDLER_CALLS_H
#define GVUSB_TESTS_HANDLER_CALLS_H

#include "events.h"

/* Find, open, use and close the reader with the device ID 0xB2, using every function on the way. */
void call_everything(const struct event* event);

/* The first call with an unexpected result; null if all results were correct. */
const char* failed_handler_call(void);

#endif
