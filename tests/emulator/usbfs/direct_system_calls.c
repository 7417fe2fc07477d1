/*
 * A program that makes its system calls without the C library, in two threads: it opens the reader's node and asks for its
 * address. Exit status 1 if the node is not that of the emulated bus.
 */
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

static long system_call(long number, long first, long second, long third, long fourth) {
    register long in_r10 __asm__("r10") = fourth;
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(first), "S"(second), "d"(third), "r"(in_r10)
                     : "rcx", "r11", "memory");
    return result;
}

static void* look(void* path) {
    struct usbdevfs_connectinfo info = {0};
    unsigned char descriptor[18] = {0};
    const long node = system_call(SYS_openat, AT_FDCWD, (long)path, O_RDWR | O_CLOEXEC, 0);
    if (node < 0 || system_call(SYS_ioctl, node, (long)USBDEVFS_CONNECTINFO, (long)&info, 0) != 0 ||
        system_call(SYS_read, node, (long)descriptor, sizeof descriptor, 0) != sizeof descriptor ||
        system_call(SYS_close, node, 0, 0, 0) != 0) {
        return "a call failed";
    }
    return info.devnum == 2 && descriptor[1] == 1 ? NULL : "not the reader";
}

int main(void) {
    static char path[] = "/dev/bus/usb/001/002";
    pthread_t thread;
    void* from_thread = "no thread";
    const char* const from_main = look(path);
    if (pthread_create(&thread, NULL, look, path) == 0) {
        pthread_join(thread, &from_thread);
    }
    /* The mask stays as the program has set it. */
    unsigned long blocked = 1UL << (SIGUSR1 - 1);
    unsigned long mask = 0;
    system_call(SYS_rt_sigprocmask, SIG_BLOCK, (long)&blocked, 0, sizeof blocked);
    system_call(SYS_rt_sigprocmask, SIG_BLOCK, 0, (long)&mask, sizeof mask);
    const char* const from_mask = mask == blocked ? NULL : "the signal mask changed";
    const char* const wrong = from_main != NULL     ? from_main
                              : from_thread != NULL ? from_thread
                              : from_mask != NULL   ? from_mask
                                                    : "";
    puts(wrong);
    return wrong[0] != '\0';
}
