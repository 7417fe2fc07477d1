// Hostile and unlucky programs on the emulated bus: nothing may end them, hang them or hold up others.
//
//   gvusb-emulate --reader id=A1 --reader id=B2 -- free CASE
#include "bus.h"
#include "usbfs/opening_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/usbdevice_fs.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { bulk_in = 0x81, bulk_out = 0x02, patience_ms = 60000 };

static int failures;

static void expect(const char* what, long got, long wanted) {
    if (got != wanted) {
        ++failures;
        fprintf(stderr, "%s: %ld instead of %ld\n", what, got, wanted);
    }
}

// The node of a reader, as "list" names its place.
static bool find_path(int reader, char* path, size_t size) {
    char copy[4096];
    char pattern[16];
    unsigned bus_number;
    unsigned address;
    snprintf(copy, sizeof copy, "; %s", bus("list"));
    snprintf(pattern, sizeof pattern, "; %d ", reader);
    const char* const found = strstr(copy, pattern);
    if (found == NULL || sscanf(found + strlen(pattern), "%*s %u/%u", &bus_number, &address) != 2) {
        return false;
    }
    snprintf(path, size, "/dev/bus/usb/%03u/%03u", bus_number, address);
    return true;
}

static int open_reader(int reader) {
    char path[64];
    const int node = find_path(reader, path, sizeof path) ? open(path, O_RDWR | O_CLOEXEC) : -1;
    unsigned interface = 0;
    if (node < 0 || ioctl(node, USBDEVFS_CLAIMINTERFACE, &interface) != 0) {
        perror("open a reader");
        _exit(EXIT_FAILURE);
    }
    return node;
}

static bool exchange(int node) {
    unsigned char data[16] = {0};
    struct usbdevfs_bulktransfer out = {.ep = bulk_out, .len = 16, .timeout = patience_ms, .data = data};
    struct usbdevfs_bulktransfer in = {.ep = bulk_in, .len = 16, .timeout = patience_ms, .data = data};
    return ioctl(node, USBDEVFS_BULK, &out) == 16 && ioctl(node, USBDEVFS_BULK, &in) == 16;
}

static void pause_ms(long duration) {
    const struct timespec time = {.tv_sec = duration / 1000, .tv_nsec = duration % 1000 * 1000000};
    nanosleep(&time, NULL);
}

static atomic_bool ending;

// ---- changes of the bus

static void* configure_always(void* context) {
    (void)context;
    while (!ending) {
        char path[64];
        const int node = find_path(1, path, sizeof path) ? open(path, O_RDWR | O_CLOEXEC) : -1;
        unsigned value = 1;
        for (int i = 0; node >= 0 && i < 20; ++i) {
            ioctl(node, USBDEVFS_SETCONFIGURATION, &value);
        }
        if (node >= 0) {
            close(node);
        }
    }
    return NULL;
}

static void configures_while_unplugged(void) {
    pthread_t thread;
    pthread_create(&thread, NULL, configure_always, NULL);
    for (int i = 0; i < 300; ++i) {
        bus("replug 1");
    }
    ending = true;
    pthread_join(thread, NULL);
    expect("exchange", exchange(open_reader(1)), true);
}

// Opens whatever address the reader may have next.
static void* open_always(void* context) {
    (void)context;
    for (unsigned address = 0; !ending; ++address) {
        char path[64];
        snprintf(path, sizeof path, "/dev/bus/usb/001/%03u", 2 + address % 126);
        const int node = open(path, O_RDWR | O_CLOEXEC);
        if (node >= 0) {
            exchange(node);
            close(node);
        } else if (errno != ENOENT) {
            perror(path);
            abort();
        }
    }
    return NULL;
}

static void opens_while_plugged_and_unplugged(void) {
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i) {
        pthread_create(&threads[i], NULL, open_always, NULL);
    }
    for (int i = 0; i < 500; ++i) {
        bus("replug 1");
    }
    ending = true;
    for (int i = 0; i < 2; ++i) {
        pthread_join(threads[i], NULL);
    }
    expect("exchange", exchange(open_reader(1)), true);
}

// ---- close() and open()

static volatile sig_atomic_t signals;

