/* Hot-plug in mode 1, where the library polls the bus. */
#include "events.h"
#include "handler_calls.h"
#include "program.h"
#include "testing.h"

#include <string.h>
#include <unistd.h>

/*
 * The readers as described in CMakeLists.txt, by number. The watcher cannot identify itself, so every poll
 * treats it as new and makes two requests to it: for its languages and for its ID.
 */
enum { desk = 1, gate, watcher, usable = 2, transfers_per_poll = 2 };
enum { desk_id = 0xA1, gate_id = 0xB2, newcomer_id = 0x77 };

static struct program_run run;

static bool has_transfers(void* wanted) {
    return host_count(watcher, "transfers") >= *(const long*)wanted;
}

static void await_poll(int polls) {
    long wanted = host_count(watcher, "transfers") + polls * transfers_per_poll;
    assert_true(await(has_transfers, &wanted, long_enough_ms));
}

/* Once the second poll from now has begun, every change before this call has been reported. */
static void await_polls(void) {
    await_poll(2);
}

static void resume_polling(void) {
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "10000"), 0);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"), 0);
}

/* Scan all readers, so that none of them is reported again. */
static int scan_and_record(void** state) {
    resume_polling();
    start_afresh(state);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    await_polls();
    assert_true(record_events());
    forget_events();
    return 0;
}

static int end_recording(void** state) {
    return stop_recording() ? 0 : -1;
}

static void check_event(int index, int kind, int handle, unsigned int id) {
    assert_true(await_events(index + 1));
    const struct event event = recorded_event(index);
    assert_int_equal(event.kind, kind);
    assert_int_equal(event.handle, handle);
    assert_int_equal(event.id, id);
}

static bool answers(void* handle) {
    static const unsigned char frame[] = {5, 4, 3};
    unsigned char answer[16];
    return GVUSB_Transceive(*(const int*)handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer,
                            sizeof answer) == sizeof frame;
}

static void check_answers_again(int handle) {
    assert_true(await(answers, &handle, long_enough_ms));
    check_echo(handle);
}

static void TheModeIsOne(void** state) {
    assert_string_equal(parameter(GVUSB_DRIVER, "HOTPLUG-MODE"), "1");
}

static void NothingIsReportedWhileNothingChanges(void** state) {
    for (int i = 0; i < 3; ++i) {
        await_polls();
    }
    assert_int_equal(event_count(), 0);
}

static void AScannedReaderThatDepartsIsReportedOnceWithItsHandle(void** state) {
    const int handle = GVUSB_OpenDevice(desk_id);
    bus("unplug %d", desk);
    check_event(0, GVUSB_EVENT_DISCONNECT, handle, desk_id);
    await_polls();
    await_polls();
    assert_int_equal(event_count(), 1);
    assert_int_equal(GVUSB_GetDeviceHnd(desk_id), handle);
}

static void AReaderThatIsNotOpenIsReportedToo(void** state) {
    bus("unplug %d", gate);
    assert_true(await_events(1));
    const struct event event = recorded_event(0);
    assert_int_equal(event.kind, GVUSB_EVENT_DISCONNECT);
    assert_int_equal(event.id, gate_id);
    assert_true(event.handle > 0);
}

static void AnOpenReaderThatReturnsKeepsItsHandle(void** state) {
    const int handle = GVUSB_OpenDevice(desk_id);
    const int other = GVUSB_OpenDevice(gate_id);
    check_echo(handle);
    bus("unplug %d", desk);
    check_event(0, GVUSB_EVENT_DISCONNECT, handle, desk_id);
    check_echo(other);
    bus("plug %d", desk);
    check_answers_again(handle);
    assert_int_equal(GVUSB_GetDeviceHnd(desk_id), handle);
    assert_int_equal(GVUSB_IsDevicePresent(handle), 1);
    assert_int_equal(GVUSB_GetScanListSize(), usable);
    await_polls();
    assert_int_equal(event_count(), 1);
    check_echo(other);
}

static void AClosedReaderThatReturnsIsOpenedWithoutAScan(void** state) {
    bus("unplug %d", desk);
    assert_true(await_events(1));
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
    bus("plug %d", desk);
    await_polls();
    await_polls();
    check_echo(GVUSB_OpenDevice(desk_id));
    assert_int_equal(event_count(), 1);
}

static void AReplugWithinOnePollIsReportedAsADeparture(void** state) {
    const int handle = GVUSB_OpenDevice(desk_id);
    check_echo(handle);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), 0);
    bus("replug %d", desk);
    resume_polling();
    check_event(0, GVUSB_EVENT_DISCONNECT, handle, desk_id);
    check_answers_again(handle);
    await_polls();
    assert_int_equal(event_count(), 1);
}

