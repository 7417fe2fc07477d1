/* The effects of the configuration file, and the log of whole sessions. */
#include "program.h"
#include "testing.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { bulk = 1, control };

static struct program_run run;

/* ---- The log without the parts that vary */

/* Replace the text between `before` and `after` with `name`; leave the line unchanged if they are missing. */
static void replace_between(char* line, size_t size, const char* before, const char* after,
                            const char* name) {
    char* begin = strstr(line, before);
    if (begin == NULL) {
        return;
    }
    begin += strlen(before);
    const char* end = strstr(begin, after);
    char rest[8192];
    snprintf(rest, sizeof rest, "%s", end != NULL ? end : "");
    snprintf(begin, size - (size_t)(begin - line), "%s%s", name, rest);
}

static bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

/* Check the time and the library's name at the start of a line and return what follows. */
static const char* after_stamp(const char* line) {
    static const char name[] = " :: gvusb: ";
    const char* rest = line + (line[0] == ' ');
    assert_true(is_digit(rest[0]));
    while (is_digit(*rest)) {
        ++rest;
    }
    assert_true(rest - line >= 2);
    assert_int_equal(*rest++, '.');
    for (int i = 0; i < 6; ++i) {
        assert_true(is_digit(*rest++));
    }
    assert_memory_equal(rest, name, sizeof name - 1);
    return rest + sizeof name - 1;
}

/*
 * The worker thread may start before or after the configuration is read, so its start may or may not be
 * logged.
 */
static bool may_be_missing(const char* line) {
    return strcmp(line, "[thread] start") == 0;
}

/* The logs of both modes are the same but for this line; see ParallelModeIsLoggedAtTheStart. */
static const char parallel_line[] = "[init] gvUSB-Parallel=1";

/* Whether a poll logged the line. */
static bool is_of_a_poll(const char* line) {
    static const char tag[] = "[update] ";
    return strcmp(line, "[thread] next update") == 0 || strncmp(line, tag, sizeof tag - 1) == 0;
}

/* The output as one text without times, pointers, versions and, optionally, the lines to leave out. */
static const char* plain_log(bool (*unwanted)(const char* line)) {
    static char log[sizeof run.output];
    size_t length = 0;
    log[0] = '\0';
    char* rest = NULL;
    for (char* line = strtok_r(run.output, "\n", &rest); line != NULL; line = strtok_r(NULL, "\n", &rest)) {
        char text[8192];
        snprintf(text, sizeof text, "%s", after_stamp(line));
        replace_between(text, sizeof text, "usbDevPtr=", " ", "POINTER");
        replace_between(text, sizeof text, "libUSB-Version=", "   ", "VERSION");
        replace_between(text, sizeof text, "vendor=0x", " ", "VENDOR");
        if (in_parallel_suite() && strcmp(text, parallel_line) == 0) {
            continue;
        }
        if (!may_be_missing(text) && (unwanted == NULL || !unwanted(text))) {
            length += (size_t)snprintf(log + length, sizeof log - length, "%s\n", text);
        }
    }
    return log;
}

/* The expected log: the text of a file with some lines dropped and some changed. */
static const char* expected_log(const char* file_name, bool (*wanted)(const char* line),
                                const char* const (*changes)[2]) {
    static char log[65536];
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", GVUSB_TEST_EXPECTED, file_name);
    FILE* file = fopen(path, "r");
    assert_non_null(file);
    char line[8192];
    size_t length = 0;
    while (fgets(line, sizeof line, file) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        const char* text = line;
        for (size_t i = 0; changes != NULL && changes[i][0] != NULL; ++i) {
            text = strcmp(text, changes[i][0]) == 0 ? changes[i][1] : text;
        }
        if (wanted == NULL || wanted(line)) {
            length += (size_t)snprintf(log + length, sizeof log - length, "%s\n", text);
        }
    }
    fclose(file);
    return log;
}

/* Report the first line that differs, which the whole texts would hide. */
static void check_same_lines(const char* log, const char* expected) {
    int number = 1;
    while (*log != '\0' || *expected != '\0') {
        const size_t length = strcspn(log, "\n");
        const size_t expected_length = strcspn(expected, "\n");
        if (length != expected_length || memcmp(log, expected, length) != 0) {
            fail_msg("line %d is \"%.*s\" instead of \"%.*s\"", number, (int)length, log,
                     (int)expected_length, expected);
        }
        log += length + (log[length] == '\n');
        expected += expected_length + (expected[expected_length] == '\n');
        ++number;
    }
}

