/* Hot-plug in mode 2, where libusb reports changes while a thread handles its events. */
#include "events.h"
#include "handler_calls.h"
#include "program.h"
#include "testing.h"

#include <libusb.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { desk = 1, gate };
enum { desk_id = 0xA1, gate_id = 0xB2, marker_id = 0xEEEE, newcomer_id = 0x77 };

static struct program_run run;

/* ---- Handling libusb's events */

static void handle_events_once(void) {
    struct timeval longest = {.tv_sec = 0, .tv_usec = 10000};
    libusb_handle_events_timeout_completed(NULL, &longest, NULL);
}

static bool has_events_when_driven(void* wanted) {
    handle_events_once();
    return event_count() >= *(const int*)wanted;
}

static bool drive_until_events(int count) {
    return await(has_events_when_driven, &count, long_enough_ms);
}

static pthread_t driver;
static atomic_bool driving;

static void* drive(void* nothing) {
    while (atomic_load(&driving)) {
        handle_events_once();
    }
    return nothing;
}

static void start_driver(void) {
    atomic_store(&driving, true);
    assert_int_equal(pthread_create(&driver, NULL, drive, NULL), 0);
}

static void stop_driver(void) {
    if (atomic_exchange(&driving, false)) {
        pthread_join(driver, NULL);
    }
}

/* ---- Setup and teardown of each test */

/* Events are reported in order, so once the marker has come and gone, no earlier event is pending. */
static int record_from_now_on(void** state) {
    start_afresh(state);
    assert_true(record_events());
    const int marker = plug_new("id=EEEE,name=Marker");
    bool marker_came = false;
    for (int i = 1; !marker_came; ++i) {
        assert_true(drive_until_events(i));
        marker_came = recorded_event(i - 1).id == marker_id;
    }
    forget_events();
    bus("unplug %d", marker);
    assert_true(drive_until_events(1));
    assert_int_equal(recorded_event(0).kind, GVUSB_EVENT_DISCONNECT);
    forget_events();
    return 0;
}

static int end_recording(void** state) {
    stop_driver();
    return stop_recording() ? 0 : -1;
}

/* A real kernel takes half a second to notice a reader, so repeat fewer times there. */
static int often(int times, int on_a_kernel) {
    return bus_is_emulated() ? times : on_a_kernel;
}

static void check_event(int index, int kind, unsigned int id) {
    const struct event event = recorded_event(index);
    assert_int_equal(event.kind, kind);
    assert_int_equal(event.handle, 0);
    assert_int_equal(event.id, id);
}

static void check_events_come(int count) {
    if (!await_events(count)) {
        fail_msg("%d events came instead of %d", event_count(), count);
    }
}

static void TheModeIsTwo(void** state) {
    assert_string_equal(parameter(GVUSB_DRIVER, "HOTPLUG-MODE"), "2");
}

/* The absence of events cannot be awaited, so let some time pass. */
static void NothingIsReportedUntilAThreadHandlesEvents(void** state) {
    plug_new("id=77");
    usleep(200000);
    assert_int_equal(event_count(), 0);
    assert_true(drive_until_events(1));
    check_event(0, GVUSB_EVENT_CONNECT, newcomer_id);
}

static bool has_events_when_exchanging(void* handle) {
    check_echo(*(const int*)handle);
    return event_count() > 0;
}

static void AnExchangeDeliversEventsToo(void** state) {
    int handle = open_reader(desk_id);
    check_echo(handle);
    plug_new("id=77");
    assert_true(await(has_events_when_exchanging, &handle, long_enough_ms));
    check_event(0, GVUSB_EVENT_CONNECT, newcomer_id);
}

static void EveryArrivalAndDepartureIsReported(void** state) {
    start_driver();
    for (int i = 0; i < 5; ++i) {
        bus("unplug %d", desk);
        check_events_come(2 * i + 1);
        check_event(2 * i, GVUSB_EVENT_DISCONNECT, 0);
        bus("plug %d", desk);
        check_events_come(2 * i + 2);
        check_event(2 * i + 1, GVUSB_EVENT_CONNECT, desk_id);
    }
}

