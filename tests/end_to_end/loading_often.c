/*
 * The library is loaded and unloaded many times in one process, in every mode, while a reader is replugged.
 */
#include "program.h"
#include "testing.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The number of loads; GVUSB_TEST_LOADS in the environment overrides it. */
#ifdef GVUSB_TEST_SANITIZED
/* The library's destructor destroys a locked mutex, and the thread sanitizer can track only 64 of these. */
static const char usual_loads[] = "50";
#else
static const char usual_loads[] = "400";
#endif

/*
 * The permitted growth of memory between the first loads and the last, because the allocator's caches vary. A
 * leak of one page per load would be 1600 kB.
 */
enum { resident_tolerance_kb = 512 };

static struct program_run run;

struct figures {
    int loads;
    long resident_kb, descriptors, threads;
};

static struct figures read_figures(const char* line) {
    struct figures figures = {0, 0, 0, 0};
    if (line == NULL ||
        sscanf(line, "%d loads, resident %ld kB, descriptors %ld, threads %ld", &figures.loads,
               &figures.resident_kb, &figures.descriptors, &figures.threads) != 4) {
        fail_msg("no figures:\n%s", run.output);
    }
    return figures;
}

static void check_figures(const struct figures* first, const struct figures* last) {
    assert_int_equal(first->descriptors, last->descriptors);
    assert_int_equal(first->threads, last->threads);
#ifndef GVUSB_TEST_SANITIZED /* sanitizers keep freed memory for a while */
    if (last->resident_kb - first->resident_kb > resident_tolerance_kb) {
        fail_msg("resident memory grew from %ld kB to %ld kB", first->resident_kb, last->resident_kb);
    }
#endif
}

static void check_loads(const char* configuration) {
    const char* const wanted = getenv("GVUSB_TEST_LOADS");
    const char* const loads = wanted != NULL ? wanted : usual_loads;
    run_program(&run, configuration, "load_often", loads, NULL, NULL);
    if (run.status != 0) {
        fail_msg("ended with %d:\n%s", run.status, run.output);
    }
    print_message("%s", run.output);
    const struct figures first = read_figures(run.output);
    const char* const second_line = strchr(run.output, '\n');
    const struct figures last = read_figures(second_line != NULL ? second_line + 1 : NULL);
    assert_int_equal(last.loads, atoi(loads));
    check_figures(&first, &last);
    check_echo(open_reader(0xA1));
}

static void NothingIsLeftOverInModeZero(void** state) {
    check_loads("gvusb_hotplug=0");
}

static void NothingIsLeftOverInModeOne(void** state) {
    check_loads("gvusb_hotplug=1 gvusb_updaterate=1");
}

static void NothingIsLeftOverInModeTwo(void** state) {
    check_loads("gvusb_hotplug=2");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(NothingIsLeftOverInModeZero),
        TEST_CASE(NothingIsLeftOverInModeOne),
        TEST_CASE(NothingIsLeftOverInModeTwo),
    };
    return run_group("loading_often", tests, sizeof tests / sizeof *tests, argc, argv);
}
