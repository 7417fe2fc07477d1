/* Thread creation fails: for libusb's thread, the polling thread, and in mode 2 the reporting thread. */
#include "program.h"
#include "testing.h"

#include <stdio.h>
#include <string.h>

/* In the order in which they are created. */
enum { libusbs_thread = 1, polling_thread, reporting_thread };

static struct program_run run;

/* The text after this beginning; null if the text begins differently. */
static const char* after(const char* text, const char* beginning) {
    const size_t length = strlen(beginning);
    return strncmp(text, beginning, length) == 0 ? text + length : NULL;
}

/*
 * Check the results of the calls while this creation failed, that nothing leaked, and that the failure had no
 * lasting effect. Returns the number of attempted creations.
 */
static int check_creation_fails(int which, const char* configuration, const char* outcome,
                                const char* usual) {
    char number[16];
    char calls[128];
    char rest[256];
    int creations = 0;
    snprintf(number, sizeof number, "%d", which);
    run_program(&run, configuration, "load_without_thread", number, outcome, usual);
    if (which == libusbs_thread) {
        snprintf(calls, sizeof calls, "scan %d, open %d, exchange %d, handler 0, silence; ",
                 GVUSB_ERR_NO_DEVICE_FOUND, GVUSB_ERR_NOT_SCANNED, GVUSB_ERR_NEGATIVE_HANDLE);
    } else {
        snprintf(calls, sizeof calls, "scan 0, open 1, exchange 3, handler 0, %s; ", outcome);
    }
    snprintf(rest, sizeof rest,
             " creations; 0 descriptors and 0 threads more; scan 0, open 1, exchange 3, handler 0, %s",
             usual);
    const char* const tried = after(run.output, calls);
    const char* const behind = tried != NULL ? strstr(tried, " creations;") : NULL;
    if (run.status != 0 || behind == NULL || sscanf(tried, "%d", &creations) != 1 ||
        strcmp(behind, rest) != 0) {
        fail_msg("creation %d with %s: ended with %d and printed:\n%s", which, configuration, run.status,
                 run.output);
    }
    return creations;
}

/* Nothing fails after the last creation, which shows that there are no more. */
static void ModeZeroWorksWithoutAnyThread(void** state) {
    static const char configuration[] = "gvusb_hotplug=0";
    check_creation_fails(libusbs_thread, configuration, "silence", "silence");
    check_creation_fails(polling_thread, configuration, "silence", "silence");
    assert_int_equal(check_creation_fails(polling_thread + 1, configuration, "silence", "silence"),
                     polling_thread);
}

static void ModeOneReportsNothingWithoutThePollingThread(void** state) {
    static const char configuration[] = "gvusb_hotplug=1 gvusb_updaterate=10";
    check_creation_fails(libusbs_thread, configuration, "silence", "event");
    check_creation_fails(polling_thread, configuration, "silence", "event");
    assert_int_equal(check_creation_fails(polling_thread + 1, configuration, "event", "event"),
                     polling_thread);
}

/* The creation that failed for one event is attempted again at the next one. */
static void ModeTwoReportsLaterWithoutAThreadForTheFirstEvent(void** state) {
    static const char configuration[] = "gvusb_hotplug=2";
    check_creation_fails(libusbs_thread, configuration, "silence", "event");
    check_creation_fails(polling_thread, configuration, "event", "event");
    assert_int_equal(check_creation_fails(reporting_thread, configuration, "event", "event"),
                     reporting_thread + 1);
    assert_int_equal(check_creation_fails(reporting_thread + 1, configuration, "event", "event"),
                     reporting_thread);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(ModeZeroWorksWithoutAnyThread),
        TEST_CASE(ModeOneReportsNothingWithoutThePollingThread),
        TEST_CASE(ModeTwoReportsLaterWithoutAThreadForTheFirstEvent),
    };
    return run_group("thread_creation", tests, sizeof tests / sizeof *tests, argc, argv);
}