static void EachDirectionIsReportedOnceUntilTheNextScan(void** state) {
    const int handle = GVUSB_OpenDevice(desk_id);
    for (int scans = 1; scans <= 3; ++scans) {
        for (int i = 0; i < 3; ++i) {
            bus("unplug %d", desk);
            await_polls();
            await_polls();
            bus("plug %d", desk);
            check_answers_again(handle);
            await_polls();
        }
        assert_int_equal(events_about(GVUSB_EVENT_DISCONNECT, desk_id), scans);
        assert_int_equal(event_count(), scans);
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    }
}

static void scan_in_handler(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
}

struct wanted_events {
    int kind;
    int count;
};

static bool has_events_about_desk(void* context) {
    const struct wanted_events* const wanted = context;
    return events_about(wanted->kind, desk_id) >= wanted->count;
}

static void check_desk_events(int kind, int count) {
    struct wanted_events wanted = {kind, count};
    assert_true(await(has_events_about_desk, &wanted, long_enough_ms));
    await_polls();
    assert_int_equal(events_about(kind, desk_id), count);
}

static bool all_are_scanned(void* nothing) {
    (void)nothing;
    return GVUSB_GetScanListSize() == usable;
}

static void await_desk(int handle) {
    check_answers_again(handle);
    assert_true(await(all_are_scanned, NULL, long_enough_ms));
    await_polls();
}

/* A poll between the unplug and the plug of a replug also reports the arrival. */
static void EveryDepartureIsReportedToAHandlerThatScans(void** state) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, scan_in_handler};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, scan_in_handler};
    const int handle = GVUSB_OpenDevice(desk_id);
    assert_int_equal(GVUSB_AddEventHandler(0, &connect), 0);
    assert_int_equal(GVUSB_AddEventHandler(0, &disconnect), 0);
    int leaves = 0;
    for (int round = 0; round < 3; ++round) {
        bus("replug %d", desk);
        check_desk_events(GVUSB_EVENT_DISCONNECT, ++leaves);
        await_desk(handle);
        bus("unplug %d", desk);
        check_desk_events(GVUSB_EVENT_DISCONNECT, ++leaves);
        const int arrivals = events_about(GVUSB_EVENT_CONNECT, desk_id);
        bus("plug %d", desk);
        check_desk_events(GVUSB_EVENT_CONNECT, arrivals + 1);
        await_desk(handle);
    }
    assert_int_equal(GVUSB_DelEventHandler(0, &connect), 0);
    assert_int_equal(GVUSB_DelEventHandler(0, &disconnect), 0);
}

static void AReaderThatWasNotScannedIsReportedOnceWithoutAHandle(void** state) {
    const int newcomer = plug_new("id=77,name=Newcomer");
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
    bus("unplug %d", newcomer);
    await_polls();
    bus("plug %d", newcomer);
    await_polls();
    await_polls();
    assert_int_equal(event_count(), 1);
    assert_int_equal(GVUSB_GetScanListSize(), usable);

    GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .devId = "B2"};
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    assert_true(await_events(3));
    assert_int_equal(events_about(GVUSB_EVENT_CONNECT, newcomer_id), 2);
    assert_int_equal(events_about(GVUSB_EVENT_CONNECT, desk_id), 1);
    assert_int_equal(events_about(GVUSB_EVENT_CONNECT, gate_id), 0);
}

static void AReaderIsReportedOnceItBecomesReadable(void** state) {
    const int newcomer = plug_new("id=77,plugged=no");
    bus("fail-string %d 1 on", newcomer);
    bus("plug %d", newcomer);
    await_polls();
    await_polls();
    assert_int_equal(event_count(), 0);
    bus("fail-string %d 1 off", newcomer);
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
}

static void OtherDevicesAreNotReported(void** state) {
    plug_new("id=78,vendor=0x1234");
    plug_new("id=79,product=5");
    plug_new("id=77");
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
    await_polls();
    assert_int_equal(event_count(), 1);
}

static void AHandlerMayCallTheLibraryOnArrival(void** state) {
    do_in_next_handler(call_everything);
    plug_new("id=77");
    assert_true(await_action_done());
    assert_null(failed_handler_call());
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
}

static void AHandlerMayCallTheLibraryOnDeparture(void** state) {
    const int handle = GVUSB_OpenDevice(desk_id);
    do_in_next_handler(call_everything);
    bus("unplug %d", desk);
    assert_true(await_action_done());
    assert_null(failed_handler_call());
    check_event(0, GVUSB_EVENT_DISCONNECT, handle, desk_id);
}

static void AHandlerRegisteredTwiceIsCalledOnce(void** state) {
    assert_true(record_events());
    plug_new("id=77");
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
    await_polls();
    assert_int_equal(event_count(), 1);
}

