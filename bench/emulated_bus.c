// Measures the emulated bus with libusb alone, and prints "NAME VALUE" lines.
//
//   gvusb-emulate [READERS] -- gvusb_bench_emulated_bus exchanges|late|deep|openings|replugs SECONDS
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <libusb.h>

enum { endpoint_in = 0x81, endpoint_out = 0x02, frame = 16, timeout_ms = 10000, most_readers = 4096 };

static libusb_device_handle* handles[most_readers];
static int readers;

static void fail(const char* what, int code) {
    fprintf(stderr, "%s: %s\n", what, libusb_error_name(code));
    _exit(EXIT_FAILURE);
}

static double seconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

// Processor time of this process and of the launcher, its parent.
static double processor_seconds(void) {
    struct timespec own;
    struct timespec launchers;
    clockid_t clock;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
    if (clock_getcpuclockid(getppid(), &clock) != 0 || clock_gettime(clock, &launchers) != 0) {
        fail("clock of the launcher", LIBUSB_ERROR_OTHER);
    }
    return (double)(own.tv_sec + launchers.tv_sec) + (double)(own.tv_nsec + launchers.tv_nsec) * 1e-9;
}

static void open_readers(void) {
    libusb_device** list;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    for (ssize_t i = 0; i < count && readers < most_readers; ++i) {
        struct libusb_device_descriptor device;
        libusb_get_device_descriptor(list[i], &device);
        if (device.idVendor != GVUSB_VENDOR_ID) {
            continue;
        }
        int code = libusb_open(list[i], &handles[readers]);
        if (code == 0) {
            code = libusb_claim_interface(handles[readers], 0);
        }
        if (code != 0) {
            fail("open", code);
        }
        ++readers;
    }
    libusb_free_device_list(list, 1);
}

static void exchange(libusb_device_handle* handle) {
    unsigned char data[64] = {0};
    int moved = 0;
    int code = libusb_bulk_transfer(handle, endpoint_out, data, frame, &moved, timeout_ms);
    if (code == 0) {
        code = libusb_bulk_transfer(handle, endpoint_in, data, sizeof data, &moved, timeout_ms);
    }
    if (code != 0 || moved != frame) {
        fail("exchange", code);
    }
}

// Exchanges with all readers, one after the other.
static void exchange_in_turn(double seconds) {
    const double processor = processor_seconds();
    const double begin = seconds_now();
    long count = 0;
    while (seconds_now() - begin < seconds) {
        for (int i = 0; i < 64; ++i) {
            exchange(handles[count++ % readers]);
        }
    }
    const double passed = seconds_now() - begin;
    printf("exchanges_per_second %.0f\n", (double)count / passed);
    printf("processor_us_per_exchange %.1f\n", (processor_seconds() - processor) / (double)count * 1e6);
}

static double end_of_threads;

static void* exchange_in_thread(void* handle) {
    long count = 0;
    while (seconds_now() < end_of_threads) {
        exchange(handle);
        ++count;
    }
    return (void*)count;
}

// A thread for each reader.
static void exchange_in_threads(double seconds) {
    pthread_t threads[most_readers];
    long count = 0;
    const double begin = seconds_now();
    end_of_threads = begin + seconds;
    for (int i = 0; i < readers; ++i) {
        pthread_create(&threads[i], NULL, exchange_in_thread, handles[i]);
    }
    for (int i = 0; i < readers; ++i) {
        void* done = NULL;
        pthread_join(threads[i], &done);
        count += (long)done;
    }
    printf("exchanges_per_second %.0f\n", (double)count / (seconds_now() - begin));
}

static long completed;

static void LIBUSB_CALL submit_again(struct libusb_transfer* transfer) {
    if (transfer->status != LIBUSB_TRANSFER_COMPLETED) {
        fail("transfer", LIBUSB_ERROR_IO);
    }
    ++completed;
    *(bool*)transfer->user_data = seconds_now() < end_of_threads && libusb_submit_transfer(transfer) == 0;
}

// Sixteen asynchronous transfers at a time.
static void keep_deep(double seconds) {
    enum { depth = 16 };
    static unsigned char data[depth][64];
    bool pending[depth];
    struct libusb_transfer* transfers[depth];
    const double processor = processor_seconds();
    const double begin = seconds_now();
    end_of_threads = begin + seconds;
    for (int i = 0; i < depth; ++i) {
        const bool in = i % 2 != 0;
        transfers[i] = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(transfers[i], handles[0], in ? endpoint_in : endpoint_out, data[i],
                                  in ? (int)sizeof data[i] : frame, submit_again, &pending[i], timeout_ms);
        pending[i] = libusb_submit_transfer(transfers[i]) == 0;
    }
    while (seconds_now() < end_of_threads) {
        libusb_handle_events(NULL);
    }
    printf("transfers_per_second %.0f\n", (double)completed / (seconds_now() - begin));
    printf("processor_us_per_transfer %.1f\n", (processor_seconds() - processor) / (double)completed * 1e6);
    fflush(stdout);
    _exit(EXIT_SUCCESS); // transfers are pending
}

// Replugs reader 1 by command.
static void replug(double seconds) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int channel = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    snprintf(address.sun_path, sizeof address.sun_path, "%s", getenv("GVUSB_EMULATE_SOCKET"));
    if (connect(channel, (const struct sockaddr*)&address, sizeof address) != 0) {
        fail("command socket", LIBUSB_ERROR_IO);
    }
    const double begin = seconds_now();
    long count = 0;
    for (; seconds_now() - begin < seconds; ++count) {
        static const char command[] = "replug 1\n";
        char answer[64];
        if (send(channel, command, sizeof command - 1, 0) < 0 ||
            recv(channel, answer, sizeof answer, 0) != 3) {
            fail("replug", LIBUSB_ERROR_IO);
        }
    }
    printf("replugs_per_second %.0f\n", (double)count / (seconds_now() - begin));
    close(channel);
}

int main(int count, char** arguments) {
    if (count != 3) {
        fprintf(stderr, "usage: gvusb_bench_emulated_bus exchanges|late|deep|openings|replugs SECONDS\n");
        return EXIT_FAILURE;
    }
    const double seconds = atof(arguments[2]);
    const double begin = seconds_now();
    int code = libusb_init(NULL);
    if (code != 0) {
        fail("libusb_init", code);
    }
    open_readers();
    if (readers == 0) {
        fail("readers", LIBUSB_ERROR_NOT_FOUND);
    }
    if (strcmp(arguments[1], "replugs") == 0) {
        replug(seconds);
    } else if (strcmp(arguments[1], "openings") == 0) {
        printf("open %d\nms_to_open %.0f\n", readers, (seconds_now() - begin) * 1000);
    } else if (strcmp(arguments[1], "late") == 0) {
        exchange_in_threads(seconds);
    } else if (strcmp(arguments[1], "deep") == 0) {
        keep_deep(seconds);
    } else {
        exchange_in_turn(seconds);
    }
    for (int i = 0; i < readers; ++i) {
        libusb_close(handles[i]);
    }
    libusb_exit(NULL);
    return EXIT_SUCCESS;
}
