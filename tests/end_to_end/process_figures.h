/*
 * The resources that a process uses: memory, descriptors, threads.
 *
 * Thread-safe.
 */
#ifndef GVUSB_TESTS_PROCESS_FIGURES_H
#define GVUSB_TESTS_PROCESS_FIGURES_H

#include <sys/types.h>

struct process_figures {
    long
        resident_kb; /* without memory shared with the emulated bus, which unmaps it some time after closing */
    long heap_bytes; /* allocated by malloc() and not freed; only for the calling process, otherwise 0 */
    long descriptors;
    long threads;
};

struct process_figures own_figures(void);
struct process_figures figures_of(pid_t process);

/* Sums of the calling process's figures over several samples. */
struct memory_samples {
    double resident_kb, heap_bytes;
    double count;
};
void add_memory_sample(struct memory_samples* samples);

/* Processor time of the calling process so far, in seconds. */
double processor_seconds(void);

#endif
