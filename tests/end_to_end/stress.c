/*
 * Eight threads call every function at random while readers come, go and fail. Afterwards the readers must
 * work and all resources must be released.
 *
 * GVUSB_STRESS_SECONDS in the environment sets the duration, GVUSB_STRESS_SEED the random seed.
 */
#include "open_descriptors.h"
#include "process_figures.h"
#include "testing.h"

#include <libusb.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/* The readers as described in CMakeLists.txt: number 1 has the first ID, and so on. */
enum { first_id = 0xC0, readers = 6 };

enum { callers = 8, handles = 16, usual_seconds = 10, longest_standstill_s = 90 };

static atomic_bool working;
static atomic_int known_handles[handles];
static atomic_long calls, answers, events;
static atomic_int wrong_result;

static int pick(unsigned int* random, int below) {
    return (int)((unsigned int)rand_r(random) % (unsigned int)below);
}

static long from_environment(const char* name, long otherwise) {
    const char* text = getenv(name);
    return text != NULL ? strtol(text, NULL, 0) : otherwise;
}

static unsigned int reader_id(unsigned int* random) {
    return (unsigned int)(first_id + pick(random, readers));
}

/* Usually the handle of an open reader, otherwise a former or an invalid one. */
static int handle(unsigned int* random) {
    switch (pick(random, 16)) {
    case 0:
        return pick(random, 4) - 2;
    case 1:
    case 2:
        return atomic_load(&known_handles[pick(random, handles)]);
    default:
        return GVUSB_GetDeviceHnd(reader_id(random));
    }
}

static void expect_code(int result) {
    if (result < 0 && (result > GVUSB_ERR_EMPTY_DEVICE_LIST || result < GVUSB_ERR_INTERNAL)) {
        atomic_store(&wrong_result, result);
    }
}

static void learn(unsigned int* random, int result) {
    expect_code(result);
    if (result > 0) {
        atomic_store(&known_handles[pick(random, handles)], result);
    }
}

/* A call that waits for a missing answer blocks all other calls, so set a short time-out. */
static void learn_opened(unsigned int* random, int result) {
    learn(random, result);
    if (result > 0) {
        expect_code(GVUSB_SetDevicePara(result, "TIMEOUT", "20"));
    }
}

static void exchange(unsigned int* random) {
    static const unsigned char frame[] = {1, 2, 3, 4, 5};
    unsigned char answer[64];
    const unsigned int length = (unsigned int)pick(random, 1 + (int)sizeof frame);
    switch (pick(random, 8)) {
    case 0:
        expect_code(GVUSB_Transmit(handle(random), GVUSB_PROTOCOL, frame, length));
        break;
    case 1:
        expect_code(GVUSB_Receive(handle(random), GVUSB_PROTOCOL, answer, sizeof answer));
        break;
    default: {
        const int result =
            GVUSB_Transceive(handle(random), GVUSB_PROTOCOL, 0, frame, length, answer, sizeof answer);
        expect_code(result);
        atomic_fetch_add(&answers, result > 0);
    }
    }
}

/* Usually lists all readers, so that most can be opened. */
static void find(unsigned int* random) {
    static const int options[] = {GVUSB_SCAN_FIRST, GVUSB_SCAN_NEXT};
    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID};
    snprintf(search.devId, sizeof search.devId, "%X", reader_id(random));
    const int option = pick(random, 8) == 0 ? options[pick(random, 2)] : GVUSB_SCAN_ALL;
    const int searching = pick(random, 16) == 0 ? GVUSB_SCAN_SEARCH : 0;
    const int what = pick(random, 32);
    if (what == 0) {
        expect_code(GVUSB_ClearScanList());
    } else if (what < 16) {
        expect_code(GVUSB_Scan(option | searching, &search));
    } else {
        learn_opened(random, GVUSB_ScanAndOpen(option | searching, &search));
    }
}

static void read_parameters(unsigned int* random) {
    static const char* const keys[] = {"TIMEOUT", "DEVICE-ID", "TYPENUMBER", "DEVICENAME", "DEVICEHND"};
    char value[GVUSB_PARAMETER_SIZE] = "";
    if (pick(random, 2) == 0) {
        expect_code(GVUSB_GetDevicePara(handle(random), keys[pick(random, 5)], value));
    } else {
        expect_code(GVUSB_GetScanListPara(pick(random, readers), keys[pick(random, 5)], value));
    }
}

