// The functions that the preload replaces in the program.
//
// What does not concern the emulated bus goes straight to the C library. close() and the functions that duplicate or pass
// descriptors are the C library's: the launcher notices by itself when an opening is closed. Nothing is locked, and
// functions that are async-signal-safe still are.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/usbdevice_fs.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

// ---- opening

static const char* redirected(const char* path) {
    const char* const replacement = settings()->configuration_file;
    return replacement != NULL && path != NULL && strcmp(path, emulate_configuration_file) == 0 ? replacement
                                                                                                : path;
}

static APART int open_in_place(int folder, const char* path, int flags, mode_t mode) {
    struct place place;
    find_place(&place, folder, path);
    return place.bus != 0 ? open_node(place.path, place.bus, place.address, flags)
                          : library()->openat(folder, place.path, flags, mode);
}

static int open_any(int folder, const char* path, int flags, mode_t mode) {
    return may_be_emulated(path) ? open_in_place(folder, path, flags, mode)
                                 : library()->openat(folder, redirected(path), flags, mode);
}

// The mode, an argument only with these flags.
static mode_t mode_after(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers have started it
    return creates ? va_arg(arguments, mode_t) : 0;
}

#define DEFINE_OPEN(name)                                                                                    \
    EXPORT int name(const char* path, int flags, ...) {                                                      \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = mode_after(flags, arguments);                                                    \
        va_end(arguments);                                                                                   \
        return open_any(AT_FDCWD, path, flags, mode);                                                        \
    }
#define DEFINE_OPENAT(name)                                                                                  \
    EXPORT int name(int folder, const char* path, int flags, ...) {                                          \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = mode_after(flags, arguments);                                                    \
        va_end(arguments);                                                                                   \
        return open_any(folder, path, flags, mode);                                                          \
    }

DEFINE_OPEN(open)
DEFINE_OPEN(open64)
DEFINE_OPENAT(openat)
DEFINE_OPENAT(openat64)

// open() and openat() in fortified programs.
EXPORT int __open_2(const char* path, int flags);
EXPORT int __open_2(const char* path, int flags) {
    return open_any(AT_FDCWD, path, flags, 0);
}
EXPORT int __open64_2(const char* path, int flags);
EXPORT int __open64_2(const char* path, int flags) {
    return open_any(AT_FDCWD, path, flags, 0);
}
EXPORT int __openat_2(int folder, const char* path, int flags);
EXPORT int __openat_2(int folder, const char* path, int flags) {
    return open_any(folder, path, flags, 0);
}
EXPORT int __openat64_2(int folder, const char* path, int flags);
EXPORT int __openat64_2(int folder, const char* path, int flags) {
    return open_any(folder, path, flags, 0);
}

// Whether a node may be opened. A stream of one is that of the file in its place, because streams read by themselves.
static bool opens(const struct place* place, const char* mode) {
    const int flags = (strchr(mode, '+') == NULL ? O_RDONLY : O_RDWR) | O_CLOEXEC;
    const int opened = place->bus != 0 ? open_node(place->path, place->bus, place->address, flags) : -1;
    if (opened >= 0) {
        library()->close(opened);
    }
    return place->bus == 0 || opened >= 0;
}

static APART FILE* open_stream_in_place(const char* path, const char* mode) {
    struct place place;
    find_place(&place, AT_FDCWD, path);
    return opens(&place, mode) ? library()->fopen(place.path, mode) : NULL;
}

static FILE* open_stream(const char* path, const char* mode) {
    return may_be_emulated(path) ? open_stream_in_place(path, mode)
                                 : library()->fopen(redirected(path), mode);
}

EXPORT FILE* fopen(const char* path, const char* mode) {
    return open_stream(path, mode);
}
EXPORT FILE* fopen64(const char* path, const char* mode) {
    return open_stream(path, mode);
}

static APART FILE* open_stream_again_in_place(const char* path, const char* mode, FILE* stream) {
    struct place place;
    find_place(&place, AT_FDCWD, path);
    if (opens(&place, mode)) {
        return library()->freopen(place.path, mode, stream);
    }
    const int error = errno;
    library()->fclose(stream);
    errno = error;
    return NULL;
}

