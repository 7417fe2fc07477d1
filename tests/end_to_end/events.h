/*
 * Records the events that the library reports.
 *
 * Handlers run in threads of the library; everything here may be called from any thread.
 */
#ifndef GVUSB_TESTS_EVENTS_H
#define GVUSB_TESTS_EVENTS_H

#include <stdbool.h>

struct event {
    int kind; /* GVUSB_EVENT_CONNECT or GVUSB_EVENT_DISCONNECT */
    int handle;
    unsigned int id;
    double time; /* as now_ms tells */
};

/* Registers handlers for both kinds of events, and removes them again. Each returns false when the library
 * refuses. */
bool record_events(void);
bool stop_recording(void);

/* Forgets what has been recorded. */
void forget_events(void);

/* How many events have been recorded, and the one with this index. */
int event_count(void);
struct event recorded_event(int index);

/* How many events are of this kind about this reader. */
int events_about(int kind, unsigned int id);

/* Waits until so many events have been recorded; false if they do not come. */
bool await_events(int count);

/* Something to be done in the handler of the next event, once. */
void do_in_next_handler(void (*action)(const struct event* event));
bool await_action_done(void);

#endif
