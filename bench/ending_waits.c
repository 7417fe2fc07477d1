// Measures how long it takes to end a call that waits for a reader, and prints "NAME VALUE" lines with medians in
// microseconds.
//
//   gvusb-emulate --reader id=1,copies=2 --script FILE -- gvusb_bench_ending_waits close|cancel|close-other TIMES
//
// FILE mutes the readers, so that they never answer.
#include <gvusb.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { most_times = 10000, begin_us = 5000 };

static int waiting_handle;
static int result_of_call;
static double end_of_call;

static double microseconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec * 1e-3;
}

static void check(int result, int expected, const char* what) {
    if (result != expected) {
        fprintf(stderr, "%s returned %d\n", what, result);
        _exit(EXIT_FAILURE);
    }
}

static void* wait_for_answer(void* argument) {
    unsigned char answer[64];
    result_of_call = GVUSB_Receive(waiting_handle, GVUSB_PROTOCOL, answer, sizeof answer);
    end_of_call = microseconds_now();
    return argument;
}

static int compare(const void* left, const void* right) {
    const double a = *(const double*)left;
    const double b = *(const double*)right;
    return (a > b) - (a < b);
}

static void print_median(const char* name, double* values, int count) {
    qsort(values, (size_t)count, sizeof *values, compare);
    printf("%s %.1f\n", name, values[count / 2]);
    printf("%s_most %.1f\n", name, values[count - 1]);
}

int main(int count, char** arguments) {
    const int times = count == 3 ? atoi(arguments[2]) : 0;
    if (times < 1 || times > most_times) {
        fprintf(stderr, "usage: gvusb_bench_ending_waits close|cancel|close-other TIMES\n");
        return EXIT_FAILURE;
    }
    const char* const what = arguments[1];
    static double ending[most_times];
    static double returning[most_times];
    check(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", "1"), 0, "switching parallel mode on");
    check(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0, "opening the readers");
    for (int i = 0; i < times;) {
        waiting_handle = GVUSB_OpenDevice(1);
        const int other = GVUSB_OpenDevice(2);
        check(GVUSB_SetDevicePara(waiting_handle, "TIMEOUT", "200"), 0, "setting the time-out");
        pthread_t thread;
        pthread_create(&thread, NULL, &wait_for_answer, NULL);
        usleep(begin_us);
        const double begin = microseconds_now();
        if (strcmp(what, "cancel") == 0) {
            check(GVUSB_SetDevicePara(waiting_handle, "CANCEL", ""), 0, "canceling");
        } else {
            check(GVUSB_CloseDevice(strcmp(what, "close") == 0 ? waiting_handle : other), 0, "closing");
        }
        ending[i] = microseconds_now() - begin;
        if (strcmp(what, "close-other") == 0) {
            GVUSB_SetDevicePara(waiting_handle, "CANCEL", "");
        }
        pthread_join(thread, NULL);
        returning[i] = end_of_call - begin;
        // On a busy machine, the call may not have begun before.
        if (result_of_call != GVUSB_ERR_HANDLE_NOT_FOUND && result_of_call != GVUSB_ERR_TIMEOUT) {
            check(result_of_call, strcmp(what, "close") == 0 ? GVUSB_ERR_NOT_OPENED : GVUSB_ERR_BULK_TRANSFER,
                  "the call");
            ++i;
        }
    }
    print_median("ending_us", ending, times);
    print_median("call_us", returning, times);
    return EXIT_SUCCESS;
}
