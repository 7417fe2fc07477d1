#include "process_figures.h"

#include <dirent.h>
#include <malloc.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void read_status(pid_t process, struct process_figures* figures) {
    char line[256];
    snprintf(line, sizeof line, "/proc/%d/status", (int)process);
    FILE* file = fopen(line, "re");
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        if (strncmp(line, "VmRSS:", 6) == 0) {
            figures->resident_kb += strtol(line + 6, NULL, 10);
        } else if (strncmp(line, "RssShmem:", 9) == 0) {
            figures->resident_kb -= strtol(line + 9, NULL, 10);
        }
    }
    if (file != NULL) {
        fclose(file);
    }
}

/* pthread_join() may return before the kernel has removed the thread. */
static bool is_running(pid_t process, const char* thread) {
    enum { exiting = 0x4 }; /* PF_EXITING of the kernel */
    char text[512];
    snprintf(text, sizeof text, "/proc/%d/task/%s/stat", (int)process, thread);
    FILE* file = fopen(text, "re");
    const size_t length = file != NULL ? fread(text, 1, sizeof text - 1, file) : 0;
    if (file != NULL) {
        fclose(file);
    }
    text[length] = '\0';
    /* The name, in parentheses, may hold anything. Behind it: state, ppid, pgrp, session, tty_nr, tpgid, flags. */
    const char* const name_end = strrchr(text, ')');
    unsigned flags = exiting;
    if (name_end != NULL) {
        sscanf(name_end + 1, " %*c %*d %*d %*d %*d %*d %u", &flags);
    }
    return (flags & exiting) == 0;
}

/* Count the entries of /proc/PROCESS/FOLDER, all of them if `counts` is null. */
static long count_entries(pid_t process, const char* folder,
                          bool (*counts)(pid_t process, const char* entry)) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/%s", (int)process, folder);
    DIR* stream = opendir(path);
    if (stream == NULL) {
        return 0;
    }
    long count = 0;
    for (const struct dirent* entry; (entry = readdir(stream)) != NULL;) {
        count += entry->d_name[0] != '.' && (counts == NULL || counts(process, entry->d_name));
    }
    closedir(stream);
    return count;
}

static long count_threads(pid_t process) {
    return count_entries(process, "task", is_running);
}

static long count_descriptors(pid_t process) {
    const long count = count_entries(process, "fd", NULL);
    return process == getpid() ? count - 1 : count; /* without the descriptor that reads the folder */
}

struct process_figures figures_of(pid_t process) {
    struct process_figures figures = {0, 0, 0, 0};
    read_status(process, &figures);
    figures.descriptors = count_descriptors(process);
    figures.threads = count_threads(process);
    return figures;
}

struct process_figures own_figures(void) {
    struct process_figures figures = figures_of(getpid());
    figures.heap_bytes = (long)mallinfo2().uordblks;
    return figures;
}

void add_memory_sample(struct memory_samples* samples) {
    const struct process_figures figures = own_figures();
    samples->resident_kb += (double)figures.resident_kb;
    samples->heap_bytes += (double)figures.heap_bytes;
    samples->count += 1;
}

double processor_seconds(void) {
    struct timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return (double)used.tv_sec + (double)used.tv_nsec / 1e9;
}
