// Programs that make system calls without the C library, such as those with a USB library in Rust: the kernel reports
// their calls by SIGSYS, and the handler passes those that may concern the bus to the functions of the preload.
//
// Only if the launcher's option asks for it, because the program loses SIGSYS and each of these calls costs a signal.
// The kernel forgets it at exec(), and each thread asks for it on its own.

#include "preload.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#if defined(__x86_64__)

#ifndef PR_SET_SYSCALL_USER_DISPATCH
enum { PR_SET_SYSCALL_USER_DISPATCH = 59, PR_SYS_DISPATCH_ON = 1 };
#endif
enum { allowed, reported };

static unsigned long code_begin; // of the C library, whose calls are not reported
static unsigned long code_size;
static __thread char selector = reported;

// The result of a function that sets errno, as a system call returns it.
static long result_of(long result) {
    return result == -1 ? -errno : result;
}

static long call_directly(const greg_t* registers) {
    return result_of(syscall((long)registers[REG_RAX], registers[REG_RDI], registers[REG_RSI],
                             registers[REG_RDX], registers[REG_R10], registers[REG_R8], registers[REG_R9]));
}

// A udev event has to come from a netlink socket, as recvmsg() lets it.
static long receive_from(const greg_t* registers, struct sockaddr* sender, socklen_t* size) {
    socklen_t room = 0;
    if (sender != NULL && !copy_from_program(&room, size, sizeof room)) {
        return -EFAULT;
    }
    struct iovec piece = {.iov_base = (void*)registers[REG_RSI], // NOLINT(performance-no-int-to-ptr)
                          .iov_len = (size_t)registers[REG_RDX]};
    struct msghdr message = {.msg_name = sender, .msg_namelen = room, .msg_iov = &piece, .msg_iovlen = 1};
    const long result = result_of(recvmsg((int)registers[REG_RDI], &message, (int)registers[REG_R10]));
    if (result >= 0 && sender != NULL && !copy_to_program(size, &message.msg_namelen, sizeof *size)) {
        return -EFAULT;
    }
    return result;
}

// NOLINTBEGIN(performance-no-int-to-ptr): registers contain pointers
static long call_preload(const greg_t* registers) {
    const greg_t first = registers[REG_RDI];
    const greg_t second = registers[REG_RSI];
    const greg_t third = registers[REG_RDX];
    const greg_t fourth = registers[REG_R10];
    switch (registers[REG_RAX]) {
    case SYS_open:
        return result_of(open((const char*)first, (int)second, (mode_t)third));
    case SYS_openat:
        return result_of(openat((int)first, (const char*)second, (int)third, (mode_t)fourth));
    case SYS_ioctl:
        return result_of(ioctl((int)first, (unsigned long)second, (void*)third));
    case SYS_read:
        return result_of(read((int)first, (void*)second, (size_t)third));
    case SYS_pread64:
        return result_of(pread((int)first, (void*)second, (size_t)third, fourth));
    case SYS_lseek:
        return result_of(lseek((int)first, second, (int)third));
    case SYS_mmap:
        return result_of((long)mmap((void*)first, (size_t)second, (int)third, (int)fourth,
                                    (int)registers[REG_R8], registers[REG_R9]));
    case SYS_stat:
        return result_of(stat((const char*)first, (struct stat*)second));
    case SYS_lstat:
        return result_of(lstat((const char*)first, (struct stat*)second));
    case SYS_fstat:
        return result_of(fstat((int)first, (struct stat*)second));
    case SYS_newfstatat:
        return result_of(fstatat((int)first, (const char*)second, (struct stat*)third, (int)fourth));
    case SYS_statx:
        return result_of(statx((int)first, (const char*)second, (int)third, (unsigned)fourth,
                               (struct statx*)registers[REG_R8]));
    case SYS_access:
        return result_of(access((const char*)first, (int)second));
    case SYS_readlink:
        return result_of(readlink((const char*)first, (char*)second, (size_t)third));
    case SYS_readlinkat:
        return result_of(readlinkat((int)first, (const char*)second, (char*)third, (size_t)fourth));
    case SYS_poll:
        return result_of(poll((struct pollfd*)first, (nfds_t)second, (int)third));
    case SYS_epoll_wait:
        return result_of(epoll_wait((int)first, (struct epoll_event*)second, (int)third, (int)fourth));
    case SYS_epoll_pwait:
        return registers[REG_R8] != 0
                   ? call_directly(registers)
                   : result_of(epoll_wait((int)first, (struct epoll_event*)second, (int)third, (int)fourth));
    case SYS_socket:
        return result_of(socket((int)first, (int)second, (int)third));
    case SYS_bind:
        return result_of(bind((int)first, (const struct sockaddr*)second, (socklen_t)third));
    case SYS_recvfrom:
        return receive_from(registers, (struct sockaddr*)registers[REG_R8], (socklen_t*)registers[REG_R9]);
    case SYS_recvmsg:
        return result_of(recvmsg((int)first, (struct msghdr*)second, (int)third));
    default:
        return call_directly(registers);
    }
}
// NOLINTEND(performance-no-int-to-ptr)

