/*
 * The first process of a container starts another container: in both it has the process ID 1. The child ends, which must
 * not take its parent's readers away.
 *
 * The library, argument 1, is loaded in the first container.
 */
#include <gvusb.h>

#include <dlfcn.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int status_of(pid_t child) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

static void look_up(void* library, const char* name, void* function) {
    void* symbol = dlsym(library, name);
    memcpy(function, &symbol, sizeof symbol);
}

static int in_container(const char* path) {
    int (*scan_and_open)(int, GVUSB_SCANSEARCH*);
    int (*present)(int);
    void* library = dlopen(path, RTLD_NOW);
    if (library == NULL) {
        printf("%s\n", dlerror());
        return 2;
    }
    look_up(library, "GVUSB_ScanAndOpen", &scan_and_open);
    look_up(library, "GVUSB_IsDevicePresent", &present);
    const int handle = scan_and_open(GVUSB_SCAN_FIRST, NULL);
    const int before = present(handle);
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
    printf("process %d, child: %d, present: %d, then %d\n", (int)getpid(), ended, before, present(handle));
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    if (unshare(CLONE_NEWPID) != 0) {
        perror("unshare");
        return 2;
    }
    const pid_t container = fork();
    if (container == 0) {
        exit(in_container(argv[1]));
    }
    return status_of(container);
}