static FILE* open_stream_again(const char* path, const char* mode, FILE* stream) {
    return may_be_emulated(path) ? open_stream_again_in_place(path, mode, stream)
                                 : library()->freopen(redirected(path), mode, stream);
}

EXPORT FILE* freopen(const char* path, const char* mode, FILE* stream) {
    return open_stream_again(path, mode, stream);
}
EXPORT FILE* freopen64(const char* path, const char* mode, FILE* stream) {
    return open_stream_again(path, mode, stream);
}

// ---- nodes

EXPORT int ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    struct node* const node = _IOC_TYPE(request) == 'U' ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return library()->ioctl(descriptor, request, argument);
    }
    const int result = node_ioctl(node, descriptor, request, argument);
    leave_node(node);
    return result;
}

// The bytes of the descriptors from a position on. Returns their number, or -1 with errno.
static ssize_t read_descriptors(struct opening_memory* memory, void* data, size_t size, uint64_t position) {
    if (__atomic_load_n(&memory->gone, __ATOMIC_SEQ_CST) != 0) {
        errno = ENODEV;
        return -1;
    }
    const uint64_t present = memory->descriptors_size;
    const uint64_t left = position < present ? present - position : 0;
    const size_t taken = size < left ? size : (size_t)left;
    if (taken != 0 && !copy_to_program(data, memory->descriptors + position, taken)) {
        errno = EFAULT;
        return -1;
    }
    return (ssize_t)taken;
}

// Reading the write end of a pipe is an error, which is where a node differs.
static ssize_t read_any(int descriptor, void* data, size_t size) {
    const ssize_t got = library()->read(descriptor, data, size);
    if (got >= 0 || errno != EBADF) {
        return got;
    }
    struct node* const node = find_node(descriptor);
    if (node == NULL) {
        return got;
    }
    struct opening_memory* const memory = memory_of(node);
    ssize_t result = -1;
    if (memory->access != O_WRONLY) {
        const uint64_t position = __atomic_load_n(&memory->position, __ATOMIC_RELAXED);
        result = read_descriptors(memory, data, size, position);
        if (result > 0) {
            __atomic_store_n(&memory->position, position + (uint64_t)result, __ATOMIC_RELAXED);
        }
    }
    leave_node(node);
    return result;
}

EXPORT ssize_t read(int descriptor, void* data, size_t size) {
    return read_any(descriptor, data, size);
}

static ssize_t read_at(int descriptor, void* data, size_t size, off_t position) {
    const ssize_t got = library()->pread(descriptor, data, size, position);
    struct node* const node = got < 0 && errno == ESPIPE ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return got;
    }
    ssize_t result = -1;
    if (position < 0) {
        errno = EINVAL;
    } else if (memory_of(node)->access == O_WRONLY) {
        errno = EBADF;
    } else {
        result = read_descriptors(memory_of(node), data, size, (uint64_t)position);
    }
    leave_node(node);
    return result;
}

EXPORT ssize_t pread(int descriptor, void* data, size_t size, off_t position) {
    return read_at(descriptor, data, size, position);
}
EXPORT ssize_t pread64(int descriptor, void* data, size_t size, off64_t position) {
    return read_at(descriptor, data, size, position);
}

// read() in fortified programs.
EXPORT ssize_t __read_chk(int descriptor, void* data, size_t size, size_t room);
EXPORT ssize_t __read_chk(int descriptor, void* data, size_t size, size_t room) {
    if (size > room) {
        abort();
    }
    return read_any(descriptor, data, size);
}

static off_t seek(int descriptor, off_t offset, int origin) {
    const off_t result = library()->lseek(descriptor, offset, origin);
    struct node* const node = result < 0 && errno == ESPIPE ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return result;
    }
    struct opening_memory* const memory = memory_of(node);
    const off_t present =
        origin == SEEK_CUR ? (off_t)__atomic_load_n(&memory->position, __ATOMIC_RELAXED) : 0;
    off_t wanted = -1;
    if ((origin == SEEK_SET || origin == SEEK_CUR) && present + offset >= 0) {
        wanted = present + offset;
        __atomic_store_n(&memory->position, (uint64_t)wanted, __ATOMIC_RELAXED);
    } else {
        errno = EINVAL;
    }
    leave_node(node);
    return wanted;
}

