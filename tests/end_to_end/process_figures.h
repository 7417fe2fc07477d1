/*
 * What a process takes of the machine: memory, descriptors, threads.
 *
 * Any thread.
 */
#ifndef GVUSB_TESTS_PROCESS_FIGURES_H
#define GVUSB_TESTS_PROCESS_FIGURES_H

#include <sys/types.h>

struct process_figures {
    long resident_kb;
    long heap_bytes; /* handed out by malloc and not given back; the calling process's only, else 0 */
    long descriptors;
    long threads;
};

struct process_figures own_figures(void);
struct process_figures figures_of(pid_t process);

/* Sums of the calling process's figures at several moments. */
struct memory_samples {
    double resident_kb, heap_bytes;
    double count;
};
void add_memory_sample(struct memory_samples* samples);

/* Processor time of the calling process so far, in seconds. */
double processor_seconds(void);

#endif