static void ARemovedHandlerIsNotCalled(void** state) {
    assert_true(stop_recording());
    assert_false(stop_recording());
    plug_new("id=77");
    await_polls();
    await_polls();
    assert_int_equal(event_count(), 0);
    assert_true(record_events());
}

static void BadRegistrationsAreRefused(void** state) {
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, NULL};
    assert_int_equal(GVUSB_AddEventHandler(0, NULL), GVUSB_ERR_NULL_POINTER);
    assert_int_equal(GVUSB_AddEventHandler(1, &registration), GVUSB_ERR_UNSUPPORTED_OPTION);
    assert_int_equal(GVUSB_DelEventHandler(-1, &registration), GVUSB_ERR_UNSUPPORTED_OPTION);
    assert_int_equal(GVUSB_DelEventHandler(0, &registration), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(last_error(0), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(GVUSB_AddEventHandler(0, &registration), 0);
    plug_new("id=77");
    check_event(0, GVUSB_EVENT_CONNECT, 0, newcomer_id);
    assert_int_equal(GVUSB_DelEventHandler(0, &registration), 0);
    registration.uiCallbackType = 2;
    assert_int_equal(GVUSB_AddEventHandler(0, &registration), GVUSB_ERR_UNKNOWN_PARAMETER);
}

/* The absence of events cannot be awaited, so let some update intervals pass. */
static void NothingIsReportedWhilePollingIsSuspended(void** state) {
    enum { some_update_rates_us = 150000 };
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), 0);
    /* Let a poll in progress end. */
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    usleep(some_update_rates_us);
    const long transfers = host_count(watcher, "transfers");
    plug_new("id=77");
    bus("unplug %d", desk);
    usleep(some_update_rates_us);
    assert_int_equal(event_count(), 0);
    assert_int_equal(host_count(watcher, "transfers"), transfers);
    resume_polling();
    assert_true(await_events(2));
    assert_int_equal(events_about(GVUSB_EVENT_CONNECT, newcomer_id), 1);
    assert_int_equal(events_about(GVUSB_EVENT_DISCONNECT, desk_id), 1);
}

/* An upper limit of the time would depend on how busy the machine is. */
static void TheUpdateRateIsTheTimeBetweenTwoPolls(void** state) {
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "150000"), 0);
    await_polls();
    const double begin = now_ms();
    await_poll(4);
    assert_true(now_ms() - begin >= 3 * 150);
}

static void AHandlerMayEndTheProgram(void** state) {
    run_program(&run, "gvusb_debuglevel=1 gvusb_updaterate=10", "exit_in_handler", NULL, NULL, NULL);
    if (run.status != 7) {
        fail_msg("ended with %d:\n%s", run.status, run.output);
    }
    assert_non_null(strstr(run.output, "[exit] ... done"));
}

#define HOTPLUG_CASE(function) cmocka_unit_test_setup_teardown(function, scan_and_record, end_recording)

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        HOTPLUG_CASE(TheModeIsOne),
        HOTPLUG_CASE(NothingIsReportedWhileNothingChanges),
        HOTPLUG_CASE(AScannedReaderThatDepartsIsReportedOnceWithItsHandle),
        HOTPLUG_CASE(AReaderThatIsNotOpenIsReportedToo),
        HOTPLUG_CASE(AnOpenReaderThatReturnsKeepsItsHandle),
        HOTPLUG_CASE(AClosedReaderThatReturnsIsOpenedWithoutAScan),
        HOTPLUG_CASE(AReplugWithinOnePollIsReportedAsADeparture),
        HOTPLUG_CASE(EachDirectionIsReportedOnceUntilTheNextScan),
        HOTPLUG_CASE(EveryDepartureIsReportedToAHandlerThatScans),
        HOTPLUG_CASE(AReaderThatWasNotScannedIsReportedOnceWithoutAHandle),
        HOTPLUG_CASE(AReaderIsReportedOnceItBecomesReadable),
        HOTPLUG_CASE(OtherDevicesAreNotReported),
        HOTPLUG_CASE(AHandlerMayCallTheLibraryOnArrival),
        HOTPLUG_CASE(AHandlerMayCallTheLibraryOnDeparture),
        HOTPLUG_CASE(AHandlerRegisteredTwiceIsCalledOnce),
        HOTPLUG_CASE(ARemovedHandlerIsNotCalled),
        HOTPLUG_CASE(BadRegistrationsAreRefused),
        HOTPLUG_CASE(NothingIsReportedWhilePollingIsSuspended),
        HOTPLUG_CASE(TheUpdateRateIsTheTimeBetweenTwoPolls),
        HOTPLUG_CASE(AHandlerMayEndTheProgram),
    };
    return run_group("hotplug_polling", tests, sizeof tests / sizeof *tests, argc, argv);
}
