// The parts of the preload, which tells the recorder what a program does with USB devices.
//
// Any thread may call these functions, even before constructors have run and in signal handlers. They keep errno.
#pragma once

// Both would rename the functions that the preload replaces.
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "recorder/recording_memory.h"

#include <stdbool.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#define EXPORT __attribute__((visibility("default")))

// ---- functions.c: the next functions of these names, in the C library or in another preload

struct next {
    int (*open)(const char*, int, ...);
    int (*open64)(const char*, int, ...);
    int (*openat)(int, const char*, int, ...);
    int (*openat64)(int, const char*, int, ...);
    int (*__open_2)(const char*, int);
    int (*__open64_2)(const char*, int);
    int (*__openat_2)(int, const char*, int);
    int (*__openat64_2)(int, const char*, int);
    int (*close)(int);
    int (*close_range)(unsigned, unsigned, int); // may be null
    void (*closefrom)(int);                      // may be null
    int (*dup2)(int, int);
    int (*dup3)(int, int, int);
    ssize_t (*read)(int, void*, size_t);
    ssize_t (*pread)(int, void*, size_t, off_t);
    ssize_t (*readlink)(const char*, char*, size_t);
    int (*fstat)(int, struct stat*);
    int (*ioctl)(int, unsigned long, ...);
    ssize_t (*recvmsg)(int, struct msghdr*, int);
};

const struct next* next(void);

// ---- ring.c

// Whether entries are wanted. False in a program that is not recorded.
bool is_recording(void);

// Add an entry of this kind. Fills in the size, time, process and thread. Waits while the ring is full.
void record(struct recording_entry* entry, const void* data, size_t size);

// For data in two parts.
void record_two(struct recording_entry* entry, const void* data, size_t size, const void* more,
                size_t more_size);

// The high bits of the identity of transfers, which tell this process from others.
uint64_t process_bits(void);

// False in a child that shares its parent's memory, as after vfork().
bool is_recorded_process(void);

// ---- devices.c

struct place {
    uint16_t bus; // 0: none
    uint8_t address;
};

// The device of a node's path; none for other paths.
struct place place_of_path(const char* path);

// Tell the recorder what the device is, unless it knows it. From the descriptor of its node or, with -1, from sysfs.
void record_device(struct place place, int descriptor);

// A device came or left. The sequence number of the event tells it from later ones; 0 if it is unknown.
void record_presence(struct place place, bool present, uint64_t sequence);

// ---- descriptors.c

// The device behind a descriptor; none if it is not that of a node.
struct place place_of_descriptor(int descriptor);
