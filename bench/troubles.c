// Measures what a silent reader, a scan and a poll cost the calls of other threads, and prints "NAME VALUE" lines.
//
//   gvusb-emulate [READERS] -- gvusb_bench_troubles default|parallel silent|look-ups|scans|polls SECONDS
//
// Exchanges run in phases of SECONDS, without the trouble and with it in turns; a line is printed for each phase. In
// "silent" and "look-ups", the first reader answers nothing. In "polls", the last one hangs as soon as it is plugged in.
#include <gvusb.h>

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

enum { frame = 16, most_readers = 16, most_samples = 1 << 16, phases = 5 };

struct reader {
    pthread_t thread;
    int handle;
};

static struct reader readers[most_readers];
static int reader_count;
static atomic_bool phase_is_over;

static double samples[most_samples];
static atomic_int sample_count;

static void fail(const char* what, int code) {
    fprintf(stderr, "%s returned %d\n", what, code);
    _exit(EXIT_FAILURE);
}

static double seconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

static void sleep_until(double seconds) {
    const struct timespec end = {(time_t)seconds, (long)((seconds - (double)(time_t)seconds) * 1e9)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, NULL);
}

static void sample(double seconds) {
    const int index = atomic_fetch_add(&sample_count, 1);
    if (index < most_samples) {
        samples[index] = seconds;
    }
}

static int by_value(const void* left, const void* right) {
    const double a = *(const double*)left;
    const double b = *(const double*)right;
    return (a > b) - (a < b);
}

// Return the sample below which this share lies, and forget all samples.
static double percentile(double share) {
    const int count = sample_count < most_samples ? sample_count : most_samples;
    if (count == 0) {
        fail("measuring", 0);
    }
    qsort(samples, (size_t)count, sizeof *samples, by_value);
    sample_count = 0;
    return samples[(int)((count - 1) * share)];
}

static int exchange(int handle) {
    unsigned char data[64] = {2, 0, 7};
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, data, frame, data, sizeof data);
}

static void* exchange_until_the_end(void* argument) {
    const struct reader* const reader = argument;
    while (!phase_is_over) {
        const double begin = seconds_now();
        const int result = exchange(reader->handle);
        if (result != frame) {
            fail("an exchange", result);
        }
        sample(seconds_now() - begin);
    }
    return NULL;
}

static void* wait_for_silent_reader(void* argument) {
    const struct reader* const reader = argument;
    while (!phase_is_over) {
        const int result = exchange(reader->handle);
        if (result != GVUSB_ERR_TIMEOUT) {
            fail("an exchange with a silent reader", result);
        }
    }
    return NULL;
}

static void* scan_until_the_end(void* nothing) {
    while (!phase_is_over) {
        const int result = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
        if (result != 0) {
            fail("a scan", result);
        }
    }
    return nothing;
}

static void* do_nothing(void* nothing) {
    return nothing;
}

// Exchange with the readers from this one on, beside another thread.
static void run_phase(const char* name, int first, double seconds, void* (*beside)(void*)) {
    pthread_t other;
    phase_is_over = false;
    pthread_create(&other, NULL, beside, &readers[0]);
    sleep_until(seconds_now() + 0.05); // the other thread is busy
    const double begin = seconds_now();
    for (int i = first; i < reader_count; ++i) {
        pthread_create(&readers[i].thread, NULL, exchange_until_the_end, &readers[i]);
    }
    sleep_until(begin + seconds);
    phase_is_over = true;
    for (int i = first; i < reader_count; ++i) {
        pthread_join(readers[i].thread, NULL);
    }
    const double rate = sample_count / (seconds_now() - begin);
    pthread_join(other, NULL);
    printf("%s_per_second %.1f\n", name, rate);
    printf("%s_99_percent_ms %.3f\n", name, percentile(0.99) * 1e3);
}

