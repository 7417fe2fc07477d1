// Uses the emulated bus with bare libusb, without the gvusb library: a failure here is the bus's fault.
//
//   gvusb-emulate [READERS] -- bare_libusb CASE
//
// Reader 1 is the default bulk reader and reader 2 the default control reader, unless the case says
// otherwise.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <libusb.h>

enum { vendor_id = GVUSB_VENDOR_ID, bulk_product = 1, control_product = 2 };
enum { bulk_in = 0x81, bulk_out = 0x02, patience = 2000, moment = 100 };
enum { to_reader = 0x40, from_reader = 0xC0 };

static int failures;

static void expect(const char* what, long got, long wanted) {
    if (got == wanted) {
        return;
    }
    ++failures;
    fprintf(stderr, "%s: %ld instead of %ld\n", what, got, wanted);
}

static void expect_text(const char* what, const char* got, const char* wanted) {
    if (strcmp(got, wanted) == 0) {
        return;
    }
    ++failures;
    fprintf(stderr, "%s: \"%s\" instead of \"%s\"\n", what, got, wanted);
}

static long milliseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static void pause_for(long duration) {
    const struct timespec time = {.tv_sec = duration / 1000, .tv_nsec = duration % 1000 * 1000000};
    nanosleep(&time, NULL);
}

// Send a command to the bus and store its answer in `answer`.
static void ask(const char* command, char* answer, size_t size) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    snprintf(address.sun_path, sizeof address.sun_path, "%s", getenv("GVUSB_EMULATE_SOCKET"));
    char line[512];
    const int length = snprintf(line, sizeof line, "%s\n", command);
    const int channel = socket(AF_UNIX, SOCK_STREAM, 0);
    size_t got = 0;
    if (connect(channel, (const struct sockaddr*)&address, sizeof address) == 0 &&
        send(channel, line, (size_t)length, 0) == length) {
        while (got < size - 1) {
            const ssize_t count = recv(channel, answer + got, size - 1 - got, 0);
            if (count <= 0) {
                break;
            }
            got += (size_t)count;
            if (answer[got - 1] == '\n') {
                --got;
                break;
            }
        }
    }
    answer[got] = '\0';
    close(channel);
}

static void tell(const char* command) {
    char answer[256];
    ask(command, answer, sizeof answer);
    expect_text(command, answer, "ok");
}

// The number after "NAME=" in the answer to "counts".
static long counted(int reader, const char* name) {
    char command[32];
    char answer[512];
    char pattern[64];
    snprintf(command, sizeof command, "counts %d", reader);
    snprintf(pattern, sizeof pattern, " %s=", name); // the answer begins with "ok "
    ask(command, answer, sizeof answer);
    const char* found = strstr(answer, pattern);
    return found == NULL ? -1 : strtol(found + strlen(pattern), NULL, 10);
}

static libusb_device_handle* open_product(int product) {
    return libusb_open_device_with_vid_pid(NULL, vendor_id, (uint16_t)product);
}

static libusb_device_handle* open_claimed(int product) {
    libusb_device_handle* handle = open_product(product);
    if (handle == NULL) {
        fprintf(stderr, "product %d cannot be opened\n", product);
        exit(EXIT_FAILURE);
    }
    expect("claim", libusb_claim_interface(handle, 0), 0);
    return handle;
}

static int bulk(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
                int* moved, unsigned timeout) {
    *moved = -1;
    return libusb_bulk_transfer(handle, endpoint, data, length, moved, timeout);
}

static void fill(unsigned char* data, size_t length, unsigned seed) {
    for (size_t i = 0; i < length; ++i) {
        data[i] = (unsigned char)(i * 7 + i / 251 + seed);
    }
}

static void expect_bulk_echo(libusb_device_handle* handle, int length, int capacity) {
    static unsigned char out[65536];
    static unsigned char in[65536];
    int moved;
    fill(out, (size_t)length, (unsigned)length);
    memset(in, 0, sizeof in);
    expect("bulk out", bulk(handle, bulk_out, out, length, &moved, patience), 0);
    expect("bytes out", moved, length);
    expect("bulk in", bulk(handle, bulk_in, in, capacity, &moved, patience), 0);
    expect("bytes in", moved, length);
    expect("echo differs", memcmp(out, in, (size_t)length), 0);
}

// Listed in addition to the readers.
enum { root_hubs = 1 };

static long list_size(void) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    if (count >= 0) {
        libusb_free_device_list(list, 1);
    }
    return count;
}

