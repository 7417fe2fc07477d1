/*
 * The kernel denies the system calls that libusb, libudev and the C library make for the library, one at a
 * time, as a service's seccomp filter may. Every function must return a code, and the program must end
 * normally.
 */
#include "program.h"
#include "testing.h"

static struct program_run run;

static const char* const configurations[] = {
    "gvusb_hotplug=1 gvusb_updaterate=10",
    "gvusb_hotplug=2",
};

/* A filter may report that the call is not permitted or does not exist. */
static const char* const errors[] = {"EPERM", "ENOSYS"};

static const char* const system_calls[] = {
    "access",    "bind",    "clone3",     "close",          "eventfd2",        "fcntl",  "getdents64",
    "getrandom", "madvise", "mprotect",   "munmap",         "newfstatat",      "openat", "read",
    "readlink",  "recvmsg", "setsockopt", "timerfd_create", "timerfd_settime",
};

static void check_denied(const char* system_call, const char* stage, const char* configuration) {
    for (size_t i = 0; i < sizeof errors / sizeof *errors; ++i) {
        run_program(&run, configuration, "with_denied_call", system_call, stage, errors[i]);
        if (run.status != 0) {
            fail_msg("%s denied by %s %s with %s: ended with %d and printed:\n%s", system_call, errors[i],
                     stage, configuration, run.status, run.output);
        }
    }
}

static void check_all_denied(const char* stage) {
    for (size_t i = 0; i < sizeof configurations / sizeof *configurations; ++i) {
        for (size_t j = 0; j < sizeof system_calls / sizeof *system_calls; ++j) {
            check_denied(system_calls[j], stage, configurations[i]);
        }
    }
    check_echo(open_reader(0xA1));
}

static void SystemCallsMayBeDeniedBeforeTheLibraryIsLoaded(void** state) {
    check_all_denied("before-loading");
}

static void SystemCallsMayBeDeniedBeforeAScan(void** state) {
    check_all_denied("before-scanning");
}

static void SystemCallsMayBeDeniedWhileAReaderIsOpen(void** state) {
    check_all_denied("reader-open");
}

/*
 * Only before loading: later the emulated bus itself needs sockets, and the C library ends a process that
 * cannot allocate thread-local storage.
 */
static void MemoryAndSocketsMayBeDeniedBeforeTheLibraryIsLoaded(void** state) {
    for (size_t i = 0; i < sizeof configurations / sizeof *configurations; ++i) {
        check_denied("mmap", "before-loading", configurations[i]);
        check_denied("socket", "before-loading", configurations[i]);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(SystemCallsMayBeDeniedBeforeTheLibraryIsLoaded),
        TEST_CASE(SystemCallsMayBeDeniedBeforeAScan),
        TEST_CASE(SystemCallsMayBeDeniedWhileAReaderIsOpen),
        TEST_CASE(MemoryAndSocketsMayBeDeniedBeforeTheLibraryIsLoaded),
    };
    return run_group("denied_system_calls", tests, sizeof tests / sizeof *tests, argc, argv);
}
