// The parts of the preload: what each of them offers to the others.
//
// Any thread may call these functions, even before constructors have run and in signal handlers.
#pragma once

// Both would rename the functions that the preload defines.
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "preload_contract.h"
#include "usbfs/opening_memory.h"

#include <poll.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#define EXPORT __attribute__((visibility("default")))

struct statx;

// ---- functions.c: the C library's own functions, past umockdev's

struct library {
    int (*open)(const char*, int, ...);
    int (*openat)(int, const char*, int, ...);
    FILE* (*fopen)(const char*, const char*);
    FILE* (*freopen)(const char*, const char*, FILE*);
    int (*close)(int);
    int (*fclose)(FILE*);
    ssize_t (*read)(int, void*, size_t);
    ssize_t (*pread)(int, void*, size_t, off_t);
    ssize_t (*write)(int, const void*, size_t);
    size_t (*fread)(void*, size_t, size_t, FILE*);
    size_t (*fwrite)(const void*, size_t, size_t, FILE*);
    char* (*fgets)(char*, int, FILE*);
    off_t (*lseek)(int, off_t, int);
    void* (*mmap)(void*, size_t, int, int, int, off_t);
    int (*ioctl)(int, unsigned long, ...);
    int (*isatty)(int);
    ssize_t (*readlink)(const char*, char*, size_t);
    int (*fstat)(int, struct stat*);
    int (*fstatat)(int, const char*, struct stat*, int);
    int (*statx)(int, const char*, int, unsigned, struct statx*);
    int (*poll)(struct pollfd*, nfds_t, int);
    int (*ppoll)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
    int (*epoll_wait)(int, struct epoll_event*, int, int);
    int (*epoll_pwait)(int, struct epoll_event*, int, int, const sigset_t*);
    int (*epoll_pwait2)(int, struct epoll_event*, int, const struct timespec*,
                        const sigset_t*); // may be null
    int (*socket)(int, int, int);
    int (*bind)(int, const struct sockaddr*, socklen_t);
    int (*connect)(int, const struct sockaddr*, socklen_t);
    ssize_t (*recv)(int, void*, size_t, int);
    ssize_t (*recvmsg)(int, struct msghdr*, int);
    ssize_t (*send)(int, const void*, size_t, int);
};

const struct library* library(void);

// The C library's function of this name, and umockdev's, for functions that only choose between the two.
void* library_function(const char* name);
void* emulated_function(const char* name);

// ---- paths.c: which paths belong to the emulated bus

bool is_emulated_path(const char* path);

// Write the path of the file in the place of an emulated one. False if there is no bus or the path is too long.
bool find_place(char* place, size_t size, const char* path);

// The bus and address of a node's path; false for other paths.
bool is_node_path(const char* path, unsigned* bus, unsigned* address);

// ---- node.c: openings of nodes, found again by their descriptor

struct node; // an opening whose memory is mapped

// The node behind a descriptor, or null. Give it back with leave_node(). It keeps errno.
struct node* find_node(int descriptor);
void leave_node(struct node* node);
struct opening_memory* memory_of(struct node* node);

// Whether this process may have a descriptor of a node. False at first, and never false again.
bool uses_nodes(void);

// Open a node as open() would. Returns the descriptor, or -1 with errno.
int open_node(const char* place, unsigned bus, unsigned address, int flags);

// What the pipe with this inode is an opening of, in any process; false if of nothing.
bool describe_inode(uint64_t inode, struct node_answer* answer);

// Make the properties of a pipe those of the node.
void describe_node(struct stat* status, const struct node_answer* node);

// As fstat().
int status_of_descriptor(int descriptor, struct stat* status);

void ring_bell(const struct opening_memory* memory);

// ---- requests.c

// Answer an ioctl of usbfs, as ioctl() does.
int node_ioctl(struct node* node, int descriptor, unsigned long request, void* argument);

// ---- memory.c: the program's memory, whose pointers may be bad

// Copy between the program's memory and our own. False if a pointer is bad.
bool copy_from_program(void* to, const void* program, size_t size);
bool copy_to_program(void* program, const void* from, size_t size);
bool copy_pieces_to_program(const struct iovec* program, const struct iovec* from, size_t count);
