/* Loading and unloading the library, and ending programs that use it. */
#include "program.h"
#include "testing.h"

#include <stdio.h>
#include <string.h>

/*
 * The limit for the time that a program takes to end after main(), in the quickest of several attempts if the machine is busy. It
 * includes a sanitizer's work at exit.
 */
enum { most_attempts = 20 };
#ifdef GVUSB_TEST_SANITIZED
enum { longest_end_ms = 1500 };
#else
enum { longest_end_ms = 100 };
#endif

static const char* const every_mode[] = {"gvusb_hotplug=0", "gvusb_updaterate=10", "gvusb_hotplug=2", NULL};

static struct program_run run;

static int occurrences(const char* text) {
    int count = 0;
    for (const char* found = run.output; (found = strstr(found, text)) != NULL; ++found) {
        ++count;
    }
    return count;
}

static void check_status(int status) {
    if (run.status != status) {
        fail_msg("ended with %d instead of %d:\n%s", run.status, status, run.output);
    }
}

/*
 * Each unload runs the library's destructors before dlclose() returns, and the next load starts with fresh
 * state.
 */
static void check_loads_and_unloads(const char* program) {
    run_program(&run, "gvusb_debuglevel=1", program, GVUSB_TEST_LIBRARY, "5", NULL);
    check_status(0);
    assert_int_equal(occurrences("scan: 0, readers: 2\n"), 5);
    const char* rest = run.output;
    for (int i = 0; i < 5; ++i) {
        static const char* const order[] = {"[init] libUSB-Version=", "devHnd=0x10000001 ",
                                            "[exit] cleaning up ...\n", "[exit] ... done\n", "unloaded\n"};
        for (size_t step = 0; step < sizeof order / sizeof *order; ++step) {
            rest = strstr(rest, order[step]);
            if (rest == NULL) {
                fail_msg("loading %d lacks \"%s\":\n%s", i + 1, order[step], run.output);
            }
        }
    }
    assert_non_null(strstr(rest, "main ends\n"));
    assert_int_equal(occurrences("[exit] ... done\n"), 5);
    assert_null(strstr(strstr(rest, "main ends\n"), "[exit]"));
}

static void ACProgramLoadsAndUnloadsItRepeatedly(void** state) {
    check_loads_and_unloads("load_and_unload_c");
}

static void ACxxProgramLoadsAndUnloadsItRepeatedly(void** state) {
    check_loads_and_unloads("load_and_unload_cxx");
}

static void LoadingSurvivesALibusbThatCannotStart(void** state) {
    run_program(&run, "gvusb_debuglevel=1", "load_without_descriptors", GVUSB_TEST_LIBRARY, NULL, NULL);
    check_status(0);
    assert_non_null(strstr(run.output, "scan: -1112\n"));
    assert_non_null(strstr(run.output, "scan and open: -1112\n"));
    assert_non_null(strstr(run.output, "open: -1140\n"));
    assert_non_null(strstr(run.output, "unloaded\n"));
}

static void check_ends_soon(const char* configuration) {
    double quickest = 0;
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        run_program(&run, configuration, "leave_readers_open", NULL, NULL, NULL);
        check_status(42);
        assert_string_equal(run.output, "main ends\n");
        const double taken = run.ended - run.first_output;
        quickest = attempt == 0 || taken < quickest ? taken : quickest;
        if (quickest < (bus_is_emulated() ? longest_end_ms : long_enough_ms)) {
            return;
        }
    }
    fail_msg("the program ended %.0f ms after main", quickest);
}

static void AnUpdateRateOfHoursDoesNotDelayTheEnd(void** state) {
    check_ends_soon("gvusb_updaterate=3600000");
}

static void TheEndIsQuickInEveryMode(void** state) {
    check_ends_soon(NULL);
    check_ends_soon("gvusb_hotplug=0");
    check_ends_soon("gvusb_hotplug=2");
    check_ends_soon("gvusb_updaterate=10");
}

static void ReadersLeftOpenAreClosedAtTheEnd(void** state) {
    run_program(&run, NULL, "leave_readers_open", NULL, NULL, NULL);
    check_status(42);
    for (int reader = 1; bus_is_emulated() && reader <= 2; ++reader) {
        assert_true(host_count(reader, "claims") > 0);
        assert_int_equal(host_count(reader, "opens"), host_count(reader, "closes"));
    }
    check_echo(open_reader(0x1A2B3C));
}

/* libusb could no longer wake its own thread, and would wait for it forever. */
static void AProgramThatHasClosedEveryDescriptorEnds(void** state) {
    for (const char* const* configuration = every_mode; *configuration != NULL; ++configuration) {
        run_program(&run, *configuration, "close_every_descriptor", NULL, NULL, NULL);
        check_status(42);
    }
}

static void CallsAfterTheEndReturnACode(void** state) {
    for (const char* const* configuration = every_mode; *configuration != NULL; ++configuration) {
        run_program(&run, *configuration, "call_after_the_end", NULL, NULL, NULL);
        check_status(0);
        assert_string_equal(run.output, "scan: -1109\n"
                                        "scan and open: -1109\n"
                                        "scan list: 0\n"
                                        "transceive: -1109\n");
    }
}

static void AChildWithItsParentsProcessIdDoesNotCloseTheReaders(void** state) {
    run_program(&run, NULL, "end_child_with_same_id", NULL, NULL, NULL);
    check_status(0);
    assert_string_equal(run.output, "process 1, child: 0, present: 1, then 1\n");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(ACProgramLoadsAndUnloadsItRepeatedly),
        TEST_CASE(ACxxProgramLoadsAndUnloadsItRepeatedly),
        TEST_CASE(LoadingSurvivesALibusbThatCannotStart),
        TEST_CASE(AnUpdateRateOfHoursDoesNotDelayTheEnd),
        TEST_CASE(TheEndIsQuickInEveryMode),
        TEST_CASE(ReadersLeftOpenAreClosedAtTheEnd),
        TEST_CASE(AProgramThatHasClosedEveryDescriptorEnds),
        TEST_CASE(CallsAfterTheEndReturnACode),
        TEST_CASE(AChildWithItsParentsProcessIdDoesNotCloseTheReaders),
    };
    return run_group("loading", tests, sizeof tests / sizeof *tests, argc, argv);
}