static void run_session(const char* configuration) {
    run_program(&run, configuration, "session", NULL, NULL, NULL);
    if (run.status != 0) {
        fail_msg("the session ended with %d:\n%s", run.status, run.output);
    }
}

static void NothingIsLoggedWithoutAConfigurationFile(void** state) {
    bus("unplug %d", control);
    run_session(NULL);
    assert_string_equal(run.output, "");
    run_session("gvusb_debuglevel=0");
    assert_string_equal(run.output, "");
    run_session("gvusb_debuglevel=-1");
    assert_string_equal(run.output, "");
}

static void LevelTwoLogsEverythingOfABulkSession(void** state) {
    bus("unplug %d", control);
    run_session("gvusb_debuglevel=2\ngvusb_hotplug=0\n");
    check_same_lines(plain_log(NULL), expected_log("session_bulk.txt", NULL, NULL));
}

static void LevelTwoLogsEverythingOfAControlSession(void** state) {
    bus("unplug %d", bulk);
    run_session("gvusb_debuglevel=2\ngvusb_hotplug=0\n");
    check_same_lines(plain_log(NULL), expected_log("session_control.txt", NULL, NULL));
}

static void write_file(const char* path, const char* text) {
    FILE* file = fopen(path, "w");
    assert_non_null(file);
    fputs(text, file);
    assert_int_equal(fclose(file), 0);
}

/* A run with this text as the file that the environment names, and none in its usual place. */
static void run_with_own_configuration(const char* text, const char* program) {
    char path[] = "/tmp/gvusb-own-XXXXXX";
    char whole[512];
    close(mkstemp(path));
    write_file(path, configuration_of_suite(text, whole, sizeof whole));
    setenv("GVUSB_CONFIG", path, 1);
    run_program(&run, NULL, program, NULL, NULL, NULL);
    unsetenv("GVUSB_CONFIG");
    unlink(path);
    assert_int_equal(run.status, 0);
}

static void EnvironmentNamesTheFileAndTheFileNamesTheLog(void** state) {
    char log[] = "/tmp/gvusb-log-XXXXXX";
    char text[256];
    bus("unplug %d", control);
    close(mkstemp(log));
    snprintf(text, sizeof text, "gvusb_debuglevel=2\ngvusb_hotplug=0\ngvusb_logfile=%s\n", log);
    run_with_own_configuration(text, "session");
    assert_string_equal(run.output, "");

    FILE* file = fopen(log, "r");
    assert_non_null(file);
    run.output[fread(run.output, 1, sizeof run.output - 1, file)] = '\0';
    fclose(file);
    unlink(log);
    check_same_lines(plain_log(NULL), expected_log("session_bulk.txt", NULL, NULL));
}

static void LogFileThatCannotBeOpenedIsNamedOnce(void** state) {
    static const char complaint[] =
        "gvusb: cannot open the log file /missing/log: No such file or directory\n";
    run_with_own_configuration("gvusb_debuglevel=1\ngvusb_logfile=/missing/log\n", "version");
    const char* const found = strstr(run.output, complaint);
    assert_non_null(found);
    assert_null(strstr(found + strlen(complaint), "cannot open"));
    assert_non_null(strstr(run.output, "[init] gvUSB-DebugLevel=1\n"));
}

static bool is_about_the_manager(const char* line) {
    static const char* const device_tags[] = {"[ident]",        "[open]",         "[get bulk end points]",
                                              "[bulkTransmit]", "[bulkReceive ]", "[bulkReceive]",
                                              "[receive]",      "[is present]",   "[close]"};
    for (size_t i = 0; i < sizeof device_tags / sizeof *device_tags; ++i) {
        if (strncmp(line, device_tags[i], strlen(device_tags[i])) == 0) {
            return false;
        }
    }
    return true;
}

static void LevelOneLogsWhatTheManagerDoes(void** state) {
    static const char* const changes[][2] = {{"[init] gvUSB-DebugLevel=2", "[init] gvUSB-DebugLevel=1"},
                                             {NULL, NULL}};
    bus("unplug %d", control);
    run_session("gvusb_debuglevel=1 gvusb_hotplug=0");
    check_same_lines(plain_log(NULL), expected_log("session_bulk.txt", is_about_the_manager, changes));
}

