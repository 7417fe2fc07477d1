#include "soak_exchanges.h"

#include "bus.h"
#include "gvusb.h"

#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <unistd.h>

enum { longest_wait_ms = 60000, pause_us = 5000, visits_apart = 20 };

static pthread_t thread;
static pthread_mutex_t round_lock = PTHREAD_MUTEX_INITIALIZER; /* held during each round of exchanges */
static int bulk, control, visited;                             /* handles */
static unsigned int id_to_visit;
static atomic_bool working;
static atomic_long exchanges, failures;
static atomic_int first_code;

void note_failure(int code) {
    if (atomic_fetch_add(&failures, 1) == 0) {
        atomic_store(&first_code, code);
    }
}

bool exchange(int handle) {
    static atomic_uint serial;
    unsigned char frame[64];
    unsigned char answer[128];
    const unsigned int number = atomic_fetch_add(&serial, 1);
    const unsigned int length = sizeof number + number % (sizeof frame - sizeof number);
    memset(frame, (int)(number % 255), sizeof frame);
    memcpy(frame, &number, sizeof number);
    const int result = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, length, answer, sizeof answer);
    return result == (int)length && memcmp(frame, answer, length) == 0;
}

struct opening {
    unsigned int id;
    int result;
};

/* A scan empties the list before it fills it again; meanwhile nothing can be opened. */
static bool is_listed(void* argument) {
    struct opening* const opening = argument;
    opening->result = GVUSB_OpenDevice(opening->id);
    return opening->result != GVUSB_ERR_NOT_SCANNED;
}

int open_listed_reader(unsigned int id) {
    struct opening opening = {id, 0};
    if (!await(is_listed, &opening, longest_wait_ms) || opening.result <= 0) {
        note_failure(opening.result);
        return 0;
    }
    GVUSB_SetDevicePara(opening.result, "TIMEOUT", "60000"); /* the machine may be busy */
    return opening.result;
}

static void exchange_with(int handle) {
    if (exchange(handle)) {
        atomic_fetch_add(&exchanges, 1);
        return;
    }
    int code = 0;
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetLastError(handle, &code, text);
    note_failure(code);
}

static int visit_again(int handle, unsigned int id) {
    const int result = GVUSB_CloseDevice(handle);
    if (result != 0) {
        note_failure(result);
    }
    return open_listed_reader(id);
}

static void* exchange_all_the_time(void* nothing) {
    for (int round = 1; atomic_load(&working); ++round) {
        pthread_mutex_lock(&round_lock);
        exchange_with(bulk);
        exchange_with(control);
        exchange_with(visited);
        if (round % visits_apart == 0) {
            visited = visit_again(visited, id_to_visit);
        }
        pthread_mutex_unlock(&round_lock);
        usleep(pause_us);
    }
    return nothing;
}

bool begin_exchanges(unsigned int bulk_id, unsigned int control_id, unsigned int visited_id) {
    id_to_visit = visited_id;
    bulk = open_listed_reader(bulk_id);
    control = open_listed_reader(control_id);
    visited = open_listed_reader(visited_id);
    atomic_store(&working, true);
    return pthread_create(&thread, NULL, exchange_all_the_time, NULL) == 0;
}

void end_exchanges(void) {
    atomic_store(&working, false);
    pthread_join(thread, NULL);
}

void pause_exchanges(void) {
    pthread_mutex_lock(&round_lock);
}

void resume_exchanges(void) {
    pthread_mutex_unlock(&round_lock);
}

long exchange_count(void) {
    return atomic_load(&exchanges);
}

long failure_count(void) {
    return atomic_load(&failures);
}

int first_failure(void) {
    return atomic_load(&first_code);
}
