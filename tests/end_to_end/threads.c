/* Several threads at work at once, and readers that come and go meanwhile. */
#include "events.h"
#include "open_descriptors.h"
#include "process_figures.h"
#include "testing.h"

#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The number of replugs; GVUSB_TEST_CHURN in the environment overrides it. */
enum { churn_cycles = 2000 };

/* The readers as described in CMakeLists.txt: number 1 has the first ID, and so on. */
enum { first_id = 0xC0, readers = 6 };

enum { longest_problem = 160 };
static char problem[longest_problem];
static atomic_int problems;

/*
 * Only the main thread can use cmocka's checks, so record the first problem and fail the test after all
 * threads have ended.
 */
static void note_problem(const char* what, int result) {
    if (atomic_fetch_add(&problems, 1) == 0) {
        snprintf(problem, sizeof problem, "%s gave %d", what, result);
    }
}

static void forget_problems(void) {
    atomic_store(&problems, 0);
    problem[0] = '\0';
}

static void check_no_problems(void) {
    if (atomic_load(&problems) != 0) {
        fail_msg("%d problems, the first: %s", atomic_load(&problems), problem);
    }
}

static unsigned int reader_id(int reader) {
    return (unsigned int)(first_id + reader - 1);
}

enum { frame_size = 64 };

/* Write the frame with this number; return its length. */
static unsigned int make_frame(unsigned int number, unsigned char* frame) {
    const unsigned int length = sizeof number + number % (frame_size - sizeof number);
    memcpy(frame, &number, sizeof number);
    memset(frame + sizeof number, (int)(number & 0xFF), length - sizeof number);
    return length;
}

static bool is_frame(unsigned int number, const unsigned char* data, int length) {
    unsigned char frame[frame_size];
    return (unsigned int)length == make_frame(number, frame) && memcmp(data, frame, (size_t)length) == 0;
}

/* Exchange a unique frame; return the result, or 0 if the answer is neither this frame nor, if accepted, an earlier one. */
static int exchange_frame(int handle, bool accepts_earlier) {
    static atomic_uint serial;
    unsigned char frame[frame_size];
    unsigned char answer[2 * frame_size];
    const unsigned int sent = atomic_fetch_add(&serial, 1);
    const unsigned int length = make_frame(sent, frame);
    GVUSB_SetDevicePara(handle, "TIMEOUT", "60000"); /* the machine may be busy */
    const int result = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, length, answer, sizeof answer);
    if (result <= 0) {
        return result;
    }
    unsigned int answered = sent;
    if (accepts_earlier) {
        memcpy(&answered, answer, sizeof answered);
    }
    return answered <= sent && is_frame(answered, answer, result) ? result : 0;
}

static int exchange(int handle) {
    return exchange_frame(handle, false);
}

/* ---- Readers that stay */

static atomic_bool working;

static void* exchange_many(void* argument) {
    const int handle = *(const int*)argument;
    for (int i = 0; i < 150; ++i) {
        const int result = exchange(handle);
        if (result <= 0) {
            note_problem("an exchange", result);
        }
    }
    return NULL;
}

static void* scan_all_the_time(void* nothing) {
    while (atomic_load(&working)) {
        const int result = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
        const int size = GVUSB_GetScanListSize();
        if (result != 0 || size != readers) {
            note_problem("a scan", result != 0 ? result : size);
        }
    }
    return nothing;
}

static void FourThreadsExchangeWhileOneScans(void** state) {
    enum { exchangers = 4 };
    pthread_t threads[exchangers];
    int handles[exchangers];
    forget_problems();
    for (int i = 0; i < exchangers; ++i) {
        handles[i] = open_reader(reader_id(i + 1));
    }
    pthread_t scanner;
    atomic_store(&working, true);
    assert_int_equal(pthread_create(&scanner, NULL, scan_all_the_time, NULL), 0);
    for (int i = 0; i < exchangers; ++i) {
        assert_int_equal(pthread_create(&threads[i], NULL, exchange_many, &handles[i]), 0);
    }
    for (int i = 0; i < exchangers; ++i) {
        pthread_join(threads[i], NULL);
    }
    atomic_store(&working, false);
    pthread_join(scanner, NULL);
    check_no_problems();
    for (int i = 0; i < exchangers; ++i) {
        assert_int_equal(GVUSB_GetDeviceHnd(reader_id(i + 1)), handles[i]);
    }
}

static void ThreadsThatShareAReaderGetTheirOwnAnswers(void** state) {
    enum { exchangers = 4 };
    pthread_t threads[exchangers];
    forget_problems();
    int handle = open_reader(reader_id(1));
    for (int i = 0; i < exchangers; ++i) {
        assert_int_equal(pthread_create(&threads[i], NULL, exchange_many, &handle), 0);
    }
    for (int i = 0; i < exchangers; ++i) {
        pthread_join(threads[i], NULL);
    }
    check_no_problems();
}