static void LevelThreeLogsTheWorkerThread(void** state) {
    static const char* const changes[][2] = {
        {"[init] gvUSB-DebugLevel=2", "[init] gvUSB-DebugLevel=3"},
        {"[init] gvUSB-UseHotPlug=0", "[init] gvUSB-UseHotPlug=1\n[init] gvUSB-UpdateRate=3600000msec"},
        {"[exit] cleaning up ...", "[exit] cleaning up ...\n[thread] stop"},
        {NULL, NULL}};
    bus("unplug %d", control);
    run_session("gvusb_debuglevel=3,gvusb_hotplug=1,gvusb_updaterate=3600000");
    /* The thread may begin its first sleep before the update rate is read, and then polls after 300 ms. */
    check_same_lines(plain_log(is_of_a_poll), expected_log("session_bulk.txt", NULL, changes));
}

/* ---- Hot-plug mode and update rate */

struct settings {
    const char* configuration;
    const char* mode;
    const char* rate; /* null: not logged, because nothing polls */
};

static void check_settings(const struct settings* settings) {
    char expected[256];
    run_program(&run, settings->configuration, "version", NULL, NULL, NULL);
    assert_int_equal(run.status, 0);
    const char* log = plain_log(NULL);
    snprintf(expected, sizeof expected, "[init] gvUSB-UseHotPlug=%s\n", settings->mode);
    const char* rest = strstr(log, expected);
    if (rest == NULL) {
        fail_msg("\"%s\" gives\n%s", settings->configuration, log);
        return;
    }
    rest += strlen(expected);
    if (strcmp(settings->mode, "2") == 0) {
        snprintf(expected, sizeof expected, "[init] libUSB callbacks registered\n");
    } else if (settings->rate != NULL) {
        snprintf(expected, sizeof expected, "[init] gvUSB-UpdateRate=%smsec\n", settings->rate);
    } else {
        snprintf(expected, sizeof expected, "[exit] cleaning up ...\n");
    }
    assert_memory_equal(rest, expected, strlen(expected));
}

