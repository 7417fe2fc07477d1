/* A thread of the application handles libusb's events while the process exits or unloads the library. */
#include "program.h"
#include "testing.h"

#include <stdlib.h>

static const char* const modes[] = {"gvusb_hotplug=0", "gvusb_hotplug=1 gvusb_updaterate=10",
                                    "gvusb_hotplug=2"};
enum { mode_count = sizeof modes / sizeof *modes };

static struct program_run run;

static void check_ends_with(int status, const char* configuration, const char* name, const char* argument) {
    run_program(&run, configuration, name, argument, NULL, NULL);
    if (run.status != status) {
        fail_msg("%s with \"%s\" ended with %d:\n%s", name, configuration, run.status, run.output);
    }
}

static int rounds(int emulated, int on_a_kernel) {
    return bus_is_emulated() ? emulated : on_a_kernel;
}

static void MainReturnsWhileItHandlesEvents(void** state) {
    for (int i = 0; i < rounds(10, 2) * mode_count; ++i) {
        check_ends_with(7, modes[i % mode_count], "end_beside_event_thread", NULL);
        assert_string_equal(run.output, "");
    }
}

/* Mode 0 calls no handler. */
static void AHandlerEndsTheProcessWhileItHandlesEvents(void** state) {
    for (int i = 0; i < rounds(10, 2) * (mode_count - 1); ++i) {
        check_ends_with(7, modes[1 + i % (mode_count - 1)], "end_beside_event_thread", "handler");
        assert_string_equal(run.output, "");
        bus("unplug %d", reader_count());
    }
}

/* The library's destructor destroys a locked mutex, and the thread sanitizer can track only 64 of these. */
#ifdef GVUSB_TEST_SANITIZED
static const char usual_unloads[] = "50";
#else
static const char usual_unloads[] = "300";
#endif

/* GVUSB_TEST_UNLOADS in the environment sets the number of unloads. */
static void TheLibraryIsUnloadedWhileReadersComeAndGo(void** state) {
    const char* const wanted = getenv("GVUSB_TEST_UNLOADS");
    const char* const times = wanted != NULL ? wanted : bus_is_emulated() ? usual_unloads : "10";
    for (int i = 0; i < mode_count; ++i) {
        check_ends_with(0, modes[i], "unload_beside_event_thread", times);
        print_message("%s: %s", modes[i], run.output);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(MainReturnsWhileItHandlesEvents),
        TEST_CASE(AHandlerEndsTheProcessWhileItHandlesEvents),
        TEST_CASE(TheLibraryIsUnloadedWhileReadersComeAndGo),
    };
    return run_group("event_thread", tests, sizeof tests / sizeof *tests, argc, argv);
}