static void EventsAreReportedInOrder(void** state) {
    enum { most = 20 };
    const int count = often(most, 4);
    int readers[most];
    start_driver();
    for (int i = 0; i < count; ++i) {
        readers[i] = atoi(bus("plug id=%X", 0x100 + i));
    }
    check_events_come(count);
    for (int i = 0; i < count; ++i) {
        check_event(i, GVUSB_EVENT_CONNECT, 0x100 + (unsigned int)i);
    }
    forget_events();
    for (int i = 0; i < count; ++i) {
        bus("unplug %d", readers[i]);
    }
    plug_new("id=77");
    check_events_come(count + 1);
    for (int i = 0; i < count; ++i) {
        check_event(i, GVUSB_EVENT_DISCONNECT, 0);
    }
    check_event(count, GVUSB_EVENT_CONNECT, newcomer_id);
}

static void AnUnreadableReaderIsReportedOnlyOnDeparture(void** state) {
    start_driver();
    const int unreadable = plug_new("missing=1");
    plug_new("id=77");
    check_events_come(1);
    check_event(0, GVUSB_EVENT_CONNECT, newcomer_id);
    bus("unplug %d", unreadable);
    check_events_come(2);
    check_event(1, GVUSB_EVENT_DISCONNECT, 0);
}

static void OtherVendorsDevicesAreNotReported(void** state) {
    start_driver();
    const int foreign = plug_new("id=78,vendor=0x1234");
    bus("unplug %d", foreign);
    plug_new("id=77");
    check_events_come(1);
    check_event(0, GVUSB_EVENT_CONNECT, newcomer_id);
}

static void AHandlerMayCallTheLibraryOnArrival(void** state) {
    start_driver();
    do_in_next_handler(call_everything);
    plug_new("id=77");
    assert_true(await_action_done());
    assert_null(failed_handler_call());
}

static void AHandlerMayCallTheLibraryOnDeparture(void** state) {
    start_driver();
    do_in_next_handler(call_everything);
    bus("unplug %d", desk);
    assert_true(await_action_done());
    assert_null(failed_handler_call());
}

static void AHandlerMayCallTheLibraryWhenAnExchangeDeliversTheEvent(void** state) {
    int handle = open_reader(desk_id);
    do_in_next_handler(call_everything);
    plug_new("id=77");
    assert_true(await(has_events_when_exchanging, &handle, long_enough_ms));
    assert_true(await_action_done());
    assert_null(failed_handler_call());
}

static atomic_bool exchanging;
static atomic_int failed_exchanges;
static atomic_int good_exchanges;

static void* exchange_without_pause(void* argument) {
    const int handle = *(const int*)argument;
    unsigned char frame[] = {1, 2, 3, 4};
    unsigned char answer[16];
    while (atomic_load(&exchanging)) {
        ++frame[0];
        const int count =
            GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
        const bool good = count == sizeof frame && memcmp(answer, frame, sizeof frame) == 0;
        atomic_fetch_add(good ? &good_exchanges : &failed_exchanges, 1);
    }
    return NULL;
}

static bool has_exchanged(void* times) {
    return atomic_load(&good_exchanges) > *(const int*)times;
}

static void replug_gate_while_exchanging(int times) {
    int handle = open_reader(desk_id);
    pthread_t thread;
    atomic_store(&exchanging, true);
    atomic_store(&good_exchanges, 0);
    atomic_store(&failed_exchanges, 0);
    assert_int_equal(pthread_create(&thread, NULL, exchange_without_pause, &handle), 0);
    bool all_came = true;
    for (int i = 0; i < times && all_came; ++i) {
        bus("unplug %d", gate);
        all_came &= await_events(2 * i + 1);
        bus("plug %d", gate);
        all_came &= await_events(2 * i + 2);
    }
    const bool exchanged = await(has_exchanged, &times, long_enough_ms);
    atomic_store(&exchanging, false);
    pthread_join(thread, NULL);
    assert_true(all_came);
    assert_true(exchanged);
    assert_int_equal(events_about(GVUSB_EVENT_CONNECT, gate_id), times);
    assert_int_equal(events_about(GVUSB_EVENT_DISCONNECT, 0), times);
    assert_int_equal(atomic_load(&failed_exchanges), 0);
}

