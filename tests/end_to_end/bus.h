/*
 * Controls the virtual bus that this program runs on, and queries what its readers have received.
 *
 * A rejected command is a mistake in the test: the program prints the command and the answer, and aborts.
 * Thread-safe.
 */
#ifndef GVUSB_TESTS_BUS_H
#define GVUSB_TESTS_BUS_H

#include <stdbool.h>
#include <stddef.h>

/* The longest frame that the tests send. */
enum { longest_frame = 65536 };

/* Run a command and return the text after "ok" in its answer, valid until the thread's next call. */
__attribute__((format(printf, 1, 2))) const char* bus(const char* format, ...);

/*
 * False if the readers are attached to a real kernel, where the bus cannot inject faults of the host or
 * observe what the host does, except for its requests to the readers.
 */
bool bus_is_emulated(void);

/* Plug in a new reader and return its number. */
int plug_new(const char* description);

/* The number of readers described, and whether one of them is plugged. */
int reader_count(void);
bool is_plugged(int reader);

/* How often the host did something with a reader: "opens", "claims", "clear-halts" ... */
long host_count(int reader, const char* what);

/* What a reader has received. */
struct seen_frame {
    long count; /* of all frames since the start; the other members describe the last one */
    int endpoint;
    size_t length;
    unsigned char bytes[longest_frame];
};
void read_seen_frame(int reader, struct seen_frame* frame);

/* Clear all faults and pending answers of all readers. */
void calm_bus(void);

/* Milliseconds of a monotonic clock. */
double now_ms(void);

/* Wait until a condition holds; false if it does not within the time. */
bool await(bool (*condition)(void* context), void* context, double longest_ms);

#endif