static void write_parameters(unsigned int* random) {
    static const char* const keys[] = {"TIMEOUT", "RESETPIPE", "RESETDEVICE", "CANCEL"};
    if (pick(random, 4) == 0) {
        expect_code(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", pick(random, 4) == 0 ? "1" : "0"));
    } else {
        expect_code(GVUSB_SetDevicePara(handle(random), keys[pick(random, 4)], "20"));
    }
}

static void ask(unsigned int* random) {
    char text[GVUSB_TEXT_SIZE];
    int code = 0;
    switch (pick(random, 7)) {
    case 0:
        expect_code(GVUSB_GetScanListSize());
        break;
    case 1:
        learn(random, GVUSB_GetDeviceList(pick(random, 2) == 0 ? 0 : handle(random)));
        break;
    case 2:
        learn(random, GVUSB_GetDeviceHnd(reader_id(random)));
        break;
    case 3:
        expect_code(GVUSB_GetLastError(pick(random, 2) == 0 ? 0 : handle(random), &code, text));
        break;
    case 4:
        expect_code(GVUSB_GetErrorText(-1100 - pick(random, 100), text));
        break;
    case 5:
        GVUSB_GetDLLVersion();
        expect_code(GVUSB_GetDrvVersion());
        break;
    default:
        expect_code(GVUSB_IsDevicePresent(handle(random)));
    }
}

/* Call any function that a handler may call. */
static void call_anything(unsigned int* random) {
    atomic_fetch_add(&calls, 1);
    const int what = pick(random, 256);
    if (what < 3) {
        find(random);
    } else if (what < 6) {
        expect_code(GVUSB_CloseDevice(handle(random)));
    } else if (what < 40) {
        learn_opened(random, GVUSB_OpenDevice(reader_id(random)));
    } else if (what < 70) {
        read_parameters(random);
    } else if (what < 80) {
        write_parameters(random);
    } else if (what < 120) {
        ask(random);
    } else {
        exchange(random);
    }
}

/* Unsynchronized, because handlers run one at a time. */
static void on_event(int device_handle, unsigned int id, const char* text) {
    static unsigned int random = 99;
    (void)device_handle, (void)id, (void)text;
    atomic_fetch_add(&events, 1);
    call_anything(&random);
}

static void change_handlers(bool add, int kind) {
    GVUSB_EVENT_INIT registration = {(uint32_t)kind, 0, GVUSB_CALLBACK_FUNCTION, 0, on_event};
    expect_code(add ? GVUSB_AddEventHandler(0, &registration) : GVUSB_DelEventHandler(0, &registration));
}

static void* call_all_the_time(void* seed) {
    unsigned int random = *(unsigned int*)seed;
    while (atomic_load(&working)) {
        if (pick(&random, 32) == 0) {
            change_handlers(pick(&random, 3) > 0, 1 + pick(&random, 2));
        } else {
            call_anything(&random);
        }
    }
    return NULL;
}

static bool plugged[1 + readers];

/* The root hub has no parent. */
static int readers_on_bus(void) {
    libusb_device** list = NULL;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    int found = 0;
    for (ssize_t i = 0; i < count; ++i) {
        found += libusb_get_parent(list[i]) != NULL;
    }
    libusb_free_device_list(list, 1);
    return found;
}

static bool libusb_knows(void* count) {
    return readers_on_bus() == *(const int*)count;
}

/* The queue of changes that libusb has not yet noticed is limited. */
static void await_libusb(void) {
    int count = 0;
    for (int reader = 1; reader <= readers; ++reader) {
        count += plugged[reader];
    }
    assert_true(await(libusb_knows, &count, long_enough_ms));
}

static void change_bus(unsigned int* random) {
    const int reader = 1 + pick(random, readers);
    switch (pick(random, 8)) {
    case 0:
        bus("fail-string %d 1 %s", reader, pick(random, 2) == 0 ? "on" : "off");
        break;
    case 1:
        bus("busy %d %s", reader, pick(random, 4) == 0 ? "on" : "off");
        break;
    case 2:
        bus("%s %d in", pick(random, 4) == 0 ? "stall" : "unstall", reader);
        break;
    case 3:
        if (plugged[reader]) {
            bus("replug %d", reader);
        }
        break;
    default:
        bus(plugged[reader] ? "unplug %d" : "plug %d", reader);
        plugged[reader] = !plugged[reader];
    }
}

static void* drive(void* nothing) {
    struct timeval longest = {.tv_sec = 0, .tv_usec = 10000};
    while (atomic_load(&working)) {
        libusb_handle_events_timeout(NULL, &longest);
    }
    return nothing;
}

static void change_bus_for(double seconds, unsigned int random) {
    int changes = 0;
    const double end = now_ms() + seconds * 1e3;
    while (now_ms() < end) {
        change_bus(&random);
        await_libusb();
        ++changes;
        usleep(3000);
    }
    print_message("%ld calls, %ld answers, %d changes of the bus, %ld events\n", atomic_load(&calls),
                  atomic_load(&answers), changes, atomic_load(&events));
}

static bool has_returned_everything(void* reader) {
    const int number = *(const int*)reader;
    return host_count(number, "opens") == host_count(number, "closes");
}

static void check_readers_answer(void) {
    scan_until(readers);
    for (unsigned int id = first_id; id < first_id + readers; ++id) {
        const int open = GVUSB_GetDeviceHnd(id);
        if (open > 0) {
            assert_int_equal(GVUSB_CloseDevice(open), 0);
        }
        assert_true(await(reader_answers, &id, long_enough_ms));
    }
}

static void check_nothing_is_left(long descriptors) {
    for (int open; (open = GVUSB_GetDeviceList(0)) != 0;) {
        assert_int_equal(GVUSB_CloseDevice(open), 0);
    }
    GVUSB_ClearScanList();
    for (int reader = 1; reader <= readers; ++reader) {
        assert_true(await(has_returned_everything, &reader, long_enough_ms));
    }
    if (!await(has_descriptors, &descriptors, long_enough_ms)) {
        fail_msg("%ld descriptors are left of %ld", own_figures().descriptors, descriptors);
    }
}

static void NothingIsLostUnderRandomCallsAndEvents(void** state) {
    unsigned int seeds[callers];
    pthread_t threads[callers];
    pthread_t driver;
    const unsigned int seed = (unsigned int)from_environment("GVUSB_STRESS_SEED", time(NULL) % 1000000);
    const bool driven = strcmp(parameter(GVUSB_DRIVER, "HOTPLUG-MODE"), "2") == 0;
    const double seconds = (double)from_environment("GVUSB_STRESS_SECONDS", usual_seconds);
    print_message("GVUSB_STRESS_SEED=%u\n", seed);
    alarm((unsigned int)seconds + longest_standstill_s);
    const long descriptors = descriptors_without_polls();
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", driven ? "1" : "0"), 0);
    for (int reader = 1; reader <= readers; ++reader) {
        plugged[reader] = true;
    }
    atomic_store(&working, true);
    if (driven) {
        assert_int_equal(pthread_create(&driver, NULL, drive, NULL), 0);
    }
    for (unsigned int i = 0; i < callers; ++i) {
        seeds[i] = seed + i;
        assert_int_equal(pthread_create(&threads[i], NULL, call_all_the_time, &seeds[i]), 0);
    }
    change_bus_for(seconds, seed + callers);
    atomic_store(&working, false);
    for (int i = 0; i < callers; ++i) {
        pthread_join(threads[i], NULL);
    }
    if (driven) {
        pthread_join(driver, NULL);
    }
    change_handlers(false, GVUSB_EVENT_CONNECT);
    change_handlers(false, GVUSB_EVENT_DISCONNECT);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), 0);
    assert_int_equal(atomic_load(&wrong_result), 0);
    assert_true(atomic_load(&answers) > 0);
    assert_true(atomic_load(&events) > 0);

    calm_bus();
    for (int reader = 1; reader <= readers; ++reader) {
        if (!plugged[reader]) {
            bus("plug %d", reader);
        }
    }
    check_readers_answer();
    check_nothing_is_left(descriptors);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(NothingIsLostUnderRandomCallsAndEvents),
    };
    if (libusb_init(NULL) != 0) {
        return 2;
    }
    const int failed = run_group("stress", tests, sizeof tests / sizeof *tests, argc, argv);
    libusb_exit(NULL);
    return failed;
}
