/*
 * A session with the first reader, with the standard output that argument 1 names, buffered as argument 2
 * says. Loads the library after standard output is set up. Exits with 0 if every call returns the same as
 * with any other standard output; otherwise names the call on standard error.
 */
#include "loaded.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Enough lines to make the C library flush its buffer repeatedly. */
enum { rounds = 5 };

_Noreturn static void fail(const char* what, int result) {
    fprintf(stderr, "%s gave %d\n", what, result);
    exit(1);
}

/* ---- Standard output, each checked to refuse writing */

static void check_refuses(int error) {
    if (write(STDOUT_FILENO, "x", 1) != -1 || errno != error) {
        fail("writing to standard output", errno);
    }
}

static void use_as_output(int descriptor) {
    if (dup2(descriptor, STDOUT_FILENO) != STDOUT_FILENO) {
        fail("dup2", errno);
    }
    close(descriptor);
}

static void make_full(void) {
    use_as_output(open("/dev/full", O_WRONLY));
    check_refuses(ENOSPC);
}

static void make_broken(void) {
    int ends[2];
    signal(SIGPIPE, SIG_IGN);
    if (pipe(ends) != 0) {
        fail("pipe", errno);
    }
    use_as_output(ends[1]);
    close(ends[0]);
    check_refuses(EPIPE);
}

/* The other end never reads. */
static void make_full_and_nonblocking(void) {
    static const char bytes[4096];
    int ends[2];
    if (pipe(ends) != 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0) {
        fail("pipe", errno);
    }
    while (write(ends[1], bytes, sizeof bytes) > 0) {
    }
    use_as_output(ends[1]);
    check_refuses(EAGAIN);
}

static void make_unwritable(void) {
    use_as_output(open("/dev/null", O_RDONLY));
    check_refuses(EBADF);
}

/*
 * A service may start with closed descriptors. The next file that is opened gets number 0, so libusb's first
 * descriptor gets number 1.
 */
static void make_closed(void) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    check_refuses(EBADF);
}

static const struct {
    const char* name;
    void (*make)(void);
} outputs[] = {
    {"full", make_full},
    {"broken", make_broken},
    {"nonblocking", make_full_and_nonblocking},
    {"unwritable", make_unwritable},
    {"closed", make_closed},
};

static void prepare_output(const char* name) {
    for (size_t i = 0; i < sizeof outputs / sizeof *outputs; ++i) {
        if (strcmp(outputs[i].name, name) == 0) {
            outputs[i].make();
            return;
        }
    }
    fail(name, 0);
}

static void set_buffering(const char* name) {
    const int buffering = strcmp(name, "full") == 0 ? _IOFBF : strcmp(name, "line") == 0 ? _IOLBF : _IONBF;
    setvbuf(stdout, NULL, buffering, 1024);
}

/* ---- The session */

static void expect(const char* what, int result, int wanted) {
    if (result != wanted) {
        fail(what, result);
    }
}

static void exchange(const struct loaded* gvusb, int handle) {
    static const unsigned char frame[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    unsigned char answer[64];
    char value[GVUSB_PARAMETER_SIZE] = "";
    const int count =
        gvusb->transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
    expect("an exchange", count, sizeof frame);
    expect("the answer", memcmp(answer, frame, sizeof frame), 0);
    expect("setting the time-out", gvusb->set_parameter(handle, "TIMEOUT", "1"), 0);
    expect("receiving", gvusb->receive(handle, GVUSB_PROTOCOL, answer, sizeof answer), GVUSB_ERR_TIMEOUT);
    expect("setting the time-out", gvusb->set_parameter(handle, "TIMEOUT", "60000"), 0);
    expect("presence", gvusb->is_present(handle), 1);
    expect("a parameter", gvusb->get_parameter(handle, "DEVICENAME", value), 0);
    expect("an unknown parameter", gvusb->get_parameter(handle, "colour", value),
           GVUSB_ERR_UNKNOWN_PARAMETER);
}

static void run_session(const struct loaded* gvusb) {
    for (int i = 0; i < rounds; ++i) {
        expect("a scan", gvusb->scan(GVUSB_SCAN_ALL, NULL), 0);
        const int handle = gvusb->scan_and_open(GVUSB_SCAN_FIRST, NULL);
        if (handle <= 0) {
            fail("opening", handle);
        }
        exchange(gvusb, handle);
        expect("closing", gvusb->close_device(handle), 0);
        expect("closing again", gvusb->close_device(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
    }
}

int main(int argc, char** argv) {
    struct loaded gvusb;
    if (argc != 3) {
        return 2;
    }
    prepare_output(argv[1]);
    set_buffering(argv[2]);
    if (!load(&gvusb)) {
        return 2;
    }
    run_session(&gvusb);
    return unload(&gvusb) ? 0 : 1;
}