static void close_in_handler(int number) {
    (void)number;
    const int error = errno;
    close(dup(STDIN_FILENO));
    ++signals;
    errno = error;
}

static void closes_in_a_signal_handler(void) {
    struct sigaction action = {.sa_handler = close_in_handler, .sa_flags = SA_RESTART};
    const struct itimerval often = {.it_interval = {.tv_usec = 200}, .it_value = {.tv_usec = 200}};
    const struct itimerval never = {0};
    sigaction(SIGALRM, &action, NULL);
    setitimer(ITIMER_REAL, &often, NULL);
    while (signals < 2000) {
        const int node = open_reader(1);
        expect("exchange", exchange(node), true);
        close(node);
    }
    setitimer(ITIMER_REAL, &never, NULL);
}

static void* use_always(void* path) {
    while (!ending) {
        const int node = open(path, O_RDWR | O_CLOEXEC);
        exchange(node);
        close(node);
    }
    return NULL;
}

// A thread may be cancelled anywhere in open(), ioctl() and close().
static void cancelled_threads_leave_nothing_locked(void) {
    char path[64];
    find_path(2, path, sizeof path);
    for (int i = 0; i < 200; ++i) {
        pthread_t thread;
        pthread_create(&thread, NULL, use_always, path);
        pause_ms(i % 3);
        pthread_cancel(thread);
        pthread_join(thread, NULL);
    }
    expect("exchange", exchange(open_reader(1)), true);
}

struct fifo {
    char path[64];
    int reading;
};

static void* open_for_reading(void* context) {
    struct fifo* const fifo = context;
    fifo->reading = open(fifo->path, O_RDONLY | O_CLOEXEC);
    return NULL;
}

// Each end of a FIFO waits for the other, outside /dev and below it.
static void opens_both_ends_of_a_fifo(void) {
    static const char* const folders[] = {"/tmp", "/dev/shm"};
    for (size_t i = 0; i < sizeof folders / sizeof folders[0]; ++i) {
        struct fifo fifo = {.reading = -1};
        pthread_t thread;
        snprintf(fifo.path, sizeof fifo.path, "%s/gvusb-test-fifo.%d", folders[i], (int)getpid());
        if (mkfifo(fifo.path, 0600) != 0) {
            perror(fifo.path);
            _exit(EXIT_FAILURE);
        }
        pthread_create(&thread, NULL, open_for_reading, &fifo);
        pause_ms(20);
        const int node = open_reader(1); // meanwhile
        expect("exchange while an open waits", exchange(node), true);
        close(node);
        const int writing = open(fifo.path, O_WRONLY | O_CLOEXEC);
        pthread_join(thread, NULL);
        expect("both ends", writing >= 0 && fifo.reading >= 0, true);
        unlink(fifo.path);
        close(writing);
        close(fifo.reading);
    }
}

struct lingering {
    int descriptor;
    atomic_bool closed;
};

static void* close_lingering(void* context) {
    struct lingering* const lingering = context;
    close(lingering->descriptor);
    lingering->closed = true;
    return NULL;
}