static void handle(int signal, siginfo_t* info, void* context) {
    (void)signal;
    (void)info;
    enum { instruction_size = 2 };
    ucontext_t* const interrupted = context;
    greg_t* const registers = interrupted->uc_mcontext.gregs;
    const int kept = errno;
    switch (registers[REG_RAX]) {
    case SYS_clone:
    case SYS_clone3:
    case SYS_vfork:
    case SYS_rt_sigreturn:
        // These need the program's own stack. The thread makes the call again, and all others, unnoticed.
        selector = allowed;
        registers[REG_RIP] -= instruction_size;
        return;
    default:
        break;
    }
    registers[REG_RAX] = call_preload(registers);
    if (info->si_syscall == SYS_rt_sigprocmask) {
        // It is restored from here.
        syscall(SYS_rt_sigprocmask, SIG_BLOCK, NULL, &interrupted->uc_sigmask, 8);
    }
    errno = kept;
}

static bool report_calls(void) {
    return prctl(PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_ON, code_begin, code_size, &selector) == 0;
}

struct started {
    void* (*function)(void*);
    void* argument;
};

static void* start_reported(void* argument) {
    const struct started started = *(struct started*)argument;
    free(argument);
    report_calls();
    return started.function(started.argument);
}

// A place in the C library whose segment is its code.
static int find_code(struct dl_phdr_info* info, size_t size, void* place) {
    (void)size;
    const unsigned long wanted = (unsigned long)place;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)* const segment = &info->dlpi_phdr[i];
        const unsigned long begin = info->dlpi_addr + segment->p_vaddr;
        if (segment->p_type == PT_LOAD && wanted - begin < segment->p_memsz) {
            code_begin = begin;
            code_size = segment->p_memsz;
            return 1;
        }
    }
    return 0;
}

__attribute__((constructor)) static void start(void) {
    void* place;
    memcpy(&place, &library()->syscall,
           sizeof place); // C does not convert a function pointer to an object pointer
    if (getenv(emulate_system_calls_variable) == NULL || dl_iterate_phdr(find_code, place) == 0) {
        return;
    }
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = handle;
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
    sigaction(SIGSYS, &action, NULL);
    if (!report_calls()) {
        dprintf(STDERR_FILENO, "gvusb-emulate: the kernel does not report system calls: %s\n",
                strerrordesc_np(errno));
    }
}

EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
    static int (*create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    if (create == NULL) {
        void* const found = dlsym(RTLD_NEXT, "pthread_create"); // a sanitizer may have its own
        memcpy(&create, &found, sizeof create);
    }
    struct started* const started = code_size != 0 ? malloc(sizeof *started) : NULL;
    if (started == NULL) {
        return create(thread, attributes, function, argument);
    }
    *started = (struct started){function, argument};
    const int error = create(thread, attributes, start_reported, started);
    if (error != 0) {
        free(started);
    }
    return error;
}

#endif
