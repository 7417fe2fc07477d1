/*
 * Runs a program after a process that was killed while it added an entry to the recording.
 * usage: killed_writer PROGRAM [ARGUMENT...]
 */
#include "recorder/recording_memory.h"

#include <err.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

static struct recording_memory* recording(void) {
    char path[64] = "";
    const char* const name = getenv(recording_variable);
    const char* const colon = name != NULL ? strrchr(name, ':') : NULL;
    if (colon == NULL || (size_t)(colon - name) >= sizeof path) {
        errx(2, "this process is not recorded");
    }
    memcpy(path, name, (size_t)(colon - name));
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* const memory =
        mmap(NULL, sizeof(struct recording_memory), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) {
        err(2, "%s", path);
    }
    return memory;
}

static void die_while_writing(void) {
    struct recording_memory* const memory = recording();
    if (pthread_mutex_lock(&memory->writing) != 0) {
        errx(2, "the memory cannot be locked");
    }
    memset(memory->ring + memory->written % recording_ring_size, 0xFF, sizeof(struct recording_entry) / 2);
    raise(SIGKILL);
}

int main(int argc, char** argv) {
    const pid_t child = fork();
    if (child == 0) {
        die_while_writing();
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSIGNALED(status) || argc < 2) {
        errx(2, "no process was killed");
    }
    execv(argv[1], argv + 1);
    err(2, "%s", argv[1]);
}
