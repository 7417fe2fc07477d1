/*
 * The first process of a container starts another container, so both processes have the process ID 1. When
 * the child ends, it must not close its parent's readers. The library is loaded in the first container.
 */
#include "loaded.h"

#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

/* The child does not free its copies of the readers, which the leak sanitizer would report. */
int __lsan_is_turned_off(void);
int __lsan_is_turned_off(void) {
    return 1;
}

static int status_of(pid_t child) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

static int in_container(void) {
    struct loaded gvusb;
    if (!load(&gvusb)) {
        return 2;
    }
    const int handle = gvusb.scan_and_open(GVUSB_SCAN_FIRST, NULL);
    const int before = gvusb.is_present(handle);
    fflush(stdout);
    if (unshare(CLONE_NEWPID) != 0) {
        perror("unshare");
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        exit(getpid() == 1 ? 0 : 3);
    }
    const int ended = status_of(child);
    printf("process %d, child: %d, present: %d, then %d\n", (int)getpid(), ended, before,
           gvusb.is_present(handle));
    return 0;
}

int main(void) {
    if (unshare(CLONE_NEWPID) != 0) {
        perror("unshare");
        return 2;
    }
    const pid_t container = fork();
    if (container == 0) {
        exit(in_container());
    }
    return status_of(container);
}
