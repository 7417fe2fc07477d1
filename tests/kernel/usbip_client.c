#include "usbip_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "usbip/wire.h"

static int connect_to(const char* server) {
    char address[64];
    snprintf(address, sizeof address, "%s", server);
    char* port = strrchr(address, ':');
    if (port == NULL) {
        return -1;
    }
    *port++ = '\0';
    struct sockaddr_in where = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(port))};
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int at_once = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    if (inet_pton(AF_INET, address, &where.sin_addr) != 1 ||
        connect(connection, (const struct sockaddr*)&where, sizeof where) != 0) {
        close(connection);
        return -1;
    }
    return connection;
}

static bool receive(int connection, void* data, size_t size) {
    return recv(connection, data, size, MSG_WAITALL) == (ssize_t)size;
}

static bool ask(int connection, uint16_t question, const void* data, size_t size, uint16_t expected) {
    const struct usbip_operation request = {htons(usbip_protocol_version), htons(question), 0};
    struct usbip_operation reply;
    return send(connection, &request, sizeof request, MSG_NOSIGNAL) == sizeof request &&
           (size == 0 || send(connection, data, size, MSG_NOSIGNAL) == (ssize_t)size) &&
           receive(connection, &reply, sizeof reply) && ntohs(reply.code) == expected &&
           reply.status == usbip_ok;
}

static struct usbip_reader reader_from(const struct usbip_device* device) {
    struct usbip_reader reader = {.remote_id = ntohl(device->bus) << 16 | ntohl(device->number),
                                  .speed = ntohl(device->speed)};
    memcpy(reader.bus_id, device->bus_id, sizeof reader.bus_id);
    return reader;
}

static int receive_list(int connection, struct usbip_reader* readers, int most) {
    uint32_t count = 0;
    if (!ask(connection, usbip_request_list, NULL, 0, usbip_reply_list) ||
        !receive(connection, &count, sizeof count) || ntohl(count) > (uint32_t)most) {
        return -1;
    }
    for (uint32_t i = 0; i < ntohl(count); ++i) {
        struct usbip_device device;
        struct usbip_interface interfaces[UINT8_MAX];
        if (!receive(connection, &device, sizeof device)) {
            return -1;
        }
        const size_t size = device.interfaces * sizeof interfaces[0];
        if (size > 0 && !receive(connection, interfaces, size)) {
            return -1;
        }
        readers[i] = reader_from(&device);
    }
    return (int)ntohl(count);
}

int usbip_readers(const char* server, struct usbip_reader* readers, int most) {
    const int connection = connect_to(server);
    if (connection < 0) {
        return -1;
    }
    const int count = receive_list(connection, readers, most);
    close(connection);
    return count;
}

/* The kernel takes over the connection. */
static bool hand_over(int connection, const struct usbip_reader* reader, int port) {
    char text[64];
    const int length =
        snprintf(text, sizeof text, "%d %d %u %u", port, connection, reader->remote_id, reader->speed);
    const int file = open("/sys/devices/platform/vhci_hcd.0/attach", O_WRONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const bool attached = write(file, text, (size_t)length) == length;
    close(file);
    return attached;
}

bool usbip_attach(const char* server, const struct usbip_reader* reader, int port) {
    const int connection = connect_to(server);
    if (connection < 0) {
        return false;
    }
    struct usbip_device device;
    const bool attached =
        ask(connection, usbip_request_import, reader->bus_id, sizeof reader->bus_id, usbip_reply_import) &&
        receive(connection, &device, sizeof device) && hand_over(connection, reader, port);
    close(connection);
    return attached;
}
