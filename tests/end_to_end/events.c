#include "events.h"

#include "bus.h"
#include "gvusb.h"

#include <pthread.h>
#include <stddef.h>

enum { most_events = 100000, longest_wait_ms = 60000 };

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct event events[most_events];
static int count;
static void (*next_action)(const struct event* event);
static bool action_done;

static void record(int kind, int handle, unsigned int id, const char* text) {
    const struct event event = {kind, handle, id, now_ms()};
    pthread_mutex_lock(&lock);
    void (*const action)(const struct event*) = next_action;
    next_action = NULL;
    pthread_mutex_unlock(&lock);
    if (action != NULL) {
        action(&event);
    }
    pthread_mutex_lock(&lock);
    if (count < most_events && *text == '\0') {
        events[count++] = event;
    }
    action_done |= action != NULL;
    pthread_mutex_unlock(&lock);
}

static void on_connect(int handle, unsigned int id, const char* text) {
    record(GVUSB_EVENT_CONNECT, handle, id, text);
}

static void on_disconnect(int handle, unsigned int id, const char* text) {
    record(GVUSB_EVENT_DISCONNECT, handle, id, text);
}

static GVUSB_EVENT_INIT connect_registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                                on_connect};
static GVUSB_EVENT_INIT disconnect_registration = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                                   on_disconnect};

bool record_events(void) {
    return GVUSB_AddEventHandler(0, &connect_registration) == 0 &&
           GVUSB_AddEventHandler(0, &disconnect_registration) == 0;
}

bool stop_recording(void) {
    const bool connect_removed = GVUSB_DelEventHandler(0, &connect_registration) == 0;
    return GVUSB_DelEventHandler(0, &disconnect_registration) == 0 && connect_removed;
}

void forget_events(void) {
    pthread_mutex_lock(&lock);
    count = 0;
    pthread_mutex_unlock(&lock);
}

int event_count(void) {
    pthread_mutex_lock(&lock);
    const int result = count;
    pthread_mutex_unlock(&lock);
    return result;
}

struct event recorded_event(int index) {
    const struct event none = {0, 0, 0, 0};
    pthread_mutex_lock(&lock);
    const struct event result = index >= 0 && index < count ? events[index] : none;
    pthread_mutex_unlock(&lock);
    return result;
}

int events_about(int kind, unsigned int id) {
    int found = 0;
    pthread_mutex_lock(&lock);
    for (int i = 0; i < count; ++i) {
        found += events[i].kind == kind && events[i].id == id;
    }
    pthread_mutex_unlock(&lock);
    return found;
}

static bool has_events(void* wanted) {
    return event_count() >= *(const int*)wanted;
}

bool await_events(int wanted) {
    return await(has_events, &wanted, longest_wait_ms);
}

void do_in_next_handler(void (*action)(const struct event* event)) {
    pthread_mutex_lock(&lock);
    next_action = action;
    action_done = false;
    pthread_mutex_unlock(&lock);
}

static bool is_action_done(void* context) {
    (void)context;
    pthread_mutex_lock(&lock);
    const bool done = action_done;
    pthread_mutex_unlock(&lock);
    return done;
}

bool await_action_done(void) {
    return await(is_action_done, NULL, longest_wait_ms);
}
