/*
 * The virtual bus that this program runs on: changes it and asks what its readers have seen.
 *
 * A command that the bus refuses is a mistake in the test: the program is aborted with both texts. Any
 * thread.
 */
#ifndef GVUSB_TESTS_BUS_H
#define GVUSB_TESTS_BUS_H

#include <stdbool.h>
#include <stddef.h>

/* The longest frame that the tests send. */
enum { longest_frame = 65536 };

/* Runs a command and returns what stands after "ok" in its answer; the text is valid until the thread's next
 * call. */
__attribute__((format(printf, 1, 2))) const char* bus(const char* format, ...);

/* False where the readers are attached to a real kernel: what goes wrong on the host's side cannot be played
 * there, and what the host does is not seen but for what it says to the readers. */
bool bus_is_emulated(void);

/* Plugs a new reader and returns its number. */
int plug_new(const char* description);

/* How many readers have been described, and whether one of them is plugged. */
int reader_count(void);
bool is_plugged(int reader);

/* How often the host did something to a reader: "opens", "claims", "clear-halts" ... */
long host_count(int reader, const char* what);

/* What a reader has received. */
struct seen_frame {
    long count; /* of all frames since the start; what follows is about the last one */
    int endpoint;
    size_t length;
    unsigned char bytes[longest_frame];
};
void read_seen_frame(int reader, struct seen_frame* frame);

/* Takes every fault back, of every reader, and what readers still wanted to say. */
void calm_bus(void);

/* Milliseconds since some moment of the past. */
double now_ms(void);

/* Waits until a condition holds; false when it does not within the time. */
bool await(bool (*condition)(void* context), void* context, double longest_ms);

#endif