// A udev event that is still under way updates the list.
static void await_list_size(long wanted) {
    const long end = milliseconds() + patience;
    while (list_size() != wanted && milliseconds() < end) {
        pause_for(1);
    }
    expect("devices on the bus", list_size(), wanted);
}

static void lists_both_readers(void) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    expect("devices", count, 2 + root_hubs);
    unsigned seen = 0;
    for (ssize_t i = 0; i < count; ++i) {
        struct libusb_device_descriptor device;
        struct libusb_config_descriptor* configuration;
        expect("device descriptor", libusb_get_device_descriptor(list[i], &device), 0);
        if (device.bDeviceClass == LIBUSB_CLASS_HUB) {
            continue;
        }
        expect("vendor", device.idVendor, vendor_id);
        expect("bus", libusb_get_bus_number(list[i]), 1);
        expect("speed", libusb_get_device_speed(list[i]), LIBUSB_SPEED_FULL);
        expect("configuration descriptor", libusb_get_config_descriptor(list[i], 0, &configuration), 0);
        expect("configuration value", configuration->bConfigurationValue, 1);
        expect("endpoints", configuration->interface[0].altsetting[0].bNumEndpoints,
               device.idProduct == bulk_product ? 2 : 0);
        libusb_free_config_descriptor(configuration);
        seen |= 1U << device.idProduct;
    }
    expect("products 1 and 2", seen, 1U << bulk_product | 1U << control_product);
    libusb_free_device_list(list, 1);
}

// As in the kernel: device 1 of the bus, parent of the readers.
static void begins_with_a_root_hub(void) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    expect("devices", count, 2 + root_hubs);
    for (ssize_t i = 0; i < count; ++i) {
        struct libusb_device_descriptor device;
        struct libusb_config_descriptor* configuration;
        expect("device descriptor", libusb_get_device_descriptor(list[i], &device), 0);
        const bool hub = libusb_get_device_address(list[i]) == 1;
        expect("class", device.bDeviceClass == LIBUSB_CLASS_HUB, hub);
        expect("parent", libusb_get_parent(list[i]) == NULL, hub);
        expect("port", libusb_get_port_number(list[i]) == 0, hub);
        expect("configuration descriptor", libusb_get_active_config_descriptor(list[i], &configuration), 0);
        libusb_free_config_descriptor(configuration);
        if (hub) {
            expect("vendor", device.idVendor, 0x1D6B);
            expect("speed", libusb_get_device_speed(list[i]), LIBUSB_SPEED_HIGH);
        }
    }
    libusb_free_device_list(list, 1);
}

static void reads_strings(void) {
    libusb_device_handle* handle = open_product(bulk_product);
    unsigned char text[256];
    const struct {
        uint8_t index;
        const char* text;
    } strings[] = {{1, "1A2B3C"}, {3, "Virtual"}, {5, "Virtual Bulk Reader"}, {6, "TESK RCI2"}, {10, "100"}};
    for (size_t i = 0; i < sizeof strings / sizeof strings[0]; ++i) {
        expect("string length",
               libusb_get_string_descriptor_ascii(handle, strings[i].index, text, sizeof text),
               (long)strlen(strings[i].text));
        expect_text("string", (const char*)text, strings[i].text);
    }
    expect("missing string", libusb_get_string_descriptor_ascii(handle, 9, text, sizeof text),
           LIBUSB_ERROR_PIPE);
    tell("string 1 5 Another name");
    expect("changed string", libusb_get_string_descriptor_ascii(handle, 5, text, sizeof text), 12);
    tell("fail-string 1 5 on");
    expect("unreadable string", libusb_get_string_descriptor_ascii(handle, 5, text, sizeof text),
           LIBUSB_ERROR_PIPE);
    tell("fail-string 1 5 off");
    expect("readable again", libusb_get_string_descriptor_ascii(handle, 5, text, sizeof text), 12);
    libusb_close(handle);
}

static void echoes_over_bulk(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    const int lengths[] = {1, 2, 63, 64, 65, 128, 511, 512, 513, 4096, 16384, 16385, 65535, 65536};
    for (size_t i = 0; i < sizeof lengths / sizeof lengths[0]; ++i) {
        expect_bulk_echo(handle, lengths[i], lengths[i]);
        expect_bulk_echo(handle, lengths[i], 65536);
    }
    libusb_close(handle);
}

