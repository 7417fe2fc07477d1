/*
 * A session with the reader A1. From the stage that argument 2 names, the kernel denies the system call that
 * argument 1 names, in every thread, with the error that argument 3 names. Exits with 0 if every library call
 * returns a code, or if the dynamic linker reports why it cannot load the library.
 */
#include "bus.h"
#include "loaded.h"

#include <linux/filter.h>
#include <linux/seccomp.h>

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { used_id = 0xA1, comer = 2 };

#define CALL(name)                                                                                           \
    { #name, __NR_##name }
static const struct {
    const char* name;
    unsigned int number;
} system_calls[] = {
    CALL(access),          CALL(bind),       CALL(clone3),     CALL(close),   CALL(eventfd2),
    CALL(fcntl),           CALL(getdents64), CALL(getrandom),  CALL(madvise), CALL(mmap),
    CALL(mprotect),        CALL(munmap),     CALL(newfstatat), CALL(openat),  CALL(read),
    CALL(readlink),        CALL(recvmsg),    CALL(setsockopt), CALL(socket),  CALL(timerfd_create),
    CALL(timerfd_settime),
};

_Noreturn static void fail(const char* what, int result) {
    fprintf(stderr, "%s gave %d\n", what, result);
    _exit(1);
}

static unsigned int number_of(const char* name) {
    for (size_t i = 0; i < sizeof system_calls / sizeof *system_calls; ++i) {
        if (strcmp(system_calls[i].name, name) == 0) {
            return system_calls[i].number;
        }
    }
    fail(name, -1);
}

static void deny(const char* name, const char* error) {
    const unsigned int code = strcmp(error, "ENOSYS") == 0 ? ENOSYS : EPERM;
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number_of(name), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | code),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = {sizeof filter / sizeof *filter, filter};
    errno = 0;
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program) != 0) {
        fail("seccomp", errno);
    }
    if (syscall(number_of(name), -1, 0, 0, 0, 0, 0) != -1 || errno != (int)code) {
        fail("a call that is denied", errno);
    }
}

/* Every function returns a count, a handle, 0 or a published code. */
static int expect_code(const char* what, int result) {
    if (result < 0 && (result > GVUSB_ERR_EMPTY_DEVICE_LIST || result < GVUSB_ERR_INTERNAL)) {
        fail(what, result);
    }
    return result;
}

static void exchange(const struct loaded* gvusb, int handle) {
    static const unsigned char frame[] = {1, 2, 3};
    unsigned char answer[16];
    const int count = expect_code("an exchange", gvusb->transceive(handle, GVUSB_PROTOCOL, 0, frame,
                                                                   sizeof frame, answer, sizeof answer));
    if (count >= 0 && (count != sizeof frame || memcmp(answer, frame, sizeof frame) != 0)) {
        fail("the answer's length", count);
    }
}

static void use(const struct loaded* gvusb, int handle) {
    char value[GVUSB_PARAMETER_SIZE] = "";
    unsigned char answer[16];
    exchange(gvusb, handle);
    bus("replug %d", comer);
    expect_code("presence", gvusb->is_present(handle));
    expect_code("a parameter", gvusb->get_parameter(handle, "DEVICENAME", value));
    expect_code("a scan", gvusb->scan(GVUSB_SCAN_ALL, NULL));
    expect_code("the scan list's size", gvusb->scan_list_size());
    exchange(gvusb, handle);
    expect_code("setting the time-out", gvusb->set_parameter(handle, "TIMEOUT", "1"));
    expect_code("receiving", gvusb->receive(handle, GVUSB_PROTOCOL, answer, sizeof answer));
    expect_code("closing", gvusb->close_device(handle));
}

int main(int argc, char** argv) {
    struct loaded gvusb;
    if (argc != 4) {
        return 2;
    }
    const char* const stage = argv[2];
    bus("list"); /* opens the channel, which stays open */
    if (strcmp(stage, "before-loading") == 0) {
        deny(argv[1], argv[3]);
    }
    if (!load(&gvusb)) {
        return 0;
    }
    if (strcmp(stage, "before-scanning") == 0) {
        deny(argv[1], argv[3]);
    }
    expect_code("a scan", gvusb.scan(GVUSB_SCAN_ALL, NULL));
    const int handle = expect_code("opening", gvusb.open_device(used_id));
    if (strcmp(stage, "reader-open") == 0) {
        if (handle <= 0) {
            fail("opening", handle);
        }
        deny(argv[1], argv[3]);
    }
    use(&gvusb, handle);
    return unload(&gvusb) ? 0 : 1;
}