static void command(const char* text) {
    static int channel = -1;
    char answer[64];
    if (channel < 0) {
        struct sockaddr_un address = {.sun_family = AF_UNIX};
        snprintf(address.sun_path, sizeof address.sun_path, "%s", getenv("GVUSB_EMULATE_SOCKET"));
        channel = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(channel, (const struct sockaddr*)&address, sizeof address) != 0) {
            fail("connecting to the bus", 0);
        }
    }
    if (send(channel, text, strlen(text), 0) < 0 || recv(channel, answer, sizeof answer, 0) != 3) {
        fail(text, 0);
    }
}

static void run_polls(double seconds) {
    char text[32];
    for (int i = 0; i < phases; ++i) {
        run_phase("without", 0, seconds, do_nothing);
        snprintf(text, sizeof text, "plug %d\n", reader_count + 1);
        command(text);
        run_phase("with", 0, seconds, do_nothing);
        snprintf(text, sizeof text, "unplug %d\n", reader_count + 1);
        command(text);
    }
}

static int look_up(int kind, int handle) {
    char value[GVUSB_PARAMETER_SIZE];
    switch (kind) {
    case 0:
        return GVUSB_GetScanListSize() == reader_count ? 0 : -1;
    case 1:
        return GVUSB_GetDeviceHnd(2) == handle ? 0 : -1;
    default:
        return GVUSB_GetDevicePara(handle, "TIMEOUT", value);
    }
}

// A look-up is due every 200 microseconds. One that is due while an earlier one waits counts from then on; a sleep that takes
// longer does not count.
static void run_look_ups(double seconds) {
    static const char* const names[] = {"scan_list_size", "device_handle", "timeout"};
    const double step = 200e-6;
    pthread_create(&readers[0].thread, NULL, wait_for_silent_reader, &readers[0]);
    for (int kind = 0; kind < 3; ++kind) {
        double ended = seconds_now();
        double due = ended + 0.05;
        for (const double end = due + seconds; due < end; due += step) {
            if (ended < due) {
                sleep_until(due);
                due = seconds_now();
            }
            const int result = look_up(kind, readers[1].handle);
            if (result != 0) {
                fail(names[kind], result);
            }
            ended = seconds_now();
            sample(ended - due);
        }
        printf("%s_99.9_percent_us %.1f\n", names[kind], percentile(0.999) * 1e6);
    }
    phase_is_over = true;
    pthread_join(readers[0].thread, NULL);
}

// Open the readers with the device IDs from 1 to `wanted`.
static void open_readers(const char* parallel, int wanted) {
    int code = GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", parallel);
    if (code != 0 || (code = GVUSB_Scan(GVUSB_SCAN_ALL, NULL)) != 0) {
        fail("scanning", code);
    }
    for (; reader_count < wanted; ++reader_count) {
        readers[reader_count].handle = GVUSB_OpenDevice((unsigned)reader_count + 1);
        if (readers[reader_count].handle < 0) {
            fail("opening a reader", readers[reader_count].handle);
        }
    }
}

int main(int count, char** arguments) {
    if (count != 4) {
        fprintf(stderr, "usage: gvusb_bench_troubles default|parallel silent|look-ups|scans|polls SECONDS\n");
        return EXIT_FAILURE;
    }
    const char* const trouble = arguments[2];
    const double seconds = atof(arguments[3]);
    const bool has_silent_reader = strcmp(trouble, "silent") == 0 || strcmp(trouble, "look-ups") == 0;
    open_readers(strcmp(arguments[1], "parallel") == 0 ? "1" : "0", has_silent_reader ? 8 : 4);
    if (strcmp(trouble, "look-ups") == 0) {
        run_look_ups(seconds);
    } else if (strcmp(trouble, "polls") == 0) {
        run_polls(seconds);
    } else {
        for (int i = 0; i < phases; ++i) {
            run_phase("without", has_silent_reader, seconds, do_nothing);
            run_phase("with", has_silent_reader, seconds,
                      has_silent_reader ? wait_for_silent_reader : scan_until_the_end);
        }
    }
    return EXIT_SUCCESS;
}