static void echoes_over_control(void) {
    libusb_device_handle* handle = open_claimed(control_product);
    static unsigned char out[4096];
    static unsigned char in[4096];
    const uint16_t lengths[] = {1, 2, 7, 8, 9, 63, 64, 65, 1000, 4095, 4096};
    for (size_t i = 0; i < sizeof lengths / sizeof lengths[0]; ++i) {
        fill(out, lengths[i], lengths[i]);
        memset(in, 0, sizeof in);
        expect("control out", libusb_control_transfer(handle, to_reader, 0, 0, 0, out, lengths[i], patience),
               lengths[i]);
        expect("control in", libusb_control_transfer(handle, from_reader, 0, 0, 0, in, sizeof in, patience),
               lengths[i]);
        expect("echo differs", memcmp(out, in, lengths[i]), 0);
    }
    expect("unknown request", libusb_control_transfer(handle, to_reader, 1, 0, 0, out, 1, patience),
           LIBUSB_ERROR_PIPE);
    libusb_close(handle);
}

static void times_out(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64] = "frame";
    int moved;
    const long start = milliseconds();
    expect("nothing to read", bulk(handle, bulk_in, data, sizeof data, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    const long passed = milliseconds() - start;
    expect("timed out", passed >= moment && passed < patience, 1);
    tell("mute 1 out");
    expect("mute out", bulk(handle, bulk_out, data, 5, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    expect("bytes of a mute out", moved, 0);
    tell("unmute 1 out");
    tell("mute 1 in");
    expect("out while in is mute", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    expect("mute in", bulk(handle, bulk_in, data, sizeof data, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    tell("unmute 1 in");
    expect("mute reader does not answer later", bulk(handle, bulk_in, data, sizeof data, &moved, moment),
           LIBUSB_ERROR_TIMEOUT);
    expect_bulk_echo(handle, 5, 64);
    expect("cancelled transfers", counted(1, "cancels"), 4);
    libusb_close(handle);

    handle = open_claimed(control_product);
    expect("nothing to read by control",
           libusb_control_transfer(handle, from_reader, 0, 0, 0, data, 64, moment), LIBUSB_ERROR_TIMEOUT);
    tell("mute 2 control");
    expect("string of a mute reader", libusb_get_string_descriptor_ascii(handle, 1, data, sizeof data),
           LIBUSB_ERROR_TIMEOUT);
    tell("unmute 2 control");
    expect("string", libusb_get_string_descriptor_ascii(handle, 1, data, sizeof data), 6);
    libusb_close(handle);
}

static void stalls_until_halt_is_cleared(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64] = "frame";
    int moved;
    tell("stall 1 out");
    expect("stalled out", bulk(handle, bulk_out, data, 5, &moved, patience), LIBUSB_ERROR_PIPE);
    expect("still stalled", bulk(handle, bulk_out, data, 5, &moved, patience), LIBUSB_ERROR_PIPE);
    expect("clear halt", libusb_clear_halt(handle, bulk_out), 0);
    expect_bulk_echo(handle, 5, 64);
    expect("halts cleared", counted(1, "clear-halts"), 1);
    tell("stall 1 0x81 stuck");
    expect("clear stuck halt", libusb_clear_halt(handle, bulk_in), 0);
    expect("stuck", bulk(handle, bulk_in, data, sizeof data, &moved, patience), LIBUSB_ERROR_PIPE);
    tell("unstall 1 0x81");
    expect_bulk_echo(handle, 5, 64);
    expect("halt of a missing endpoint", libusb_clear_halt(handle, 0x85), LIBUSB_ERROR_NOT_FOUND);
    tell("stall 1 control");
    expect("stalled string", libusb_get_string_descriptor_ascii(handle, 1, data, sizeof data),
           LIBUSB_ERROR_PIPE);
    tell("unstall 1 control");
    libusb_close(handle);
}

static void answers_late_short_or_too_much(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[128];
    int moved;
    fill(data, sizeof data, 0);
    tell("delay 1 in 200");
    const long start = milliseconds();
    expect_bulk_echo(handle, 5, 64);
    expect("waited for the answer", milliseconds() - start >= 200, 1);
    tell("delay 1 in 0");
    tell("short 1 in 3");
    expect("out", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    expect("short in", bulk(handle, bulk_in, data, 64, &moved, patience), 0);
    expect("bytes of a short in", moved, 3);
    tell("short 1 in off");
    tell("short 1 out 2");
    expect("short out", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    expect("bytes of a short out", moved, 2);
    tell("short 1 out off");
    tell("flush 1");
    expect("out", bulk(handle, bulk_out, data, 64, &moved, patience), 0);
    expect("buffer smaller than the packet", bulk(handle, bulk_in, data, 10, &moved, patience),
           LIBUSB_ERROR_OVERFLOW);
    expect("out", bulk(handle, bulk_out, data, 100, &moved, patience), 0);
    expect("buffer for one packet", bulk(handle, bulk_in, data, 64, &moved, patience), 0);
    expect("first packet", moved, 64);
    expect("the rest", bulk(handle, bulk_in, data, 64, &moved, patience), 0);
    expect("second packet", moved, 36);
    tell("reply 1 fixed:0102FF");
    expect("out", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    expect("fixed answer", bulk(handle, bulk_in, data, 64, &moved, patience), 0);
    expect("its bytes", moved == 3 && memcmp(data, "\x01\x02\xFF", 3) == 0, 1);
    libusb_close(handle);
}

static void note_completion(struct libusb_transfer* transfer) {
    *(int*)transfer->user_data = 1;
}

static void acts_by_rules(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64];
    int moved;
    tell("push 1 0102FF");
    expect("pushed frame", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("its bytes", moved == 3 && memcmp(data, "\x01\x02\xFF", 3) == 0, 1);
    tell("on 1 01 02 reply 9000");
    tell("on 1 03 delay 200");
    tell("on 1 04 stall");
    tell("on 1 05 mute");
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\1\2\3", 3, &moved, patience), 0);
    expect("reply", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("its bytes", moved == 2 && memcmp(data, "\x90\0", 2) == 0, 1);
    const long start = milliseconds();
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\3", 1, &moved, patience), 0);
    expect("late answer", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("waited for the answer", milliseconds() - start >= 200, 1);
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\4", 1, &moved, patience), 0);
    expect("stall", bulk(handle, bulk_in, data, sizeof data, &moved, patience), LIBUSB_ERROR_PIPE);
    expect("clear halt", libusb_clear_halt(handle, bulk_in), 0);
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\5", 1, &moved, patience), 0);
    expect("no answer", bulk(handle, bulk_in, data, sizeof data, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    tell("on 1 off");
    tell("jitter 1 200-210");
    const long again = milliseconds();
    expect_bulk_echo(handle, 5, 64);
    expect("waited for the answer", milliseconds() - again >= 200, 1);
    libusb_close(handle);
}

static void unplugs_itself(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64];
    int moved;
    tell("on 1 DEAD unplug");
    expect_bulk_echo(handle, 5, 64);
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\xDE\xAD", 2, &moved, patience), 0);
    const int received = bulk(handle, bulk_in, data, sizeof data, &moved, patience);
    expect("in", received, LIBUSB_ERROR_NO_DEVICE);
    await_list_size(1 + root_hubs);
    libusb_close(handle);
    tell("plug 1");
    await_list_size(2 + root_hubs);
    handle = open_claimed(bulk_product);
    expect_bulk_echo(handle, 5, 64);
    libusb_close(handle);
}

static void fails_single_transfers(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64] = "frame";
    int moved;
    tell("fail 1 out 2");
    expect_bulk_echo(handle, 5, 64);
    expect("second out", bulk(handle, bulk_out, data, 5, &moved, patience), LIBUSB_ERROR_PIPE);
    expect("clear halt", libusb_clear_halt(handle, bulk_out), 0);
    tell("fail 1 in 1 mute");
    expect("out", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    expect("mute in", bulk(handle, bulk_in, data, sizeof data, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    expect_bulk_echo(handle, 5, 64);
    tell("chance 1 in 100 corrupt");
    expect("out", bulk(handle, bulk_out, (unsigned char*)"\1\2\3", 3, &moved, patience), 0);
    expect("corrupt in", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("its bytes", moved == 3 && memcmp(data, "\1\2\3", 3) != 0, 1);
    tell("chance 1 in off");
    expect_bulk_echo(handle, 5, 64);
    libusb_close(handle);
}

// Reader 1 takes frames of several transfers.
static void sends_long_frames(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[256];
    int moved;
    fill(data, sizeof data, 0);
    expect("first part", bulk(handle, bulk_out, data, 128, &moved, patience), 0);
    expect("no answer yet", bulk(handle, bulk_in, data, sizeof data, &moved, moment), LIBUSB_ERROR_TIMEOUT);
    expect("last part", bulk(handle, bulk_out, data + 128, 100, &moved, patience), 0);
    expect("answer", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("bytes in", moved, 228);

    struct libusb_transfer* transfer = libusb_alloc_transfer(0);
    int completed = 0;
    libusb_fill_bulk_transfer(transfer, handle, bulk_out, data, 64, note_completion, &completed, patience);
    transfer->flags = LIBUSB_TRANSFER_ADD_ZERO_PACKET;
    expect("submit", libusb_submit_transfer(transfer), 0);
    while (completed == 0) {
        libusb_handle_events_completed(NULL, &completed);
    }
    expect("status", transfer->status, LIBUSB_TRANSFER_COMPLETED);
    libusb_free_transfer(transfer);
    expect("answer", bulk(handle, bulk_in, data, sizeof data, &moved, patience), 0);
    expect("bytes in", moved, 64);
    libusb_close(handle);
}

// Run a command while the main thread is in a transfer.
static void* tell_later(void* command) {
    pause_for(moment);
    tell(command);
    return NULL;
}

static void unplugged_in_flight(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64];
    char command[] = "unplug 1";
    int moved;
    pthread_t thread;
    pthread_create(&thread, NULL, tell_later, command);
    const long start = milliseconds();
    expect("in flight", bulk(handle, bulk_in, data, sizeof data, &moved, 10 * patience),
           LIBUSB_ERROR_NO_DEVICE);
    expect("ended at once", milliseconds() - start < patience, 1);
    pthread_join(thread, NULL);
    expect("out", bulk(handle, bulk_out, data, 1, &moved, patience), LIBUSB_ERROR_NO_DEVICE);
    expect("string", libusb_get_string_descriptor_ascii(handle, 1, data, sizeof data),
           LIBUSB_ERROR_NO_DEVICE);
    expect("clear halt", libusb_clear_halt(handle, bulk_in), LIBUSB_ERROR_NO_DEVICE);
    await_list_size(1 + root_hubs);
    libusb_close(handle);
    expect("opened while away", open_product(bulk_product) == NULL, 1);
}

static void replugged_is_another_device(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    const int address = libusb_get_device_address(libusb_get_device(handle));
    tell("replug 1");
    unsigned char text[64];
    expect("old handle", libusb_get_string_descriptor_ascii(handle, 1, text, sizeof text),
           LIBUSB_ERROR_NO_DEVICE);
    libusb_device_handle* fresh = NULL;
    for (const long end = milliseconds() + patience; fresh == NULL && milliseconds() < end; pause_for(1)) {
        fresh = open_product(bulk_product);
    }
    expect("opened again", fresh != NULL, 1);
    expect("another device", libusb_get_device(fresh) != libusb_get_device(handle), 1);
    expect("another address", libusb_get_device_address(libusb_get_device(fresh)) != address, 1);
    libusb_close(handle);
    expect("claim", libusb_claim_interface(fresh, 0), 0);
    expect_bulk_echo(fresh, 5, 64);
    libusb_close(fresh);
}

struct events {
    int arrived;
    int left;
};

static int count_event(libusb_context* context, libusb_device* device, libusb_hotplug_event event,
                       void* events) {
    (void)context;
    (void)device;
    struct events* count = events;
    if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) {
        ++count->arrived;
    } else {
        ++count->left;
    }
    return 0;
}

static void await_events(const struct events* count, int arrived, int left) {
    const long end = milliseconds() + patience;
    while ((count->arrived < arrived || count->left < left) && milliseconds() < end) {
        struct timeval step = {.tv_sec = 0, .tv_usec = 10000};
        libusb_handle_events_timeout_completed(NULL, &step, NULL);
    }
    expect("arrivals", count->arrived, arrived);
    expect("departures", count->left, left);
}

static void gets_plug_events(void) {
    struct events count = {0, 0};
    libusb_hotplug_callback_handle callback;
    expect("hot-plug", libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0, 1);
    expect("register",
           libusb_hotplug_register_callback(
               NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0, vendor_id,
               LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, count_event, &count, &callback),
           0);
    tell("unplug 1");
    await_events(&count, 0, 1);
    tell("plug 1");
    await_events(&count, 1, 1);
    char answer[64];
    ask("plug id=CAFE,product=3", answer, sizeof answer);
    expect_text("new reader", answer, "ok 3");
    await_events(&count, 2, 1);
    ask("plug id=BEEF,vendor=0x1D6B", answer, sizeof answer);
    expect_text("device of another vendor", answer, "ok 4");
    await_list_size(4 + root_hubs);
    expect("no arrival of another vendor's device", count.arrived, 2);
    tell("unplug all");
    await_events(&count, 2, 4);
    libusb_hotplug_deregister_callback(NULL, callback);
}

static void finds_interface_busy(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    libusb_device_handle* other = open_product(bulk_product);
    expect("claimed by another handle", libusb_claim_interface(other, 0), LIBUSB_ERROR_BUSY);
    expect("missing interface", libusb_claim_interface(other, 5), LIBUSB_ERROR_NOT_FOUND);
    libusb_close(handle);
    expect("claim after close", libusb_claim_interface(other, 0), 0);
    expect("release", libusb_release_interface(other, 0), 0);
    tell("busy 1 on");
    expect("busy", libusb_claim_interface(other, 0), LIBUSB_ERROR_BUSY);
    tell("busy 1 off");
    expect("free", libusb_claim_interface(other, 0), 0);
    libusb_close(other);
    expect("opens", counted(1, "opens"), 2);
    expect("closes", counted(1, "closes"), 2);
}

// Closing without a release frees the interface before libusb_close() returns.
static void frees_interface_at_close(void) {
    enum { rounds = 300 };
    libusb_device_handle* looking = open_product(bulk_product);
    for (int i = 0; i < rounds; ++i) {
        libusb_device_handle* closing = open_claimed(bulk_product);
        libusb_close(closing);
        expect("claim after close", libusb_claim_interface(looking, 0), 0);
        expect("release", libusb_release_interface(looking, 0), 0);
    }
    libusb_close(looking);
}

static void has_kernel_driver(void) {
    libusb_device_handle* handle = open_product(bulk_product);
    expect("no driver", libusb_detach_kernel_driver(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    tell("driver 1 usbhid");
    expect("active", libusb_kernel_driver_active(handle, 0), 1);
    expect("claim with driver", libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    expect("configuration with driver", libusb_set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
    expect("detach", libusb_detach_kernel_driver(handle, 0), 0);
    expect("not active", libusb_kernel_driver_active(handle, 0), 0);
    expect("claim", libusb_claim_interface(handle, 0), 0);
    expect("configuration while claimed", libusb_set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
    expect("release", libusb_release_interface(handle, 0), 0);
    expect("attach", libusb_attach_kernel_driver(handle, 0), 0);
    expect("active again", libusb_kernel_driver_active(handle, 0), 1);
    libusb_close(handle);
}

// Reader 1 is given as configuration=2+1.
static void is_configured(void) {
    libusb_device_handle* handle = open_product(bulk_product);
    int value = -1;
    expect("get configuration", libusb_get_configuration(handle, &value), 0);
    expect("first one's value", value, 2);
    expect("set configuration", libusb_set_configuration(handle, 1), 0);
    expect("get configuration", libusb_get_configuration(handle, &value), 0);
    expect("value", value, 1);
    expect("missing configuration", libusb_set_configuration(handle, 7), LIBUSB_ERROR_NOT_FOUND);
    tell("fail-configuration 1 on");
    expect("refused", libusb_set_configuration(handle, 2), LIBUSB_ERROR_OTHER);
    expect("claim", libusb_claim_interface(handle, 0), 0);
    expect_bulk_echo(handle, 5, 64);
    libusb_close(handle);
}

static void is_reset(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    unsigned char data[64] = "frame";
    int moved;
    expect("out", bulk(handle, bulk_out, data, 5, &moved, patience), 0);
    tell("stall 1 out");
    expect("reset", libusb_reset_device(handle), 0);
    expect("the answer is discarded", bulk(handle, bulk_in, data, sizeof data, &moved, moment),
           LIBUSB_ERROR_TIMEOUT);
    expect_bulk_echo(handle, 5, 64);
    tell("fail-reset 1 on");
    expect("failing reset", libusb_reset_device(handle), LIBUSB_ERROR_OTHER);
    expect("resets", counted(1, "resets"), 2);
    libusb_close(handle);
}

static int open_first(libusb_device_handle** handle) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    int result = LIBUSB_ERROR_NOT_FOUND;
    for (ssize_t i = 0; i < count && result == LIBUSB_ERROR_NOT_FOUND; ++i) {
        if (libusb_get_parent(list[i]) != NULL) {
            result = libusb_open(list[i], handle);
        }
    }
    libusb_free_device_list(list, 1);
    return result;
}

// Needs one reader.
static void is_refused(void) {
    libusb_device_handle* handle = NULL;
    tell("refuse 1 EACCES");
    for (int i = 0; i < 100; ++i) {
        expect("EACCES", open_first(&handle), LIBUSB_ERROR_ACCESS);
    }
    tell("refuse 1 EPERM");
    expect("EPERM", open_first(&handle), LIBUSB_ERROR_IO);
    tell("refuse 1 ENODEV");
    expect("ENODEV", open_first(&handle), LIBUSB_ERROR_IO);
    tell("replug 1");
    pause_for(moment);
    expect("after another plug", open_first(&handle), LIBUSB_ERROR_IO);
    // libusb drops a device whose node does not exist.
    tell("refuse 1 ENOENT");
    expect("ENOENT", open_first(&handle), LIBUSB_ERROR_NO_DEVICE);
    await_list_size(root_hubs);
    tell("replug 1");
    await_list_size(1 + root_hubs);
    tell("refuse 1 off");
    expect("opens by then", counted(1, "opens"), 0);
    expect("opens again", open_first(&handle), 0);
    libusb_close(handle);
    for (int i = 0; i < 100; ++i) {
        open("/dev/bus/usb/001/099", O_RDWR);
    }
    expect("open after many failures", open_first(&handle), 0);
    libusb_close(handle);
}

// A child process uses the other reader, and its end does not affect the reader that this process has open.
static void child_uses_the_bus_too(void) {
    libusb_device_handle* handle = open_claimed(bulk_product);
    const pid_t child = fork();
    if (child == 0) {
        execl("/proc/self/exe", "bare_libusb", "echoes_over_control", (char*)NULL);
        _exit(99);
    }
    int status = -1;
    waitpid(child, &status, 0);
    expect("child's status", status, 0);
    expect_bulk_echo(handle, 5, 64);
    struct events count = {0, 0};
    libusb_hotplug_callback_handle callback;
    libusb_hotplug_register_callback(NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0, vendor_id,
                                     LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, count_event, &count,
                                     &callback);
    tell("unplug 2");
    await_events(&count, 0, 1);
    libusb_close(handle);
}

// Two processes get the event of an unplugging. The second runs this case.
static void waits_for_a_departure(void) {
    struct events count = {0, 0};
    libusb_hotplug_callback_handle callback;
    libusb_hotplug_register_callback(NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0, vendor_id,
                                     LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, count_event, &count,
                                     &callback);
    const ssize_t written = write(STDOUT_FILENO, "ready\n", 6);
    expect("reported ready", written, 6);
    await_events(&count, 0, 1);
}

static void two_processes_get_plug_events(void) {
    int ends[2];
    expect("pipe", pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        execl("/proc/self/exe", "bare_libusb", "waits_for_a_departure", (char*)NULL);
        _exit(99);
    }
    char ready[6];
    expect("child is ready", read(ends[0], ready, sizeof ready), sizeof ready);
    struct events count = {0, 0};
    libusb_hotplug_callback_handle callback;
    libusb_hotplug_register_callback(NULL, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, 0, vendor_id,
                                     LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, count_event, &count,
                                     &callback);
    tell("unplug 1");
    await_events(&count, 0, 1);
    int status = -1;
    waitpid(child, &status, 0);
    expect("child's status", status, 0);
}

static void opens_many_readers(void) {
    enum { readers = 120 };
    libusb_device** list;
    libusb_device_handle* handles[readers];
    expect("devices", libusb_get_device_list(NULL, &list), readers + root_hubs);
    for (int i = 0; i < readers; ++i) {
        expect("open", libusb_open(list[i], &handles[i]), 0);
        expect("claim", libusb_claim_interface(handles[i], 0), 0);
    }
    libusb_free_device_list(list, 1);
    for (int i = 0; i < readers; ++i) {
        expect_bulk_echo(handles[i], i % 64 + 1, 64);
    }
    for (int i = 0; i < readers; ++i) {
        libusb_close(handles[i]);
    }
}

// Buses are added as they fill.
static void opens_a_thousand_of_two_thousand(void) {
    enum { on_the_bus = 2000, per_bus = 126, buses = (on_the_bus + per_bus - 1) / per_bus, opened = 1000 };
    static libusb_device_handle* handles[opened];
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    int next = 0;
    expect("devices", count, on_the_bus + buses);
    for (ssize_t i = 0; i < count && next < opened; ++i) {
        if (libusb_get_parent(list[i]) != NULL) {
            expect("open", libusb_open(list[i], &handles[next]), 0);
            expect("claim", libusb_claim_interface(handles[next], 0), 0);
            ++next;
        }
    }
    libusb_free_device_list(list, 1);
    for (int i = 0; i < opened; i += 37) {
        expect_bulk_echo(handles[i], i % 64 + 1, 64);
    }
    for (int i = 0; i < opened; ++i) {
        libusb_close(handles[i]);
    }
}

static void* open_and_close(void* product) {
    unsigned char text[64];
    for (int i = 0; i < 50; ++i) {
        libusb_device_handle* handle = open_product(*(const int*)product);
        if (handle != NULL) {
            if (libusb_get_string_descriptor_ascii(handle, 1, text, sizeof text) != 6) {
                return product;
            }
            libusb_close(handle);
        }
    }
    return NULL;
}

static void opens_from_two_threads(void) {
    static int products[] = {bulk_product, control_product};
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i) {
        pthread_create(&threads[i], NULL, open_and_close, &products[i]);
    }
    for (int i = 0; i < 2; ++i) {
        void* failed = NULL;
        pthread_join(threads[i], &failed);
        expect("thread failed", failed != NULL, 0);
    }
}

// This program is stopped during more changes than its socket holds events for. The reader that is plugged in
// the end is found.
static void finds_readers_after_being_stopped(void) {
    enum { replugs = 20 };
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) {
        failures = 0;
        kill(self, SIGSTOP);
        if (fork() == 0) {
            pause_for(500);
            kill(self, SIGCONT);
            _exit(0);
        }
        for (int i = 0; i < replugs; ++i) {
            tell("unplug 1");
            tell("plug 1");
        }
        _exit(failures);
    }
    int status = -1;
    while (waitpid(child, &status, 0) < 0) {
    }
    expect("child's status", status, 0);
    libusb_device_handle* handle = NULL;
    for (const long end = milliseconds() + patience; handle == NULL && milliseconds() < end; pause_for(10)) {
        handle = open_product(bulk_product);
    }
    expect("opened", handle != NULL, 1);
    libusb_close(handle);
}

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"lists_both_readers", lists_both_readers},
    {"begins_with_a_root_hub", begins_with_a_root_hub},
    {"reads_strings", reads_strings},
    {"echoes_over_bulk", echoes_over_bulk},
    {"echoes_over_control", echoes_over_control},
    {"times_out", times_out},
    {"stalls_until_halt_is_cleared", stalls_until_halt_is_cleared},
    {"answers_late_short_or_too_much", answers_late_short_or_too_much},
    {"acts_by_rules", acts_by_rules},
    {"unplugs_itself", unplugs_itself},
    {"fails_single_transfers", fails_single_transfers},
    {"sends_long_frames", sends_long_frames},
    {"unplugged_in_flight", unplugged_in_flight},
    {"replugged_is_another_device", replugged_is_another_device},
    {"gets_plug_events", gets_plug_events},
    {"finds_interface_busy", finds_interface_busy},
    {"frees_interface_at_close", frees_interface_at_close},
    {"has_kernel_driver", has_kernel_driver},
    {"is_configured", is_configured},
    {"is_reset", is_reset},
    {"is_refused", is_refused},
    {"child_uses_the_bus_too", child_uses_the_bus_too},
    {"waits_for_a_departure", waits_for_a_departure},
    {"two_processes_get_plug_events", two_processes_get_plug_events},
    {"opens_many_readers", opens_many_readers},
    {"opens_a_thousand_of_two_thousand", opens_a_thousand_of_two_thousand},
    {"opens_from_two_threads", opens_from_two_threads},
    {"finds_readers_after_being_stopped", finds_readers_after_being_stopped},
};

int main(int count, char** arguments) {
    for (size_t i = 0; count == 2 && i < sizeof cases / sizeof cases[0]; ++i) {
        if (strcmp(cases[i].name, arguments[1]) != 0) {
            continue;
        }
        if (libusb_init(NULL) != 0) {
            return EXIT_FAILURE;
        }
        cases[i].run();
        libusb_exit(NULL);
        return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    fprintf(stderr, "usage: bare_libusb CASE\n");
    return EXIT_FAILURE;
}
