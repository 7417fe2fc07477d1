// The memory through which recorded programs pass what they do to the recorder: a ring of entries. In C, because the
// preload is written in C.
//
// Writers hold `writing` and move `written` when an entry is whole. A writer that is killed leaves nothing behind, because
// what it has not counted is overwritten. The recorder alone moves `taken`. It holds `recording` as long as it lives, so
// that writers who wait for room notice its death.
//
// Any thread.
#pragma once

#include <pthread.h>
#include <stdint.h>

// Names the memory for the programs: "/proc/PID/fd/NUMBER:KEY". The key tells it from other files of the name.
static const char recording_variable[] = "GVUSB_RECORD";

#ifdef __cplusplus
#define RECORDING_ALIGNED alignas(64)
#else
#define RECORDING_ALIGNED _Alignas(64)
#endif

#define RECORDING_MAGIC UINT64_C(0x3162737576672d72)

enum {
    recording_ring_size = 1 << 22, // a power of 2; small, so that it stays in the processor's cache
    recording_alignment = 8,
    recording_most_data = 262144 - 64, // of an entry; more is cut
    recording_numbers = 4,
};

enum recording_kind {
    recording_skip, // up to the end of the ring
    recording_submission,
    recording_completion,
    recording_submission_error,
    recording_device, // data: see recording_facts
    recording_came,
    recording_left,
    recording_open,
    recording_close,
    recording_claim,
    recording_release,
    recording_detach,
    recording_attach,
    recording_set_configuration,
    recording_set_interface,
    recording_reset,
    recording_clear_halt,
    recording_reset_endpoint,
    recording_discard,
    recording_call,
    recording_return,
    recording_kinds,
};

// The functions of the library, in numbers[0] of their calls and returns.
enum recording_function {
    recording_scan,
    recording_scan_and_open,
    recording_get_scan_list_para,
    recording_get_scan_list_size,
    recording_clear_scan_list,
    recording_open_device,
    recording_close_device,
    recording_is_device_present,
    recording_get_device_list,
    recording_get_device_hnd,
    recording_transceive,
    recording_transmit,
    recording_receive,
    recording_get_device_para,
    recording_set_device_para,
    recording_add_event_handler,
    recording_del_event_handler,
    recording_functions,
};

enum { recording_with_setup = 1 };

struct recording_entry {
    uint32_t size; // with the data, a multiple of the alignment
    uint16_t kind;
    uint16_t bus;
    int64_t time; // nanoseconds since 1970; unaffected when the clock is set
    uint64_t id;  // of a transfer; of a device's coming and going, the event's sequence number
    int32_t process;
    int32_t thread;
    int32_t result;  // or status
    uint32_t length; // of the transfer
    uint32_t data_size;
    uint8_t address;
    uint8_t type; // as usbmon numbers it
    uint8_t endpoint;
    uint8_t flags;
    uint8_t setup[8];
    int32_t numbers[recording_numbers];
};

// The data of a recording_device: this, then the descriptors, as in the node.
struct recording_facts {
    char name[32];
    char speed[8];
    char configuration[8];
    char manufacturer[128];
    char product[128];
    char serial[128];
};

struct recording_memory {
    uint64_t magic;
    uint64_t key;
    uint32_t closed; // nothing is recorded any more
    uint32_t processes;
    uint64_t lost;        // entries
    int64_t clock_offset; // nanoseconds from CLOCK_MONOTONIC to the time of day when the recording began
    pthread_mutex_t writing;
    pthread_mutex_t recording;
    RECORDING_ALIGNED uint64_t written; // bytes since the beginning
    RECORDING_ALIGNED uint64_t taken;
    RECORDING_ALIGNED unsigned char ring[recording_ring_size];
};