EXPORT off_t lseek(int descriptor, off_t offset, int origin) {
    return seek(descriptor, offset, origin);
}
EXPORT off64_t lseek64(int descriptor, off64_t offset, int origin) {
    return seek(descriptor, offset, origin);
}

// A byte in the pipe would say that nothing can be reaped.
EXPORT ssize_t write(int descriptor, const void* data, size_t size) {
    struct node* const node = uses_nodes() ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return library()->write(descriptor, data, size);
    }
    errno = memory_of(node)->access == O_RDONLY ? EBADF : EINVAL;
    leave_node(node);
    return -1;
}

// Flags that F_SETFL changes. The pipe keeps its own.
static int set_flags(struct opening_memory* memory, unsigned wanted) {
    const unsigned changeable = O_APPEND | O_ASYNC | O_NOATIME | O_NONBLOCK;
    if ((wanted & O_DIRECT) != 0) {
        errno = EINVAL;
        return -1;
    }
    uint32_t flags = __atomic_load_n(&memory->flags, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&memory->flags, &flags, (flags & ~changeable) | (wanted & changeable),
                                        false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
    return 0;
}

static int control(int descriptor, int command, void* argument) {
    struct node* const node = command == F_GETFL || command == F_SETFL ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return library()->fcntl(descriptor, command, argument);
    }
    struct opening_memory* const memory = memory_of(node);
    const int result = command == F_GETFL ? (int)__atomic_load_n(&memory->flags, __ATOMIC_RELAXED)
                                          : set_flags(memory, (unsigned)(uintptr_t)argument);
    leave_node(node);
    return result;
}

EXPORT int fcntl(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return control(descriptor, command, argument);
}
EXPORT int fcntl64(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return control(descriptor, command, argument);
}

// Memory for transfers; the kernel only makes it faster.
static void* map_any(void* address, size_t size, int protection, int flags, int descriptor, off_t offset) {
    struct node* const node =
        descriptor >= 0 && (flags & MAP_ANONYMOUS) == 0 && uses_nodes() ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return library()->mmap(address, size, protection, flags, descriptor, offset);
    }
    leave_node(node);
    return library()->mmap(address, size, protection, flags | MAP_ANONYMOUS, -1, 0);
}

EXPORT void* mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset) {
    return map_any(address, size, protection, flags, descriptor, offset);
}
EXPORT void* mmap64(void* address, size_t size, int protection, int flags, int descriptor, off64_t offset) {
    return map_any(address, size, protection, flags, descriptor, offset);
}

// ---- what a node is

enum { usb_major = 189, addresses_per_bus = 128 };

void describe_node(struct stat* status, const struct node_answer* node) {
    status->st_mode = S_IFCHR | node->mode;
    status->st_rdev = makedev(usb_major, (node->bus - 1) * addresses_per_bus + node->address - 1);
    status->st_dev = node->file_device;
    status->st_ino = node->file_inode;
    status->st_nlink = 1;
    status->st_size = 0;
    status->st_blocks = 0;
}

static void describe(int descriptor, struct stat* status) {
    struct node* const node = S_ISFIFO(status->st_mode) ? find_node(descriptor) : NULL;
    if (node == NULL) {
        return;
    }
    const struct opening_memory* const memory = memory_of(node);
    const struct node_answer facts = {.bus = memory->bus,
                                      .address = memory->address,
                                      .mode = memory->mode,
                                      .file_device = memory->file_device,
                                      .file_inode = memory->file_inode};
    describe_node(status, &facts);
    leave_node(node);
}

// The functions below do not call each other: a sanitizer may have replaced one, and call another of them in its place.
int status_of_descriptor(int descriptor, struct stat* status) {
    const int result = library()->fstat(descriptor, status);
    if (result == 0) {
        describe(descriptor, status);
    }
    return result;
}

