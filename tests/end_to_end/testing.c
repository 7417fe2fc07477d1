#include "testing.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { most_tests = 64 };

static int first_readers;   /* those that the program was started with */
static int usable_at_start; /* the number of these that a scan finds */

static bool scan_finds(void* size) {
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    return GVUSB_GetScanListSize() == *(const int*)size;
}

static void close_everything(void) {
    for (int handle; (handle = GVUSB_GetDeviceList(0)) != 0;) {
        assert_int_equal(GVUSB_CloseDevice(handle), 0);
    }
}

static void restore_readers(void) {
    const int count = reader_count();
    for (int reader = 1; reader <= count; ++reader) {
        const bool wanted = reader <= first_readers;
        if (is_plugged(reader) != wanted) {
            bus(wanted ? "plug %d" : "unplug %d", reader);
        }
    }
}

int start_afresh(void** state) {
    (void)state;
    close_everything();
    calm_bus();
    restore_readers();
    scan_until(usable_at_start);
    GVUSB_ClearScanList();
    return 0;
}

static int note_readers(void** state) {
    (void)state;
    first_readers = reader_count();
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    usable_at_start = GVUSB_GetScanListSize();
    return 0;
}

static const struct CMUnitTest* test_named(const struct CMUnitTest* tests, size_t count, const char* name) {
    for (size_t i = 0; i < count; ++i) {
        if (strcmp(tests[i].name, name) == 0) {
            return &tests[i];
        }
    }
    fprintf(stderr, "cannot leave out unknown test %s\n", name);
    exit(2);
}

/* Remove the tests whose names are in a space-separated list; return the number of the others. */
static size_t leave_out(struct CMUnitTest* tests, size_t count, const char* names) {
    char* left_out = strdup(names);
    char* rest = NULL;
    for (char* name = strtok_r(left_out, " ", &rest); name != NULL; name = strtok_r(NULL, " ", &rest)) {
        const size_t index = (size_t)(test_named(tests, count, name) - tests);
        memmove(&tests[index], &tests[index + 1], (count - index - 1) * sizeof *tests);
        --count;
    }
    free(left_out);
    return count;
}

int run_group(const char* name, const struct CMUnitTest* tests, size_t count, int argc, char** argv) {
    struct CMUnitTest chosen[most_tests];
    const char* const names = getenv("GVUSB_TEST_LEAVE_OUT");
    if (count > most_tests) {
        abort();
    }
    memcpy(chosen, tests, count * sizeof *tests);
    if (argc > 1) {
        cmocka_set_test_filter(argv[1]);
    }
    return _cmocka_run_group_tests(name, chosen, names != NULL ? leave_out(chosen, count, names) : count,
                                   note_readers, NULL);
}

void scan_until(int size) {
    if (!await(scan_finds, &size, long_enough_ms)) {
        fail_msg("the scan list has %d entries instead of %d", GVUSB_GetScanListSize(), size);
    }
}

int open_reader_with_default_timeout(unsigned int id) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    int handle = GVUSB_OpenDevice(id);
    assert_true(handle > 0);
    return handle;
}

int open_reader(unsigned int id) {
    const int handle = open_reader_with_default_timeout(id);
    be_patient(handle);
    return handle;
}

void be_patient(int handle) {
    char milliseconds[16];
    snprintf(milliseconds, sizeof milliseconds, "%d", long_enough_ms);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", milliseconds), 0);
}

bool in_parallel_suite(void) {
    return getenv("GVUSB_TEST_PARALLEL") != NULL;
}

int last_error(int handle) {
    int code = 1;
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetLastError(handle, &code, text);
    return code;
}

const char* parameter(int handle, const char* key) {
    static char value[GVUSB_PARAMETER_SIZE];
    assert_int_equal(GVUSB_GetDevicePara(handle, key, value), 0);
    return value;
}

const char* scan_list_parameter(int index, const char* key) {
    static char value[GVUSB_PARAMETER_SIZE];
    assert_int_equal(GVUSB_GetScanListPara(index, key, value), 0);
    return value;
}

int scan_list_index(const char* id) {
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        if (strcmp(scan_list_parameter(index, "DEVICE-ID"), id) == 0) {
            return index;
        }
    }
    return -1;
}

static const unsigned char echoed[] = {0x02, 0x00, 0x07, 0xFF, 0x01};

static int exchange_echoed(int handle, unsigned char* answer, unsigned int size) {
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, echoed, sizeof echoed, answer, size);
}

void check_echo(int handle) {
    unsigned char answer[64];
    assert_int_equal(exchange_echoed(handle, answer, sizeof answer), sizeof echoed);
    assert_memory_equal(answer, echoed, sizeof echoed);
}

bool reader_answers(void* id) {
    unsigned char answer[64];
    if (GVUSB_Scan(GVUSB_SCAN_ALL, NULL) != 0) {
        return false;
    }
    const int handle = GVUSB_OpenDevice(*(const unsigned int*)id);
    if (handle <= 0) {
        return false;
    }
    be_patient(handle);
    if (exchange_echoed(handle, answer, sizeof answer) == sizeof echoed &&
        memcmp(answer, echoed, sizeof echoed) == 0) {
        return true;
    }
    GVUSB_CloseDevice(handle);
    return false;
}