static void ModeAndUpdateRateAreReadFromTheFile(void** state) {
    static const struct settings cases[] = {
        {"gvusb_debuglevel=1", "1", "300"},
        {"gvusb_debuglevel=1 gvusb_hotplug=0", "0", NULL},
        {"gvusb_debuglevel=1 gvusb_hotplug=2", "2", NULL},
        {"gvusb_debuglevel=1 gvusb_hotplug=7", "7", NULL},
        {"gvusb_debuglevel=1 gvusb_hotplug=", "1", "300"},
        {"gvusb_debuglevel=1 nopnp", "0", NULL},
        {"gvusb_debuglevel=1 gvusb_hotplug=1 # nopnp", "0", NULL},
        {"gvusb_hotplug=2 nopnp gvusb_debuglevel=1", "0", NULL},
        {"gvusb_debuglevel=1 gvusb_updaterate=5", "1", "10"},
        {"gvusb_debuglevel=1 gvusb_updaterate=-3", "1", "10"},
        {"gvusb_debuglevel=1 gvusb_updaterate=11", "1", "11"},
        {"gvusb_debuglevel=1 gvusb_updaterate=250 gvusb_updaterate=20", "1", "250"},
        {"gvusb_debuglevel=1 gvusb_updaterate=fast", "1", "300"},
        {"my_gvusb_debuglevel=1my_gvusb_updaterate=20", "1", "20"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        check_settings(&cases[i]);
    }
}

static void KeysAfterTheFirst1023BytesAreIgnored(void** state) {
    static const char level[] = "gvusb_debuglevel=1 ";
    static const char rate[] = "gvusb_updaterate=44";
    enum { all_seen = 1023 };
    char text[2 * all_seen];
    char added[64];
    const size_t seen = all_seen - strlen(configuration_of_suite("", added, sizeof added));
    for (int too_long = 0; too_long <= 1; ++too_long) {
        memset(text, ' ', sizeof text);
        memcpy(text, level, sizeof level - 1);
        memcpy(text + seen - (sizeof rate - 1) + too_long, rate, sizeof rate);
        const struct settings settings = {text, "1", too_long ? "10" : "44"};
        check_settings(&settings);
    }
}

static void LibusbsDebugLevelIsPassedOn(void** state) {
    run_program(&run, "libusb_debuglevel=4 gvusb_debuglevel=0", "version", NULL, NULL, NULL);
    assert_int_equal(run.status, 0);
    assert_non_null(strstr(run.output, "libusb: debug"));
    run_program(&run, "libusb_debuglevel=0", "version", NULL, NULL, NULL);
    assert_null(strstr(run.output, "libusb"));
}

static int count_of(const char* text, const char* part) {
    int count = 0;
    for (const char* found = text; (found = strstr(found, part)) != NULL; ++found) {
        ++count;
    }
    return count;
}

static void ParallelModeIsLoggedAtTheStart(void** state) {
    static const char* const off[] = {"", " gvusb_parallel=0", " gvusb_parallel=2", " gvusb_parallel=on"};
    for (size_t i = 0; i < sizeof off / sizeof *off; ++i) {
        char text[128];
        snprintf(text, sizeof text, "gvusb_debuglevel=1 gvusb_hotplug=0%s", off[i]);
        run_program(&run, text, "version", NULL, NULL, NULL);
        /* The first occurrence of a key counts, which is the suite's own. */
        assert_int_equal(count_of(run.output, parallel_line), in_parallel_suite());
    }
    run_program(&run, "gvusb_debuglevel=1 gvusb_hotplug=0 gvusb_parallel=1", "version", NULL, NULL, NULL);
    assert_int_equal(count_of(run.output, "[init] gvUSB-UseHotPlug=0\n"), 1);
    assert_int_equal(count_of(run.output, parallel_line), 1);
}

/* ---- Polling as logged at level 3 */

static double time_of(const char* line) {
    return strtod(line, NULL) * 1000;
}

static void PollsRunAtTheUpdateRateAndReportEachReaderOnce(void** state) {
    bus("unplug %d", control);
    run_program(&run, "gvusb_debuglevel=3 gvusb_updaterate=50", "wait_for_polls", NULL, NULL, NULL);
    assert_int_equal(run.status, 0);

    const char* first = strstr(run.output, "[thread] next update");
    assert_non_null(first);
    while (first > run.output && first[-1] != '\n') {
        --first;
    }
    const char* second = strstr(first + strcspn(first, "\n"), "[thread] next update");
    assert_non_null(second);
    while (second[-1] != '\n') {
        --second;
    }
    /* The clocks of the log and of the sleep differ, so allow a millisecond. */
    assert_true(time_of(second) - time_of(first) >= 49);

    static const char two_polls[] = "[thread] next update\n"
                                    "[update] read device id\n"
                                    "[update] new device: devId=0x1a2b3c\n"
                                    "[update] MESSAGE \"connect\": devId=0x1a2b3c\n"
                                    "[thread] next update\n"
                                    "[update] read device id\n"
                                    "[update] new device: devId=0x1a2b3c\n"
                                    "[thread] next update\n";
    char* const polls = strstr(plain_log(NULL), "[thread] next update");
    assert_true(strlen(polls) > sizeof two_polls);
    assert_null(strstr(polls + sizeof two_polls - 1, "MESSAGE"));
    polls[sizeof two_polls - 1] = '\0';
    check_same_lines(polls, two_polls);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(NothingIsLoggedWithoutAConfigurationFile),
        TEST_CASE(LevelTwoLogsEverythingOfABulkSession),
        TEST_CASE(LevelTwoLogsEverythingOfAControlSession),
        TEST_CASE(EnvironmentNamesTheFileAndTheFileNamesTheLog),
        TEST_CASE(LogFileThatCannotBeOpenedIsNamedOnce),
        TEST_CASE(LevelOneLogsWhatTheManagerDoes),
        TEST_CASE(LevelThreeLogsTheWorkerThread),
        TEST_CASE(ModeAndUpdateRateAreReadFromTheFile),
        TEST_CASE(KeysAfterTheFirst1023BytesAreIgnored),
        TEST_CASE(LibusbsDebugLevelIsPassedOn),
        TEST_CASE(ParallelModeIsLoggedAtTheStart),
        TEST_CASE(PollsRunAtTheUpdateRateAndReportEachReaderOnce),
    };
    return run_group("configuration", tests, sizeof tests / sizeof *tests, argc, argv);
}