EXPORT int fstat(int descriptor, struct stat* status) {
    return status_of_descriptor(descriptor, status);
}
// The same record on systems with 64 bits.
EXPORT int fstat64(int descriptor, struct stat64* status) {
    return status_of_descriptor(descriptor, (struct stat*)status);
}
EXPORT int __fxstat(int version, int descriptor, struct stat* status);
EXPORT int __fxstat(int version, int descriptor, struct stat* status) {
    (void)version;
    return status_of_descriptor(descriptor, status);
}
EXPORT int __fxstat64(int version, int descriptor, struct stat64* status);
EXPORT int __fxstat64(int version, int descriptor, struct stat64* status) {
    (void)version;
    return status_of_descriptor(descriptor, (struct stat*)status);
}

// ---- readiness

// The kernel reports an unplugged reader as an error and a hang-up, a pipe only as an error.
static short with_hang_up(int descriptor, short events) {
    if ((events & (POLLERR | POLLHUP)) != POLLERR) {
        return events;
    }
    struct node* const node = find_node(descriptor);
    if (node == NULL) {
        return events;
    }
    leave_node(node);
    return (short)(events | POLLHUP);
}

static int correct(struct pollfd* polled, nfds_t count, int ready) {
    for (nfds_t i = 0; ready > 0 && i < count; ++i) {
        polled[i].revents = with_hang_up(polled[i].fd, polled[i].revents);
    }
    return ready;
}

EXPORT int poll(struct pollfd* polled, nfds_t count, int timeout) {
    return correct(polled, count, library()->poll(polled, count, timeout));
}
EXPORT int ppoll(struct pollfd* polled, nfds_t count, const struct timespec* timeout, const sigset_t* mask) {
    return correct(polled, count, library()->ppoll(polled, count, timeout, mask));
}

// poll() and ppoll() in fortified programs.
EXPORT int __poll_chk(struct pollfd* polled, nfds_t count, int timeout, size_t size);
EXPORT int __poll_chk(struct pollfd* polled, nfds_t count, int timeout, size_t size) {
    if (size / sizeof *polled < count) {
        abort();
    }
    return correct(polled, count, library()->poll(polled, count, timeout));
}
EXPORT int __ppoll_chk(struct pollfd* polled, nfds_t count, const struct timespec* timeout,
                       const sigset_t* mask, size_t size);
EXPORT int __ppoll_chk(struct pollfd* polled, nfds_t count, const struct timespec* timeout,
                       const sigset_t* mask, size_t size) {
    if (size / sizeof *polled < count) {
        abort();
    }
    return correct(polled, count, library()->ppoll(polled, count, timeout, mask));
}

// The descriptor of an epoll event, which the kernel lists; -1 if it does not.
static int descriptor_of_event(int epoll, uint64_t data) {
    char path[64];
    char line[256];
    snprintf(path, sizeof path, "/proc/self/fdinfo/%d", epoll);
    FILE* const list = library()->fopen(path, "re");
    int found = -1;
    while (list != NULL && found < 0 && library()->fgets(line, sizeof line, list) != NULL) {
        int descriptor;
        unsigned events;
        unsigned long long listed;
        if (sscanf(line, "tfd: %d events: %x data: %llx", &descriptor, &events, &listed) == 3 &&
            listed == data) {
            found = descriptor;
        }
    }
    if (list != NULL) {
        library()->fclose(list);
    }
    return found;
}

static int correct_events(int epoll, struct epoll_event* events, int ready) {
    const int kept = errno;
    for (int i = 0; i < ready; ++i) {
        if (uses_nodes() && (events[i].events & (EPOLLERR | EPOLLHUP)) == EPOLLERR) {
            const int descriptor = descriptor_of_event(epoll, events[i].data.u64);
            if (descriptor >= 0 && with_hang_up(descriptor, POLLERR) != POLLERR) {
                events[i].events |= EPOLLHUP;
            }
        }
    }
    errno = kept;
    return ready;
}

