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

#include <dirent.h>
#include <glob.h>
#include <limits.h>
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
// For what needs much stack, which other paths through a function must not reserve: signal handlers have little.
#define APART __attribute__((noinline))

struct FTW;
struct file_handle;
struct statfs;
struct statvfs;
struct statx;

// ---- functions.c: the C library's own functions

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
    char* (*fgets)(char*, int, FILE*);
    off_t (*lseek)(int, off_t, int);
    void* (*mmap)(void*, size_t, int, int, int, off_t);
    int (*ioctl)(int, unsigned long, ...);
    int (*fcntl)(int, int, ...);
    long (*syscall)(long, ...);
    void* (*memcpy)(void*, const void*, size_t);
    int (*poll)(struct pollfd*, nfds_t, int);
    int (*ppoll)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
    int (*epoll_wait)(int, struct epoll_event*, int, int);
    int (*epoll_pwait)(int, struct epoll_event*, int, int, const sigset_t*);
    int (*epoll_pwait2)(int, struct epoll_event*, int, const struct timespec*,
                        const sigset_t*); // may be null
    int (*socket)(int, int, int);
    int (*bind)(int, const struct sockaddr*, socklen_t);
    int (*connect)(int, const struct sockaddr*, socklen_t);
    ssize_t (*recvmsg)(int, struct msghdr*, int);
    ssize_t (*send)(int, const void*, size_t, int);

    // Paths.
    int (*fstat)(int, struct stat*);
    int (*fstatat)(int, const char*, struct stat*, int);
    int (*statx)(int, const char*, int, unsigned, struct statx*);
    int (*statfs)(const char*, struct statfs*);
    int (*fstatfs)(int, struct statfs*);
    int (*statvfs)(const char*, struct statvfs*);
    int (*access)(const char*, int);
    int (*faccessat)(int, const char*, int, int);
    int (*euidaccess)(const char*, int);
    ssize_t (*readlink)(const char*, char*, size_t);
    ssize_t (*readlinkat)(int, const char*, char*, size_t);
    char* (*realpath)(const char*, char*);
    int (*chdir)(const char*);
    char* (*getcwd)(char*, size_t);
    char* (*get_current_dir_name)(void);
    int (*inotify_add_watch)(int, const char*, uint32_t);
    ssize_t (*getxattr)(const char*, const char*, void*, size_t);
    ssize_t (*lgetxattr)(const char*, const char*, void*, size_t);
    ssize_t (*listxattr)(const char*, char*, size_t);
    ssize_t (*llistxattr)(const char*, char*, size_t);
    int (*name_to_handle_at)(int, const char*, struct file_handle*, int*, int);
    int (*chmod)(const char*, mode_t);
    int (*fchmodat)(int, const char*, mode_t, int);
    int (*chown)(const char*, uid_t, gid_t);
    int (*lchown)(const char*, uid_t, gid_t);
    int (*fchownat)(int, const char*, uid_t, gid_t, int);
    int (*mkdir)(const char*, mode_t);
    int (*mkdirat)(int, const char*, mode_t);
    int (*rmdir)(const char*);
    int (*unlink)(const char*);
    int (*unlinkat)(int, const char*, int);

    // Folders.
    DIR* (*opendir)(const char*);
    int (*scandir)(const char*, struct dirent***, int (*)(const struct dirent*),
                   int (*)(const struct dirent**, const struct dirent**));
    int (*scandirat)(int, const char*, struct dirent***, int (*)(const struct dirent*),
                     int (*)(const struct dirent**, const struct dirent**));
    int (*glob)(const char*, int, int (*)(const char*, int), glob_t*);
    int (*ftw)(const char*, int (*)(const char*, const struct stat*, int), int);
    int (*nftw)(const char*, int (*)(const char*, const struct stat*, int, struct FTW*), int, int);
};

const struct library* library(void);

// ---- settings.c: what the launcher has put into the environment, as it was when the program started

struct settings {
    const char* folder; // the launcher's; null without a bus
    const char* root;   // of the emulated /sys, /dev/bus and /run/udev; null without a bus
    size_t root_length;
    const char* configuration_file; // to open instead of the library's; null to open this
};

const struct settings* settings(void);

// ---- paths.c: which paths belong to the emulated bus

// False if a path surely does not lead to the emulated bus. Relative paths are examined by find_place().
bool may_be_emulated(const char* path);

// The file in the place of one on the emulated bus.
struct place {
    unsigned bus; // of a node; 0 for all others
    unsigned address;
    bool in_sysfs;
    const char* path; // absolute if it is not the program's own
    char text[PATH_MAX];
};

// Where a path leads from a folder, or from AT_FDCWD.
void find_place(struct place* place, int folder, const char* path);

// What follows the root in a path of the scratch folder; null for all others. "/" for the root itself.
const char* path_below_root(const char* path);

// The path of an open file or folder, or of the working directory for AT_FDCWD. Returns its length, 0 if it is unknown.
size_t path_of_descriptor(char* path, size_t size, int descriptor);

// As fstatat(), for all paths.
int status_of_path(int folder, const char* path, struct stat* status, int flags);

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
