/*
 * Ends in the way that argument 1 names, in the situation that argument 2 names, while a reader is open. If
 * the way permits a status, it is 7.
 */
#include "bus.h"

#include <gvusb.h>
#include <libusb.h>

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

/* The readers as described for ending.c. */
enum { kept_id = 0xA1, newcomer = 2 };

enum { status = 7, handler_us = 100000, transfer_begins_us = 20000 };

static const char* program;

/* ---- Ways to end */

static void end_by_exit(void) {
    exit(status);
}

static void end_by_quick_exit(void) {
    quick_exit(status);
}

static void end_by_immediate_exit(void) {
    _exit(status);
}

static void end_by_signal(int number) {
    signal(number, SIG_DFL);
    kill(getpid(), number);
    for (;;) {
        pause();
    }
}

static void end_by_termination(void) {
    end_by_signal(SIGTERM);
}

static void end_by_kill(void) {
    end_by_signal(SIGKILL);
}

static void end_by_fault(void) {
    end_by_signal(SIGSEGV);
}

static void exit_at_once(int number) {
    (void)number;
    _exit(status);
}

static void end_by_signal_handler(void) {
    signal(SIGTERM, exit_at_once);
    kill(getpid(), SIGTERM);
    for (;;) {
        pause();
    }
}

static void end_by_exec(void) {
    char* arguments[] = {(char*)program, "use", "main", NULL};
    execv(program, arguments);
}

static void* run_way(void* way) {
    void (*end)(void);
    memcpy(&end, way, sizeof end);
    end();
    return NULL;
}

static const struct way {
    const char* name;
    void (*end)(void); /* null: main() returns */
} ways[] = {
    {"return", NULL},
    {"exit", end_by_exit},
    {"quick_exit", end_by_quick_exit},
    {"_exit", end_by_immediate_exit},
    {"abort", abort},
    {"SIGTERM", end_by_termination},
    {"SIGKILL", end_by_kill},
    {"SIGSEGV", end_by_fault},
    {"signal-handler", end_by_signal_handler},
    {"exec", end_by_exec},
};

static struct way wanted;

/* ---- Situations */

static int kept_handle;

static bool exchanges(int handle) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer) == 3 &&
           memcmp(answer, frame, sizeof frame) == 0;
}

static int end_in_main(void) {
    if (wanted.end != NULL) {
        wanted.end();
    }
    return status;
}

/* The process continues without its main thread until another thread ends it. */
static int end_in_thread(void) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, run_way, &wanted.end) != 0) {
        return 1;
    }
    pthread_exit(NULL);
}

static sem_t about_to_receive;

static void* receive(void* nothing) {
    unsigned char answer[16];
    sem_post(&about_to_receive);
    GVUSB_Receive(kept_handle, GVUSB_PROTOCOL, answer, sizeof answer);
    return nothing;
}

/* The reader does not answer, so the transfer outlasts the process. */
static int end_during_transfer(void) {
    pthread_t thread;
    if (sem_init(&about_to_receive, 0, 0) != 0 ||
        GVUSB_SetDevicePara(kept_handle, "TIMEOUT", "600000") != 0 ||
        pthread_create(&thread, NULL, receive, NULL) != 0) {
        return 1;
    }
    sem_wait(&about_to_receive);
    usleep(transfer_begins_us);
    return end_in_main();
}

static bool takes_reference; /* to libusb's context; otherwise only the library holds one */

/* Mode 2 needs a thread that handles libusb's events. It does no harm in other modes. */
static void* handle_events(void* nothing) {
    for (;;) {
        libusb_handle_events(NULL);
    }
    return nothing;
}

static bool events_are_handled(void* context) {
    (void)context;
    return libusb_event_handler_active(NULL) != 0;
}

/* Wait for the thread: without its own reference, it would find no context if it started late. */
static bool start_event_thread(void) {
    pthread_t thread;
    return (!takes_reference || libusb_init(NULL) == 0) &&
           pthread_create(&thread, NULL, handle_events, NULL) == 0 && await(events_are_handled, NULL, 60000);
}

static int end_beside_event_thread(void) {
    return start_event_thread() ? end_in_main() : 1;
}

static bool await_handler(void (*handler)(int, unsigned int, const char*)) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, handler};
    if (GVUSB_AddEventHandler(0, &connect) != 0 || !start_event_thread()) {
        return false;
    }
    bus("plug %d", newcomer);
    return true;
}

static void end_as_handler(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    wanted.end();
}

static int end_in_handler(void) {
    if (!await_handler(end_as_handler)) {
        return 1;
    }
    for (;;) {
        pause();
    }
}

static sem_t handler_begun;

static void be_slow(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    sem_post(&handler_begun);
    usleep(handler_us);
}

static int end_during_handler(void) {
    if (sem_init(&handler_begun, 0, 0) != 0 || !await_handler(be_slow)) {
        return 1;
    }
    sem_wait(&handler_begun);
    return end_in_main();
}

static const struct situation {
    const char* name;
    int (*end)(void);
    bool takes_reference;
} situations[] = {
    {"main", end_in_main, false},
    {"thread", end_in_thread, false},
    {"transfer", end_during_transfer, false},
    {"event-thread", end_beside_event_thread, true},
    {"event-thread-without-reference", end_beside_event_thread, false},
    {"handler", end_in_handler, true},
    {"handler-without-reference", end_in_handler, false},
    {"during-handler", end_during_handler, true},
};

static bool find_way(const char* name) {
    for (size_t i = 0; i < sizeof ways / sizeof *ways; ++i) {
        if (strcmp(ways[i].name, name) == 0) {
            wanted = ways[i];
            return true;
        }
    }
    return strcmp(name, "use") == 0;
}

int main(int argc, char** argv) {
    static const struct rlimit no_core;
    setrlimit(RLIMIT_CORE, &no_core);
    if (argc != 3 || !find_way(argv[1])) {
        return 2;
    }
    program = argv[0];
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    kept_handle = GVUSB_OpenDevice(kept_id);
    if (!exchanges(kept_handle)) {
        return 3;
    }
    for (size_t i = 0; i < sizeof situations / sizeof *situations; ++i) {
        if (strcmp(situations[i].name, argv[2]) == 0) {
            takes_reference = situations[i].takes_reference;
            return situations[i].end();
        }
    }
    return 2;
}