static void* open_and_close(void* argument) {
    const unsigned int id = *(const unsigned int*)argument;
    for (int i = 0; i < 100; ++i) {
        const int handle = GVUSB_OpenDevice(id);
        const int result = handle > 0 ? exchange(handle) : handle;
        if (result <= 0) {
            note_problem("an exchange after opening", result);
        }
        const int closed = GVUSB_CloseDevice(handle);
        if (closed != 0) {
            note_problem("closing", closed);
        }
    }
    return NULL;
}

static void ThreadsOpenAndCloseDifferentReaders(void** state) {
    pthread_t threads[readers];
    unsigned int ids[readers];
    forget_problems();
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    for (int i = 0; i < readers; ++i) {
        ids[i] = reader_id(i + 1);
        assert_int_equal(pthread_create(&threads[i], NULL, open_and_close, &ids[i]), 0);
    }
    for (int i = 0; i < readers; ++i) {
        pthread_join(threads[i], NULL);
    }
    check_no_problems();
    assert_int_equal(GVUSB_GetDeviceList(0), 0);
}

/* A thread must open the reader that its own search found, whatever other threads search for. */
static void* scan_and_open_own(void* argument) {
    const unsigned int id = *(const unsigned int*)argument;
    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID};
    snprintf(search.devId, sizeof search.devId, "%X", id);
    for (int i = 0; i < 150; ++i) {
        const int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search);
        if (handle <= 0 || handle != GVUSB_GetDeviceHnd(id)) {
            note_problem("a scan for a thread's own reader", handle);
        }
        GVUSB_CloseDevice(handle);
    }
    return NULL;
}

static void ThreadsThatScanAndOpenGetTheReaderThatTheySearchedFor(void** state) {
    enum { searchers = 2 };
    pthread_t threads[searchers];
    unsigned int ids[searchers];
    forget_problems();
    /* The others stay open, so that scans need not identify them. */
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    for (int i = 0; i < searchers; ++i) {
        ids[i] = reader_id(i + 1);
        assert_int_equal(GVUSB_CloseDevice(GVUSB_GetDeviceHnd(ids[i])), 0);
    }
    for (int i = 0; i < searchers; ++i) {
        assert_int_equal(pthread_create(&threads[i], NULL, scan_and_open_own, &ids[i]), 0);
    }
    for (int i = 0; i < searchers; ++i) {
        pthread_join(threads[i], NULL);
    }
    check_no_problems();
}

static void APresentReaderOpensDuringConcurrentScans(void** state) {
    forget_problems();
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    const int handle = GVUSB_GetDeviceHnd(reader_id(1));
    pthread_t scanner;
    atomic_store(&working, true);
    assert_int_equal(pthread_create(&scanner, NULL, scan_all_the_time, NULL), 0);
    for (int i = 0; i < 10000; ++i) {
        const int result = GVUSB_OpenDevice(reader_id(1));
        if (result != handle) {
            note_problem("opening", result);
        }
    }
    atomic_store(&working, false);
    pthread_join(scanner, NULL);
    check_no_problems();
}

/* ---- Readers that come and go */

static int kept_handle; /* of the first reader, which no thread closes */
static atomic_int scans;

/* The possible results for a reader that goes, comes back, and is closed by another thread meanwhile. */
static bool may_happen(int result) {
    return result > 0 || result == GVUSB_ERR_NOT_PRESENT || result == GVUSB_ERR_HANDLE_NOT_FOUND ||
           result == GVUSB_ERR_NOT_OPENED || result == GVUSB_ERR_CANNOT_CLAIM ||
           result == GVUSB_ERR_BULK_TRANSFER || result == GVUSB_ERR_CONTROL_TRANSFER ||
           result == GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
}

static void scan_once(void) {
    atomic_fetch_add(&scans, 1);
    const int result = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    if (result != 0 && result != GVUSB_ERR_NO_DEVICE_FOUND) {
        note_problem("a scan", result);
    }
}

static void use_reader(int reader) {
    const int handle = GVUSB_OpenDevice(reader_id(reader));
    if (handle < 0) {
        if (handle != GVUSB_ERR_NOT_SCANNED && handle != GVUSB_ERR_CANNOT_OPEN &&
            handle != GVUSB_ERR_CONFIG_DESCRIPTOR_READ) {
            note_problem("opening", handle);
        }
        return;
    }
    /* In parallel mode, another thread that closes the reader ends an exchange, and the next one gets its answer. */
    const int result = exchange_frame(handle, in_parallel_suite());
    if (!may_happen(result)) {
        note_problem("an exchange", result);
    }
    const int closed = GVUSB_CloseDevice(handle);
    if (closed != 0 && closed != GVUSB_ERR_HANDLE_NOT_FOUND) {
        note_problem("closing", closed);
    }
}