EXPORT int epoll_wait(int epoll, struct epoll_event* events, int count, int timeout) {
    return correct_events(epoll, events, library()->epoll_wait(epoll, events, count, timeout));
}
EXPORT int epoll_pwait(int epoll, struct epoll_event* events, int count, int timeout, const sigset_t* mask) {
    return correct_events(epoll, events, library()->epoll_pwait(epoll, events, count, timeout, mask));
}
EXPORT int epoll_pwait2(int epoll, struct epoll_event* events, int count, const struct timespec* timeout,
                        const sigset_t* mask) {
    return correct_events(epoll, events, library()->epoll_pwait2(epoll, events, count, timeout, mask));
}

// ---- udev events: a Unix socket in the place of a netlink socket

EXPORT int socket(int domain, int type, int protocol) {
    if (domain == AF_NETLINK && protocol == NETLINK_KOBJECT_UEVENT && settings()->root != NULL) {
        return library()->socket(AF_UNIX, SOCK_DGRAM | (type & (SOCK_CLOEXEC | SOCK_NONBLOCK)), 0);
    }
    return library()->socket(domain, type, protocol);
}

// The launcher sends events to every socket in a folder. The name begins with the group: of the kernel or of udev.
static int listen_for_events(int descriptor, unsigned groups) {
    static uint32_t last;
    const char* const folder = settings()->folder;
    int result;
    do { // again if a name has been left by a program that this process ran before
        struct sockaddr_un address = {.sun_family = AF_UNIX};
        const uint32_t number = __atomic_add_fetch(&last, 1, __ATOMIC_RELAXED);
        const int length =
            snprintf(address.sun_path, sizeof address.sun_path, "%s/%s/%u.%d.%u",
                     folder != NULL ? folder : "", emulate_listeners, groups, (int)getpid(), number);
        if (length < 0 || (size_t)length >= sizeof address.sun_path) {
            errno = ENOBUFS;
            return -1;
        }
        result = library()->bind(descriptor, (const struct sockaddr*)&address, sizeof address);
    } while (result != 0 && errno == EADDRINUSE);
    return result;
}

EXPORT int bind(int descriptor, __CONST_SOCKADDR_ARG address, socklen_t length) {
    int domain = 0;
    socklen_t size = sizeof domain;
    struct sockaddr_nl netlink;
    if (length < sizeof netlink || address.__sockaddr__ == NULL ||
        !copy_from_program(&netlink, address.__sockaddr__, sizeof netlink) ||
        netlink.nl_family != AF_NETLINK ||
        getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) {
        return library()->bind(descriptor, address.__sockaddr__, length);
    }
    return listen_for_events(descriptor, netlink.nl_groups);
}

// Make a message of the launcher one of the kernel or of udev: its sender has no process, and is root.
static void disguise(struct msghdr* message) {
    const size_t known = sizeof(sa_family_t) + sizeof emulate_event_sender;
    struct sockaddr_un* const sender = message->msg_name;
    struct sockaddr_nl netlink = {.nl_family = AF_NETLINK, .nl_groups = 1};
    if (sender == NULL || message->msg_namelen < known || sender->sun_family != AF_UNIX ||
        sender->sun_path[0] != '\0' ||
        memcmp(sender->sun_path + 1, emulate_event_sender, sizeof emulate_event_sender - 1) != 0) {
        return;
    }
    if (message->msg_iovlen != 0 && message->msg_iov[0].iov_len >= 8 &&
        memcmp(message->msg_iov[0].iov_base, "libudev", 8) == 0) {
        netlink.nl_groups = 2;
    }
    memcpy(message->msg_name, &netlink, sizeof netlink);
    message->msg_namelen = sizeof netlink;
    for (struct cmsghdr* part = CMSG_FIRSTHDR(message); part != NULL; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS) {
            const struct ucred root = {.pid = 0, .uid = 0, .gid = 0};
            memcpy(CMSG_DATA(part), &root, sizeof root);
        }
    }
}

EXPORT ssize_t recvmsg(int descriptor, struct msghdr* message, int flags) {
    const ssize_t received = library()->recvmsg(descriptor, message, flags);
    if (received >= 0 && message->msg_name != NULL) {
        disguise(message);
    }
    return received;
}
