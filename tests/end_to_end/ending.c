/*
 * Processes end in every way while the library is in use. Each must end with its chosen status, in finite
 * time and without output, and must leave every reader usable by the next process.
 */
#include "program.h"
#include "testing.h"

#include <signal.h>
#include <string.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { kept = 1, newcomer };
enum { kept_id = 0xA1 };

enum { own_status = 7 };

static const char* const modes[] = {
    "gvusb_hotplug=0",
    "gvusb_hotplug=1 gvusb_updaterate=10",
    "gvusb_hotplug=2",
};

static struct program_run run;

/*
 * Only the main thread can return from main(), and an exit that runs destructors must not interrupt a call.
 */
enum { by_return, by_exit, by_quick_exit };

static const struct {
    const char* way;
    int status;
    bool on_a_kernel; /* the emulated machine takes long to start a program */
} endings[] = {
    [by_return] = {"return", own_status, true},
    [by_exit] = {"exit", own_status, true},
    [by_quick_exit] = {"quick_exit", own_status, false},
    {"_exit", own_status, false},
    {"abort", 128 + SIGABRT, false},
    {"SIGTERM", 128 + SIGTERM, false},
    {"SIGKILL", 128 + SIGKILL, true},
    {"SIGSEGV", 128 + SIGSEGV, false},
    {"signal-handler", own_status, false},
    {"exec", own_status, true},
};

static bool is_released(void* reader) {
    const int number = *(const int*)reader;
    return !bus_is_emulated() || host_count(number, "opens") == host_count(number, "closes");
}

/* This process acts as the next process and opens the reader. */
static void check_reader_is_released(void) {
    int reader = kept;
    assert_true(await(is_released, &reader, long_enough_ms));
    const int handle = open_reader(kept_id);
    check_echo(handle);
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
}

static void check_ends_with(int status, const char* output, const char* way, const char* situation,
                            const char* configuration) {
    if (run.status != status || strcmp(run.output, output) != 0) {
        fail_msg("%s in situation %s with %s: ended with %d instead of %d and printed \"%s\"", way, situation,
                 configuration, run.status, status, run.output);
    }
    check_reader_is_released();
}

static void check_endings_in_mode(size_t mode, const char* situation, size_t first) {
    for (size_t i = first; i < sizeof endings / sizeof *endings; ++i) {
        if (!bus_is_emulated() && !endings[i].on_a_kernel) {
            continue;
        }
        if (is_plugged(newcomer)) {
            bus("unplug %d", newcomer);
        }
        run_program(&run, modes[mode], "end", endings[i].way, situation, NULL);
        check_ends_with(endings[i].status, "", endings[i].way, situation, modes[mode]);
    }
}

static void check_endings(const char* situation, size_t first) {
    for (size_t mode = 0; mode < sizeof modes / sizeof *modes; ++mode) {
        check_endings_in_mode(mode, situation, first);
    }
}

static void AProgramEndsInEveryWayInMain(void** state) {
    check_endings("main", by_return);
}

static void AProgramEndsInEveryWayAfterMainsThread(void** state) {
    check_endings("thread", by_exit);
}

static void AProgramEndsWithoutDestructorsDuringATransfer(void** state) {
    check_endings("transfer", by_quick_exit);
}

static void AProgramEndsInEveryWayBesideAThreadThatHandlesEvents(void** state) {
    check_endings("event-thread", by_return);
}

/* The program holds no reference to libusb's context; only the library does. */
static void AProgramEndsInEveryWayBesideAThreadThatHandlesEventsWithoutAReference(void** state) {
    check_endings("event-thread-without-reference", by_return);
    check_endings_in_mode(1, "handler-without-reference", by_exit);
    check_endings_in_mode(2, "handler-without-reference", by_exit);
}

/* Mode 0 calls no handler. */
static void AProgramEndsInEveryWayInAHandler(void** state) {
    check_endings_in_mode(1, "handler", by_exit);
    check_endings_in_mode(2, "handler", by_exit);
}

static void AProgramEndsInEveryWayWhileAHandlerRuns(void** state) {
    check_endings_in_mode(1, "during-handler", by_return);
    check_endings_in_mode(2, "during-handler", by_return);
}

static void AnUncaughtExceptionEndsTheProgramAsUsual(void** state) {
    for (size_t mode = 0; mode < sizeof modes / sizeof *modes; ++mode) {
        run_program(&run, modes[mode], "end_by_exception", NULL, NULL, NULL);
        check_ends_with(128 + SIGABRT, "terminate called after throwing an instance of 'int'\n", "exception",
                        "main", modes[mode]);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(AProgramEndsInEveryWayInMain),
        TEST_CASE(AProgramEndsInEveryWayAfterMainsThread),
        TEST_CASE(AProgramEndsWithoutDestructorsDuringATransfer),
        TEST_CASE(AProgramEndsInEveryWayBesideAThreadThatHandlesEvents),
        TEST_CASE(AProgramEndsInEveryWayBesideAThreadThatHandlesEventsWithoutAReference),
        TEST_CASE(AProgramEndsInEveryWayInAHandler),
        TEST_CASE(AProgramEndsInEveryWayWhileAHandlerRuns),
        TEST_CASE(AnUncaughtExceptionEndsTheProgramAsUsual),
    };
    return run_group("ending", tests, sizeof tests / sizeof *tests, argc, argv);
}
