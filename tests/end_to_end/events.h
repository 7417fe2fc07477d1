/*
 * Records the events that the library reports.
 *
 * Thread-safe, because handlers run in threads of the library.
 */
#ifndef GVUSB_TESTS_EVENTS_H
#define GVUSB_TESTS_EVENTS_H

#include <stdbool.h>

struct event {
    int kind; /* GVUSB_EVENT_CONNECT or GVUSB_EVENT_DISCONNECT */
    int handle;
    unsigned int id;
    double time; /* as returned by now_ms() */
};

/* Register and remove handlers for both kinds of events. Each returns false if the library rejects it. */
bool record_events(void);
bool stop_recording(void);

/* Discard the recorded events. */
void forget_events(void);

/* The number of recorded events, and the event with this index. */
int event_count(void);
struct event recorded_event(int index);

/* The number of events of this kind about this reader. */
int events_about(int kind, unsigned int id);

/* Wait until this many events have been recorded; false on a time-out. */
bool await_events(int count);

/* Set an action for the handler of the next event to run once. */
void do_in_next_handler(void (*action)(const struct event* event));
bool await_action_done(void);

#endif
