// The memory that a program shares with the launcher for each opening of a node, and the bell that wakes the launcher.
// In C, because the preload is written in C.
//
// A request is a place in the array. The program takes a free place, fills it in, marks it as filled and rings the bell.
// The launcher answers calls in place. It puts completed URBs into the ring, from which the program reaps them. Nothing
// is locked: a program that is stopped or killed at any point delays only itself, and keeps at most one place.
//
// The descriptor of an opening is the write end of a pipe of one page. It is not writable while the pipe contains a
// byte, and writable when the pipe is empty, which says that a URB can be reaped. The launcher empties the pipe, and
// whoever reaps the last URB fills it. The launcher has the read end: it learns there that all copies of the descriptor
// are closed, and closes it after unplugging, which polls as an error.
//
// The launcher trusts none of this: it takes each request out of the memory once, checks it, and keeps its own record.
#pragma once

#include <stdint.h>

enum {
    opening_requests = 4096,
    opening_words = opening_requests / 64, // of a set of requests
    opening_inline_size = 128,
    opening_block_size = 4096, // data that does not fit into the request is in blocks
    opening_blocks = 4096,
    opening_block_words = opening_blocks / 64,
    opening_most_endpoints = 32,
    opening_descriptors_size = 1 << 16,
    opening_setup_size = 8,
};

enum opening_operation {
    opening_submit = 1,                   // completes through the ring
    opening_transfer,                     // completes in place, as a synchronous transfer
    opening_call_first,                   // what follows is answered in place
    opening_prepare = opening_call_first, // claim the interface of an endpoint, if it is not claimed
    opening_prepare_interface,            // the same for the recipient of a control request
    opening_discard,                      // `value`: URB's address
    opening_cancel,                       // `value`: index of an opening_transfer
    opening_claim,
    opening_release,
    opening_set_interface,
    opening_set_configuration,
    opening_clear_halt,
    opening_reset_endpoint,
    opening_reset,
    opening_get_driver,
    opening_detach_driver,
    opening_attach_driver,
    opening_detach_and_claim,
    opening_signal_disconnect, // `value`: the context, `argument`: the signal
    opening_drop_privileges,
};

// The state of a request, a futex.
enum opening_state { opening_filled = 1, opening_answered };

struct opening_request {
    uint32_t state;
    uint32_t operation; // enum opening_operation
    uint64_t ticket;    // in the order of submission
    uint64_t time;      // of submission, in nanoseconds of the monotonic clock
    uint64_t value;
    uint32_t argument; // interface, endpoint, configuration, signal
    int32_t result;    // of a call: 0 or a negative errno; of a transfer: its status

    // A transfer. The addresses are in the program, and mean nothing to the launcher but to tell URBs apart.
    uint64_t urb;
    uint64_t buffer;
    uint32_t offset; // of the data in the memory
    uint32_t length; // of the buffer, without the setup packet
    uint32_t actual;
    uint32_t signal; // sent when the transfer has completed
    int32_t process; // that gets the signal
    uint8_t endpoint;
    uint8_t type; // as in a URB
    uint8_t short_not_ok;
    uint8_t zero_packet;
    uint8_t setup[opening_setup_size];

    char name[32]; // of a driver
    uint8_t data[opening_inline_size];
};

struct opening_endpoint {
    uint8_t address;
    uint8_t type; // as in a URB
    uint8_t interface_number;
    uint8_t reserved;
};

// Whether the pipe contains a byte. `filling`: the program is about to write it. `wanted`: the launcher wanted to empty
// the pipe, or to close its end, in the meantime; the program rings the bell when it has written. If it does not for a
// while, the launcher goes on without it.
enum opening_signal { opening_idle, opening_ready, opening_filling, opening_wanted };

struct opening_memory {
    // Facts that do not change.
    uint32_t index;  // in the bell
    uint32_t access; // O_RDONLY, O_WRONLY or O_RDWR
    int32_t launcher;
    uint32_t bus;
    uint32_t address;
    uint32_t speed; // as in enum usb_device_speed
    uint32_t port;
    uint32_t mode;
    uint32_t descriptors_size;
    uint32_t reserved;
    uint64_t file_device; // of the file in the node's place
    uint64_t file_inode;

    // Kept by the launcher.
    uint64_t claimed; // interfaces, by this opening
    uint32_t configured;
    uint32_t gone;   // unplugged
    uint32_t closed; // no descriptor is left
    uint32_t endpoint_count;
    struct opening_endpoint endpoints[opening_most_endpoints];
    uint32_t tail;      // of the ring
    uint32_t completed; // a futex: changes when a URB can be reaped and when the reader goes

    // Kept by the program.
    uint32_t head;     // of the ring
    uint32_t waiting;  // threads that wait for `completed` to change
    uint64_t position; // of read()
    uint64_t last_ticket;

    uint32_t signal;             // enum opening_signal
    uint32_t privileges_dropped; // a flag
    uint32_t flags;              // as fcntl() reports them, with the access

    uint64_t used[opening_words];   // requests
    uint64_t filled[opening_words]; // requests that the launcher has not seen
    uint64_t filled_words;          // words of `filled` that are not 0; opening_words bits
    uint64_t used_blocks[opening_block_words];
    uint16_t ring[opening_requests];
    uint8_t descriptors[opening_descriptors_size];
    struct opening_request requests[opening_requests];
    uint8_t blocks[opening_blocks * opening_block_size];
};

// One for all programs.
enum { bell_openings = 1 << 16, bell_words = bell_openings / 64 };

struct opening_bell {
    uint32_t rung;                   // a futex: how often
    uint32_t asleep;                 // whether the launcher waits for `rung` to change, or is about to
    uint64_t words[bell_words / 64]; // words of `openings` that are not 0
    uint64_t openings[bell_words];   // openings with filled requests
};

// ---- the launcher's socket for opening nodes: one message and one answer on each connection

enum { node_open = 1, node_find, node_describe };

struct node_question {
    uint32_t kind;
    uint32_t bus;
    uint32_t address;
    int32_t flags;  // as fcntl() reports them
    uint64_t inode; // of the descriptor, for node_find and node_describe
};

// Followed by descriptors if `error` is 0: for node_open the opening's own, and for node_find too, of the memory and the
// bell.
struct node_answer {
    int32_t error;
    uint32_t bus;
    uint32_t address;
    uint32_t mode;
    uint64_t file_device; // of the file in the node's place
    uint64_t file_inode;
};
