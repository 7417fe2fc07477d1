// Measures exchanges with a thread for each reader, and prints "NAME VALUE" lines.
//
//   gvusb-emulate [READERS] -- gvusb_bench_threads default|parallel|bare SECONDS
//
// The library opens the readers in the first two modes, bare libusb in the last one.
#include <gvusb.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <libusb.h>

enum { endpoint_in = 0x81, endpoint_out = 0x02, frame = 16, timeout_ms = 1000, most_readers = 128 };

struct reader {
    pthread_t thread;
    libusb_device_handle* bare; // null: the library's
    int handle;
    long count;
};

static struct reader readers[most_readers];
static int reader_count;
static double end_of_threads;

static void fail(const char* what, int code) {
    fprintf(stderr, "%s returned %d\n", what, code);
    _exit(EXIT_FAILURE);
}

static double seconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

static void open_by_libusb(void) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    for (ssize_t i = 0; i < count && reader_count < most_readers; ++i) {
        struct libusb_device_descriptor device;
        libusb_get_device_descriptor(list[i], &device);
        if (device.idVendor != GVUSB_VENDOR_ID) {
            continue;
        }
        struct reader* const reader = &readers[reader_count++];
        if (libusb_open(list[i], &reader->bare) != 0 || libusb_claim_interface(reader->bare, 0) != 0) {
            fail("opening a reader", reader_count);
        }
    }
    libusb_free_device_list(list, 1);
}

static void open_by_library(const char* parallel) {
    int code = GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", parallel);
    if (code == 0) {
        code = GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    }
    if (code != 0) {
        fail("opening the readers", code);
    }
    for (int next = GVUSB_GetDeviceList(0); next > 0 && reader_count < most_readers;
         next = GVUSB_GetDeviceList(next)) {
        readers[reader_count++].handle = next;
    }
}

// Return the number of bytes received, or a negative code.
static int exchange(const struct reader* reader) {
    unsigned char data[64] = {2, 0, 7};
    if (reader->bare == NULL) {
        return GVUSB_Transceive(reader->handle, GVUSB_PROTOCOL, 0, data, frame, data, sizeof data);
    }
    int moved = 0;
    int code = libusb_bulk_transfer(reader->bare, endpoint_out, data, frame, &moved, timeout_ms);
    if (code == 0) {
        code = libusb_bulk_transfer(reader->bare, endpoint_in, data, sizeof data, &moved, timeout_ms);
    }
    return code != 0 ? code : moved;
}

static void* exchange_until_the_end(void* argument) {
    struct reader* const reader = argument;
    while (seconds_now() < end_of_threads) {
        const int result = exchange(reader);
        if (result != frame) {
            fail("an exchange", result);
        }
        ++reader->count;
    }
    return NULL;
}

int main(int count, char** arguments) {
    if (count != 3) {
        fprintf(stderr, "usage: gvusb_bench_threads default|parallel|bare SECONDS\n");
        return EXIT_FAILURE;
    }
    if (strcmp(arguments[1], "bare") == 0) {
        if (libusb_init(NULL) != 0) {
            return EXIT_FAILURE;
        }
        GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1");
        open_by_libusb();
    } else {
        open_by_library(strcmp(arguments[1], "parallel") == 0 ? "1" : "0");
    }
    const double seconds = atof(arguments[2]);
    const double begin = seconds_now();
    end_of_threads = begin + seconds;
    for (int i = 0; i < reader_count; ++i) {
        pthread_create(&readers[i].thread, NULL, &exchange_until_the_end, &readers[i]);
    }
    long all = 0;
    long least = -1;
    for (int i = 0; i < reader_count; ++i) {
        pthread_join(readers[i].thread, NULL);
        all += readers[i].count;
        least = least < 0 || readers[i].count < least ? readers[i].count : least;
    }
    const double took = seconds_now() - begin;
    printf("exchanges_per_second %.1f\n", (double)all / took);
    printf("slowest_per_second %.1f\n", (double)least / took);
    return EXIT_SUCCESS;
}