static void* use_readers(void* argument) {
    unsigned int random = *(const unsigned int*)argument;
    while (atomic_load(&working)) {
        random = random * 1103515245U + 12345U;
        if (random >> 30 == 0) {
            scan_once();
        }
        use_reader(2 + (int)((random >> 16) % (readers - 1)));
        const int result = exchange(kept_handle);
        if (!may_happen(result)) {
            note_problem("an exchange with the reader that is kept", result);
        }
        if (GVUSB_GetDeviceHnd(reader_id(1)) != kept_handle) {
            note_problem("the handle that is kept", GVUSB_GetDeviceHnd(reader_id(1)));
        }
    }
    return NULL;
}

static int wanted_cycles(void) {
    const char* text = getenv("GVUSB_TEST_CHURN");
    return text != NULL ? atoi(text) : churn_cycles;
}

/* libusb learns of changes in their order: when it knows the last one, it knows all. */
static void await_all_changes(void) {
    unsigned int id = reader_id(readers);
    bus("unplug %d", readers);
    bus("plug %d", readers);
    assert_true(await(reader_answers, &id, long_enough_ms));
}

/*
 * A reader that is unplugged again while it is reopened stays closed under its handle, and calls report that.
 * Opening it returns the same handle.
 */
static void check_kept_reader(void) {
    assert_int_equal(GVUSB_GetDeviceHnd(reader_id(1)), kept_handle);
    const int result = exchange(kept_handle);
    if (result == GVUSB_ERR_NOT_OPENED) {
        assert_int_equal(GVUSB_CloseDevice(kept_handle), 0);
        assert_int_equal(GVUSB_OpenDevice(reader_id(1)), kept_handle);
    } else if (result <= 0) {
        fail_msg("the exchange with the open reader returned %d", result);
    }
    check_echo(kept_handle);
}

/* A real kernel keeps its readers open regardless of the users. */
static bool has_returned_everything(void* reader) {
    const int number = *(const int*)reader;
    return !bus_is_emulated() || host_count(number, "opens") == host_count(number, "closes");
}

static void NothingIsLostWhileReadersComeAndGo(void** state) {
    static unsigned int seeds[2] = {1, 2};
    pthread_t users[2];
    forget_problems();
    long descriptors = descriptors_without_polls();
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"), 0);
    kept_handle = open_reader(reader_id(1));
    atomic_store(&scans, 1);
    forget_events();
    assert_true(record_events());
    atomic_store(&working, true);
    for (int i = 0; i < 2; ++i) {
        assert_int_equal(pthread_create(&users[i], NULL, use_readers, &seeds[i]), 0);
    }
    const int cycles = wanted_cycles();
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const int reader = 1 + cycle % readers;
        bus("unplug %d", reader);
        bus("plug %d", reader);
    }
    atomic_store(&working, false);
    pthread_join(users[0], NULL);
    pthread_join(users[1], NULL);
    check_no_problems();

    /* Each scan starts a new period of reports; the first period began before it. */
    assert_true(stop_recording());
    for (int reader = 1; reader <= readers; ++reader) {
        assert_in_range(events_about(GVUSB_EVENT_CONNECT, reader_id(reader)), 0, atomic_load(&scans) + 1);
        assert_in_range(events_about(GVUSB_EVENT_DISCONNECT, reader_id(reader)), 0, atomic_load(&scans) + 1);
    }
    print_message("%d cycles, %d scans, %d events\n", cycles, atomic_load(&scans), event_count());

    await_all_changes();
    scan_until(readers);
    check_kept_reader();
    for (int reader = 2; reader <= readers; ++reader) {
        bus("flush %d", reader);
        check_echo(open_reader(reader_id(reader)));
    }
    for (int handle; (handle = GVUSB_GetDeviceList(0)) != 0;) {
        assert_int_equal(GVUSB_CloseDevice(handle), 0);
    }
    GVUSB_ClearScanList();
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), 0);
    for (int reader = 1; reader <= readers; ++reader) {
        assert_true(await(has_returned_everything, &reader, long_enough_ms));
    }
    if (!await(has_descriptors, &descriptors, long_enough_ms)) {
        fail_msg("%ld descriptors are left of %ld", own_figures().descriptors, descriptors);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(FourThreadsExchangeWhileOneScans),
        TEST_CASE(ThreadsThatShareAReaderGetTheirOwnAnswers),
        TEST_CASE(ThreadsOpenAndCloseDifferentReaders),
        TEST_CASE(ThreadsThatScanAndOpenGetTheReaderThatTheySearchedFor),
        TEST_CASE(APresentReaderOpensDuringConcurrentScans),
        TEST_CASE(NothingIsLostWhileReadersComeAndGo),
    };
    return run_group("threads", tests, sizeof tests / sizeof *tests, argc, argv);
}
