#include "soak_reports.h"

#include "gvusb.h"

#include <pthread.h>
#include <stddef.h>

struct watched {
    unsigned int id;
    int handle;
    int wanted, seen;         /* the kind of event of this period, and how many came */
    int wanted_before, later; /* the kind of the previous period, and how many came in this one */
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct watched watched[most_watched];
static struct report_counts counts;

static struct watched* watched_reader(unsigned int id) {
    for (int i = 0; i < most_watched; ++i) {
        if (watched[i].id == id) {
            return &watched[i];
        }
    }
    return NULL;
}

static bool is_right(const struct watched* reader, int kind, int handle) {
    return reader->handle != 0 ? handle == reader->handle : (handle > 0) == (kind == GVUSB_EVENT_DISCONNECT);
}

static void note_event(int kind, int handle, unsigned int id) {
    pthread_mutex_lock(&lock);
    struct watched* const reader = watched_reader(id);
    if (reader != NULL && reader->wanted == kind && reader->seen++ == 0) {
        ++counts.reported;
    } else if (reader != NULL && reader->wanted != kind && reader->wanted_before == kind &&
               reader->later++ == 0) {
        ++counts.late;
    } else {
        ++counts.doubled;
    }
    counts.wrong_handles += reader != NULL && !is_right(reader, kind, handle);
    pthread_mutex_unlock(&lock);
}

static void on_connect(int handle, unsigned int id, const char* text) {
    (void)text;
    note_event(GVUSB_EVENT_CONNECT, handle, id);
}

static void on_disconnect(int handle, unsigned int id, const char* text) {
    (void)text;
    note_event(GVUSB_EVENT_DISCONNECT, handle, id);
}

bool count_reports(void) {
    GVUSB_EVENT_INIT connects = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_connect};
    GVUSB_EVENT_INIT disconnects = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_disconnect};
    return GVUSB_AddEventHandler(0, &connects) == 0 && GVUSB_AddEventHandler(0, &disconnects) == 0;
}

void watch_reader(int number, unsigned int id, int handle) {
    pthread_mutex_lock(&lock);
    watched[number] = (struct watched){.id = id, .handle = handle};
    pthread_mutex_unlock(&lock);
}

void begin_period(int kind, unsigned int which) {
    pthread_mutex_lock(&lock);
    for (unsigned int i = 0; i < most_watched; ++i) {
        const bool wanted = (which >> i & 1) != 0;
        watched[i].wanted_before = watched[i].wanted;
        watched[i].wanted = wanted ? kind : 0;
        watched[i].seen = watched[i].later = 0;
        counts.due += wanted;
    }
    pthread_mutex_unlock(&lock);
}

bool all_reported(void* nothing) {
    (void)nothing;
    bool all = true;
    pthread_mutex_lock(&lock);
    for (int i = 0; i < most_watched; ++i) {
        all &= watched[i].wanted == 0 || watched[i].seen > 0;
    }
    pthread_mutex_unlock(&lock);
    return all;
}

struct report_counts report_counts(void) {
    pthread_mutex_lock(&lock);
    const struct report_counts copy = counts;
    pthread_mutex_unlock(&lock);
    return copy;
}