static void EventsAreReportedDuringContinuousExchangesOfAnotherThread(void** state) {
    start_driver();
    replug_gate_while_exchanging(often(50, 5));
}

static void ContinuousExchangesDeliverEvents(void** state) {
    replug_gate_while_exchanging(often(50, 5));
}

/* ---- The delay from libusb's callback to the application's handler */

static double delivery_time;

static int LIBUSB_CALL note_delivery(libusb_context* context, libusb_device* device,
                                     libusb_hotplug_event event, void* data) {
    (void)context;
    (void)device;
    (void)event;
    (void)data;
    delivery_time = now_ms();
    return 0;
}

static void HandlersAreCalledSoonAfterLibusbsCallback(void** state) {
    const int times = often(20, 4);
    double longest = 0;
    double sum = 0;
    libusb_hotplug_callback_handle callback;
    assert_int_equal(libusb_hotplug_register_callback(
                         NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0, LIBUSB_HOTPLUG_MATCH_ANY,
                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, note_delivery, NULL, &callback),
                     0);
    for (int i = 0; i < times; ++i) {
        forget_events();
        delivery_time = 0;
        bus("replug %d", gate);
        assert_true(drive_until_events(2));
        check_event(1, GVUSB_EVENT_CONNECT, gate_id);
        assert_true(delivery_time > 0);
        const double taken = recorded_event(1).time - delivery_time;
        longest = taken > longest ? taken : longest;
        sum += taken;
    }
    libusb_hotplug_deregister_callback(NULL, callback);
    print_message("from callback to handler: %.2f ms on average, %.2f ms at most\n", sum / times, longest);
    assert_true(longest < long_enough_ms);
}

/* ---- The end of the program */

static void AHandlerMayEndTheProgram(void** state) {
    run_program(&run, "gvusb_debuglevel=1 gvusb_hotplug=2", "exit_in_handler", NULL, NULL, NULL);
    if (run.status != 7) {
        fail_msg("ended with %d:\n%s", run.status, run.output);
    }
    assert_non_null(strstr(run.output, "[exit] ... done"));
}

static void QueuedEventsAreDroppedAtTheEnd(void** state) {
    run_program(&run, "gvusb_debuglevel=0 gvusb_hotplug=2", "unload_with_events_queued", NULL, NULL, NULL);
    assert_int_equal(run.status, 0);
    assert_string_equal(run.output, "handler\n");
}

#define HOTPLUG_CASE(function) cmocka_unit_test_setup_teardown(function, record_from_now_on, end_recording)

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        HOTPLUG_CASE(TheModeIsTwo),
        HOTPLUG_CASE(NothingIsReportedUntilAThreadHandlesEvents),
        HOTPLUG_CASE(AnExchangeDeliversEventsToo),
        HOTPLUG_CASE(EveryArrivalAndDepartureIsReported),
        HOTPLUG_CASE(EventsAreReportedInOrder),
        HOTPLUG_CASE(AnUnreadableReaderIsReportedOnlyOnDeparture),
        HOTPLUG_CASE(OtherVendorsDevicesAreNotReported),
        HOTPLUG_CASE(AHandlerMayCallTheLibraryOnArrival),
        HOTPLUG_CASE(AHandlerMayCallTheLibraryOnDeparture),
        HOTPLUG_CASE(AHandlerMayCallTheLibraryWhenAnExchangeDeliversTheEvent),
        HOTPLUG_CASE(EventsAreReportedDuringContinuousExchangesOfAnotherThread),
        HOTPLUG_CASE(ContinuousExchangesDeliverEvents),
        HOTPLUG_CASE(HandlersAreCalledSoonAfterLibusbsCallback),
        HOTPLUG_CASE(AHandlerMayEndTheProgram),
        HOTPLUG_CASE(QueuedEventsAreDroppedAtTheEnd),
    };
    return run_group("hotplug_callbacks", tests, sizeof tests / sizeof *tests, argc, argv);
}
