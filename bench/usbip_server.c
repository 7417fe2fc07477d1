// Measures the USB/IP server with a client of its own, and prints "NAME VALUE" lines.
//
//   gvusb-emulate --usbip --listen 127.0.0.1:0 --reader copies=2 -- gvusb_bench_usbip_server exchanges|deep|long|storm SECONDS
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "usbip/wire.h"

enum { frame = 16, depth = 16, long_frame = 1 << 20, pending = 4000, most_samples = 1 << 20 };

static uint32_t sequence;
static unsigned char data[long_frame];

static void fail(const char* what) {
    perror(what);
    _exit(EXIT_FAILURE);
}

static double seconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

static void send_all(int server, const void* bytes, size_t size) {
    if (send(server, bytes, size, MSG_NOSIGNAL) != (ssize_t)size) {
        fail("send");
    }
}

static void receive_all(int server, void* bytes, size_t size) {
    if (recv(server, bytes, size, MSG_WAITALL) != (ssize_t)size) {
        fail("recv");
    }
}

// Connect to the server and attach the reader with this number.
static int attach(int number) {
    char address[64];
    snprintf(address, sizeof address, "%s", getenv("GVUSB_EMULATE_USBIP"));
    char* port = strrchr(address, ':');
    *port++ = '\0';
    struct sockaddr_in where = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(port))};
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int at_once = 1;
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    inet_pton(AF_INET, address, &where.sin_addr);
    if (connect(server, (const struct sockaddr*)&where, sizeof where) != 0) {
        fail(address);
    }
    struct {
        struct usbip_operation operation;
        char bus_id[usbip_bus_id_size];
    } request = {.operation = {htons(usbip_protocol_version), htons(usbip_request_import), 0}};
    struct {
        struct usbip_operation operation;
        struct usbip_device device;
    } reply;
    snprintf(request.bus_id, sizeof request.bus_id, "1-%d", number);
    send_all(server, &request, sizeof request);
    receive_all(server, &reply, sizeof reply);
    return server;
}

static struct usbip_submit submit(int reader, enum usbip_direction direction, uint32_t length) {
    return (struct usbip_submit){.header = {.command = htonl(usbip_command_submit),
                                            .sequence = htonl(++sequence),
                                            .device = htonl(1U << 16 | (uint32_t)reader),
                                            .direction = htonl(direction),
                                            .endpoint = htonl(direction == usbip_out ? 2 : 1)},
                                 .length = htonl(length)};
}

static void send_frame(int server, int reader, uint32_t length) {
    static unsigned char message[sizeof(struct usbip_submit) + long_frame];
    const struct usbip_submit request = submit(reader, usbip_out, length);
    memcpy(message, &request, sizeof request);
    send_all(server, message, sizeof request + length);
}

static void fetch_frame(int server, int reader, uint32_t length) {
    const struct usbip_submit request = submit(reader, usbip_in, length);
    send_all(server, &request, sizeof request);
}

static void receive_reply(int server, bool with_data) {
    struct usbip_submit_reply reply;
    receive_all(server, &reply, sizeof reply);
    if (ntohl(reply.header.command) != usbip_reply_submit || reply.status != 0) {
        fail("reply");
    }
    if (with_data) {
        receive_all(server, data, ntohl(reply.actual_length));
    }
}

// As the kernel does it for a program that sends and then reads.
static void exchange(int server, int reader, uint32_t length) {
    send_frame(server, reader, length);
    receive_reply(server, false);
    fetch_frame(server, reader, length);
    receive_reply(server, true);
}

static double rate(int server, uint32_t length, double seconds) {
    const double begin = seconds_now();
    long count = 0;
    while (seconds_now() - begin < seconds) {
        exchange(server, 1, length);
        ++count;
    }
    return (double)count / (seconds_now() - begin);
}

// Transfers a second, with sixteen requests under way.
static double deep_rate(int server, double seconds) {
    const double begin = seconds_now();
    long count = 0;
    for (int i = 0; i < depth / 2; ++i) {
        send_frame(server, 1, frame);
        fetch_frame(server, 1, frame);
    }
    while (seconds_now() - begin < seconds) {
        receive_reply(server, false);
        receive_reply(server, true);
        send_frame(server, 1, frame);
        fetch_frame(server, 1, frame);
        count += 2;
    }
    return (double)count / (seconds_now() - begin);
}

static int compare(const void* a, const void* b) {
    const double first = *(const double*)a;
    const double second = *(const double*)b;
    return (first > second) - (first < second);
}

// Print the microseconds that half of the exchanges and 99 % of them take at most.
static void print_times(const char* name, int server, double seconds) {
    static double samples[most_samples];
    size_t count = 0;
    const double begin = seconds_now();
    for (double now = begin; now - begin < seconds && count < most_samples; ++count) {
        exchange(server, 1, frame);
        const double after = seconds_now();
        samples[count] = (after - now) * 1e6;
        now = after;
    }
    qsort(samples, count, sizeof samples[0], compare);
    printf("%s_us %.1f\n%s_99_us %.1f\n", name, samples[count / 2], name, samples[count * 99 / 100]);
}

// Submit thousands of transfers that wait, unlink all, and so on.
static void storm(int server) {
    static unsigned char replies[1 << 20];
    for (;;) {
        static struct usbip_submit submits[pending];
        static struct usbip_unlink unlinks[pending];
        for (int i = 0; i < pending; ++i) {
            submits[i] = submit(2, usbip_in, frame);
        }
        for (int i = 0; i < pending; ++i) {
            // From the middle, which is the hardest to find.
            const int other = (i + pending / 2) % pending;
            unlinks[i] = (struct usbip_unlink){.header = {.command = htonl(usbip_command_unlink),
                                                          .sequence = htonl(++sequence),
                                                          .device = submits[other].header.device},
                                               .unlinked = submits[other].header.sequence};
        }
        send_all(server, submits, sizeof submits);
        send_all(server, unlinks, sizeof unlinks);
        receive_all(server, replies, sizeof unlinks);
    }
}

static void measure_storm(double seconds) {
    const int server = attach(1);
    print_times("quiet", server, seconds);
    const pid_t other = fork();
    if (other == 0) {
        storm(attach(2));
    }
    usleep(100 * 1000);
    print_times("storm", server, seconds);
    kill(other, SIGKILL);
    waitpid(other, NULL, 0);
}

int main(int count, char** arguments) {
    if (count != 3) {
        return EXIT_FAILURE;
    }
    const double seconds = atof(arguments[2]);
    if (strcmp(arguments[1], "exchanges") == 0) {
        printf("exchanges_per_second %.0f\n", rate(attach(1), frame, seconds));
    } else if (strcmp(arguments[1], "deep") == 0) {
        printf("transfers_per_second %.0f\n", deep_rate(attach(1), seconds));
    } else if (strcmp(arguments[1], "long") == 0) {
        printf("mebibytes_per_second %.0f\n",
               2 * rate(attach(1), long_frame, seconds) * long_frame / (1 << 20));
    } else if (strcmp(arguments[1], "storm") == 0) {
        measure_storm(seconds);
    } else {
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