// A close() that waits holds up no other.
static void closes_while_another_close_lingers(void) {
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t size = sizeof address;
    const struct linger linger = {.l_onoff = 1, .l_linger = 100};
    static char data[65536];
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct lingering lingering = {.descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    pthread_t thread;
    if (bind(listening, (struct sockaddr*)&address, size) != 0 || listen(listening, 1) != 0 ||
        getsockname(listening, (struct sockaddr*)&address, &size) != 0 ||
        connect(lingering.descriptor, (struct sockaddr*)&address, size) != 0) {
        perror("connect");
        _exit(EXIT_FAILURE);
    }
    const int peer = accept4(listening, NULL, NULL, SOCK_CLOEXEC);
    // More than the peer has room for.
    while (send(lingering.descriptor, data, sizeof data, MSG_DONTWAIT) > 0) {
    }
    setsockopt(lingering.descriptor, SOL_SOCKET, SO_LINGER, &linger, sizeof linger);
    pthread_create(&thread, NULL, close_lingering, &lingering);
    pause_ms(20);
    for (int i = 0; i < 100; ++i) {
        const int node = open_reader(1);
        expect("exchange", exchange(node), true);
        close(node);
        close(open("/dev/null", O_RDWR | O_CLOEXEC));
    }
    expect("closed", lingering.closed, false);
    close(peer);
    pthread_join(thread, NULL);
    close(listening);
}

// A child of a program whose other threads are busy with the bus.
static void forks_while_threads_use_the_bus(void) {
    pthread_t threads[2];
    char path[64];
    find_path(2, path, sizeof path);
    for (int i = 0; i < 2; ++i) {
        pthread_create(&threads[i], NULL, use_always, path);
    }
    for (int i = 0; i < 100; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(30);
            struct stat status;
            const int node = open("/dev/bus/usb/001/001", O_RDWR | O_CLOEXEC);
            const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
            const bool sound = node >= 0 && null >= 0 && stat("/", &status) == 0;
            close(node);
            close(null);
            _exit(sound ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        expect("child", status, 0);
    }
}

// ---- others

static pid_t start_stopped_user(void) {
    const pid_t child = fork();
    if (child == 0) {
        const int node = open_reader(2);
        unsigned char data[64];
        struct usbdevfs_urb in;
        memset(&in, 0, sizeof in);
        in.type = USBDEVFS_URB_TYPE_BULK;
        in.endpoint = bulk_in;
        in.buffer = data;
        in.buffer_length = sizeof data;
        ioctl(node, USBDEVFS_SUBMITURB, &in);
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, WUNTRACED);
    expect("stopped", WIFSTOPPED(status), true);
    return child;
}

static void a_stopped_program_delays_nobody(void) {
    const pid_t child = start_stopped_user();
    const int node = open_reader(1);
    for (int i = 0; i < 1000; ++i) {
        expect("exchange", exchange(node), true);
    }
    bus("replug 2");
    for (int i = 0; i < 100; ++i) {
        expect("exchange", exchange(node), true);
    }
    close(node);
    kill(child, SIGKILL);
    waitpid(child, NULL, 0);
}

static int open_monitor(unsigned groups) {
    const struct sockaddr_nl address = {.nl_family = AF_NETLINK, .nl_groups = groups};
    const int monitor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    expect("monitor", monitor >= 0 && bind(monitor, (const struct sockaddr*)&address, sizeof address) == 0,
           true);
    return monitor;
}

// Reads events until there are as many, and none comes after them.
static void expect_events(const char* what, int monitor, long wanted) {
    char message[4096];
    long events = 0;
    struct pollfd polled = {.fd = monitor, .events = POLLIN};
    while (poll(&polled, 1, events < wanted ? patience_ms : 100) > 0 &&
           recv(monitor, message, sizeof message, 0) > 0) {
        ++events;
    }
    expect(what, events, wanted);
}

// Nobody waits for a program that does not read its events, and none is lost.
static void monitors_may_be_read_late(void) {
    enum { replugs = 300 };
    const int of_kernel = open_monitor(1);
    const int of_udev = open_monitor(2);
    for (int i = 0; i < replugs; ++i) {
        bus("replug 1");
    }
    expect("exchange", exchange(open_reader(1)), true);
    expect_events("events of the kernel", of_kernel, 2L * replugs);
    expect_events("events of udev", of_udev, 2L * replugs);
}

static void has_many_monitors(void) {
    enum { monitors = 200 };
    int opened[monitors];
    for (int i = 0; i < monitors; ++i) {
        opened[i] = open_monitor(2);
    }
    bus("replug 1");
    for (int i = 0; i < monitors; ++i) {
        char message[4096];
        struct pollfd polled = {.fd = opened[i], .events = POLLIN};
        expect("event", poll(&polled, 1, patience_ms), 1);
        expect("message", recv(opened[i], message, sizeof message, 0) > 0, true);
        close(opened[i]);
    }
    bus("replug 1");
}

// What the program writes into the shared memory of an opening ends neither the launcher nor others.
static void scribbles_over_shared_memory(void) {
    const int node = open_reader(2);
    FILE* const maps = fopen("/proc/self/maps", "re");
    char line[512];
    unsigned seed = 1;
    while (maps != NULL && fgets(line, sizeof line, maps) != NULL) {
        unsigned long first;
        unsigned long last;
        if (strstr(line, "/memfd:gvusb-") == NULL || sscanf(line, "%lx-%lx", &first, &last) != 2) {
            continue;
        }
        for (int round = 0; round < 50; ++round) {
            unsigned char* const bytes = (unsigned char*)first; // NOLINT(performance-no-int-to-ptr)
            const size_t size = last - first < 200000 ? last - first : 200000;
            for (size_t i = 0; i < size; ++i) {
                seed = seed * 1103515245 + 12345;
                bytes[i] = (unsigned char)(seed >> 16);
            }
            const int other = open_reader(1);
            close(other);
        }
    }
    if (maps != NULL) {
        fclose(maps);
    }
    const pid_t child = fork();
    if (child == 0) {
        execl("/proc/self/exe", "free", "uses_reader_1", (char*)NULL);
        _exit(99);
    }
    int status = -1;
    waitpid(child, &status, 0);
    expect("another program", status, 0);
    close(node);
    fflush(NULL);
    _exit(failures != 0); // what is mapped is of no more use
}

// ---- killed at the worst moment

// The memory that this process shares with the launcher for its only opening.
static struct opening_memory* shared_memory(void) {
    FILE* const maps = fopen("/proc/self/maps", "re");
    char line[512];
    unsigned long first = 0;
    while (maps != NULL && fgets(line, sizeof line, maps) != NULL) {
        if (strstr(line, "/memfd:gvusb-opening") != NULL && sscanf(line, "%lx-", &first) == 1) {
            break;
        }
    }
    if (maps != NULL) {
        fclose(maps);
    }
    if (first == 0) {
        fprintf(stderr, "no shared memory\n");
        _exit(EXIT_FAILURE);
    }
    return (struct opening_memory*)first; // NOLINT(performance-no-int-to-ptr)
}

static int polled(int node, int patience) {
    struct pollfd polled = {.fd = node, .events = POLLIN | POLLOUT};
    return poll(&polled, 1, patience) > 0 ? polled.revents : 0;
}

static void submit_out(int node, struct usbdevfs_urb* urb, unsigned char* data) {
    memset(urb, 0, sizeof *urb);
    urb->type = USBDEVFS_URB_TYPE_BULK;
    urb->endpoint = bulk_out;
    urb->buffer = data;
    urb->buffer_length = 16;
    expect("submit", ioctl(node, USBDEVFS_SUBMITURB, urb), 0);
}

// As a process does that is killed while it reaps the last URB: it has marked that it writes the byte by which the node
// is no longer writable, and has written it or not.
static void be_killed_while_reaping(int node, bool written) {
    const pid_t child = fork();
    if (child == 0) {
        __atomic_store_n(&shared_memory()->signal, opening_filling, __ATOMIC_SEQ_CST);
        if (written) {
            syscall(SYS_write, node, "", 1);
        }
        kill(getpid(), SIGKILL);
    }
    waitpid(child, NULL, 0);
}

static void reap_one(int node) {
    void* reaped = NULL;
    expect("reap", ioctl(node, USBDEVFS_REAPURBNDELAY, &reaped), 0);
}

static void sharers_of_a_killed_program_are_woken(void) {
    for (int written = 0; written < 2; ++written) {
        const int node = open_reader(1);
        unsigned char data[16] = {0};
        struct usbdevfs_urb first;
        struct usbdevfs_urb second;
        submit_out(node, &first, data);
        expect("first", polled(node, patience_ms), POLLOUT);
        be_killed_while_reaping(node, written);
        reap_one(node);
        submit_out(node, &second, data);
        expect("second", polled(node, patience_ms), POLLOUT);
        void* reaped = NULL;
        while (ioctl(node, USBDEVFS_REAPURBNDELAY, &reaped) != 0) {
            expect("not yet", errno, EAGAIN);
            pause_ms(1);
        }
        // The launcher has settled it when the byte is there again.
        for (int i = 0; i < patience_ms && polled(node, 0) != 0; ++i) {
            void* none = NULL;
            expect("reaped", ioctl(node, USBDEVFS_REAPURBNDELAY, &none), -1);
            pause_ms(1);
        }
        expect("idle", polled(node, 0), 0);
        submit_out(node, &second, data);
        expect("third", polled(node, patience_ms), POLLOUT);
        reap_one(node);
        expect("idle again", polled(node, 0), 0);
        close(node);
    }
}

static void sharers_of_a_killed_program_see_the_unplugging(void) {
    const int node = open_reader(1);
    unsigned char data[16] = {0};
    struct usbdevfs_urb urb;
    submit_out(node, &urb, data);
    expect("first", polled(node, patience_ms), POLLOUT);
    be_killed_while_reaping(node, true);
    reap_one(node);
    bus("replug 1");
    expect("unplugged", polled(node, patience_ms) & (POLLERR | POLLHUP), POLLERR | POLLHUP);
    close(node);
}

// A URB that one thread reaps before the launcher has signalled it.
static void a_late_signal_is_taken_back(void) {
    const int node = open_reader(1);
    unsigned char data[16] = {0};
    struct usbdevfs_urb urb;
    submit_out(node, &urb, data);
    expect("first", polled(node, patience_ms), POLLOUT);
    __atomic_store_n(&shared_memory()->signal, opening_idle, __ATOMIC_SEQ_CST);
    reap_one(node);
    __atomic_store_n(&shared_memory()->signal, opening_ready, __ATOMIC_SEQ_CST);
    expect("signalled", polled(node, patience_ms), POLLOUT);
    void* none = NULL;
    expect("nothing", ioctl(node, USBDEVFS_REAPURBNDELAY, &none), -1);
    expect("taken back", polled(node, 0), 0);
    close(node);
}

static void* replug_always(void* context) {
    (void)context;
    while (!ending) {
        bus("replug 1");
        pause_ms(2);
    }
    return NULL;
}

// libusb waits for no URB that it submits after poll() has reported that the reader is gone.
static void takes_no_urb_after_the_hang_up(void) {
    pthread_t thread;
    pthread_create(&thread, NULL, replug_always, NULL);
    for (int i = 0; i < 200;) {
        char path[64];
        const int node = find_path(1, path, sizeof path) ? open(path, O_RDWR | O_CLOEXEC) : -1;
        uint32_t word;
        if (node < 0) {
            continue;
        }
        while ((polled(node, 0) & POLLERR) == 0) {
        }
        expect("request", ioctl(node, USBDEVFS_GET_CAPABILITIES, &word) == -1 && errno == ENODEV, true);
        close(node);
        ++i;
    }
    ending = true;
    pthread_join(thread, NULL);
}

static void uses_reader_1(void) {
    expect("exchange", exchange(open_reader(1)), true);
}

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"configures_while_unplugged", configures_while_unplugged},
    {"opens_while_plugged_and_unplugged", opens_while_plugged_and_unplugged},
    {"closes_in_a_signal_handler", closes_in_a_signal_handler},
    {"cancelled_threads_leave_nothing_locked", cancelled_threads_leave_nothing_locked},
    {"opens_both_ends_of_a_fifo", opens_both_ends_of_a_fifo},
    {"closes_while_another_close_lingers", closes_while_another_close_lingers},
    {"forks_while_threads_use_the_bus", forks_while_threads_use_the_bus},
    {"a_stopped_program_delays_nobody", a_stopped_program_delays_nobody},
    {"monitors_may_be_read_late", monitors_may_be_read_late},
    {"has_many_monitors", has_many_monitors},
    {"scribbles_over_shared_memory", scribbles_over_shared_memory},
    {"sharers_of_a_killed_program_are_woken", sharers_of_a_killed_program_are_woken},
    {"sharers_of_a_killed_program_see_the_unplugging", sharers_of_a_killed_program_see_the_unplugging},
    {"a_late_signal_is_taken_back", a_late_signal_is_taken_back},
    {"takes_no_urb_after_the_hang_up", takes_no_urb_after_the_hang_up},
    {"uses_reader_1", uses_reader_1},
};

int main(int count, char** arguments) {
    for (size_t i = 0; count == 2 && i < sizeof cases / sizeof cases[0]; ++i) {
        if (strcmp(cases[i].name, arguments[1]) == 0) {
            cases[i].run();
            return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
        }
    }
    fprintf(stderr, "usage: free CASE\n");
    return EXIT_FAILURE;
}
