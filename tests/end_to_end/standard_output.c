/*
 * The library logs to a standard output that refuses all output. Every call must return its usual code, and
 * nothing may hang or end the process.
 */
#include "program.h"
#include "testing.h"

#include <string.h>

static struct program_run run;

/* The C library writes the log at each line, when its buffer is full, or at once. */
static const char* const bufferings[] = {"line", "full", "none"};

/* With polls, whose thread logs at the same time, and with libusb's callbacks. */
static const char* const configurations[] = {
    "gvusb_debuglevel=3 gvusb_hotplug=1 gvusb_updaterate=1",
    "gvusb_debuglevel=3 gvusb_hotplug=2",
};

/* The emulated machine takes long to start a program. */
static size_t buffering_count(void) {
    return bus_is_emulated() ? sizeof bufferings / sizeof *bufferings : 1;
}

static void check_session(const char* output) {
    for (size_t i = 0; i < buffering_count(); ++i) {
        for (size_t j = 0; j < sizeof configurations / sizeof *configurations; ++j) {
            run_program(&run, configurations[j], "session_with_output", output, bufferings[i], NULL);
            if (run.status != 0 || *run.output != '\0') {
                fail_msg("buffering %s, %s: ended with %d and printed:\n%s", bufferings[i], configurations[j],
                         run.status, run.output);
            }
        }
    }
    check_echo(open_reader(0xA1));
}

static void AFullDiskAffectsNoCall(void** state) {
    check_session("full");
}

/* The program ignores SIGPIPE, which would end the process. */
static void ABrokenPipeAffectsNoCall(void** state) {
    check_session("broken");
}

static void AFullNonblockingPipeAffectsNoCall(void** state) {
    check_session("nonblocking");
}

static void AReadOnlyStandardOutputAffectsNoCall(void** state) {
    check_session("unwritable");
}

/* libusb's event descriptor then has number 1 and receives the log. */
static void AClosedStandardOutputAffectsNoCall(void** state) {
    check_session("closed");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(AFullDiskAffectsNoCall),
        TEST_CASE(ABrokenPipeAffectsNoCall),
        TEST_CASE(AFullNonblockingPipeAffectsNoCall),
        TEST_CASE(AReadOnlyStandardOutputAffectsNoCall),
        TEST_CASE(AClosedStandardOutputAffectsNoCall),
    };
    return run_group("standard_output", tests, sizeof tests / sizeof *tests, argc, argv);
}
