/* The whole log on a standard output that takes nothing: every call gives its code, nothing hangs, nothing ends the
 * process. */
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

static void ADiskThatIsFullDisturbsNoCall(void** state) {
    check_session("full");
}

/* SIGPIPE is ignored, or it would end the process. */
static void APipeThatNobodyReadsAnyMoreDisturbsNoCall(void** state) {
    check_session("broken");
}

static void AFullPipeThatDoesNotBlockDisturbsNoCall(void** state) {
    check_session("nonblocking");
}

static void AStandardOutputThatIsOnlyReadableDisturbsNoCall(void** state) {
    check_session("unwritable");
}

/* libusb's event descriptor has number 1 then, and gets the log. */
static void AClosedStandardOutputDisturbsNoCall(void** state) {
    check_session("closed");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(ADiskThatIsFullDisturbsNoCall),
        TEST_CASE(APipeThatNobodyReadsAnyMoreDisturbsNoCall),
        TEST_CASE(AFullPipeThatDoesNotBlockDisturbsNoCall),
        TEST_CASE(AStandardOutputThatIsOnlyReadableDisturbsNoCall),
        TEST_CASE(AClosedStandardOutputDisturbsNoCall),
    };
    return run_group("standard_output", tests, sizeof tests / sizeof *tests, argc, argv);
}
