/*
 * What an event handler may do: calls every function of the library but those that register handlers.
 *
 * To be called inside a handler; the results are read by the main thread once the handler has returned.
 */
#ifndef GVUSB_TESTS_HANDLER_CALLS_H
#define GVUSB_TESTS_HANDLER_CALLS_H

#include "events.h"

/* Finds, opens, uses and closes the reader with the device ID 0xB2, with every function on the way. */
void call_everything(const struct event* event);

/* The call that did not return what it should; null when all did. */
const char* failed_handler_call(void);

#endif
