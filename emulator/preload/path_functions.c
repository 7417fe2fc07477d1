// Functions that take a path, each of which umockdev's preload replaces: it looks up paths of the emulated bus, under a
// lock. All other paths go straight to the C library, so that a program that does not use the bus never takes this lock.

#include "preload.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

// umockdev's function for a path of the emulated bus, and the C library's for any other.
static void choose(const char* path, const char* name, void* cached[2], void* function) {
    const bool emulated = is_emulated_path(path);
    void* chosen = __atomic_load_n(&cached[emulated], __ATOMIC_ACQUIRE);
    if (chosen == NULL) {
        chosen = emulated ? emulated_function(name) : library_function(name);
        __atomic_store_n(&cached[emulated], chosen, __ATOMIC_RELEASE);
    }
    memcpy(function, &chosen, sizeof chosen);
}

// NOLINTBEGIN(bugprone-macro-parentheses): a type and lists of parameters cannot have them
#define DEFINE(result, name, path, parameters, arguments)                                                    \
    EXPORT result name parameters {                                                                          \
        static void* cached[2];                                                                              \
        result(*function) parameters;                                                                        \
        choose(path, #name, cached, &function);                                                              \
        return function arguments;                                                                           \
    }
// NOLINTEND(bugprone-macro-parentheses)

DEFINE(int, access, path, (const char* path, int mode), (path, mode))
DEFINE(int, lstat, path, (const char* path, struct stat* status), (path, status))
DEFINE(int, lstat64, path, (const char* path, struct stat64* status), (path, status))
DEFINE(int, statfs, path, (const char* path, struct statfs* status), (path, status))
DEFINE(int, statfs64, path, (const char* path, struct statfs64* status), (path, status))
DEFINE(ssize_t, readlinkat, path, (int folder, const char* path, char* text, size_t size),
       (folder, path, text, size))
DEFINE(DIR*, opendir, path, (const char* path), (path))
DEFINE(int, chdir, path, (const char* path), (path))
DEFINE(int, chmod, path, (const char* path, mode_t mode), (path, mode))
DEFINE(int, mkdir, path, (const char* path, mode_t mode), (path, mode))
DEFINE(int, inotify_add_watch, path, (int descriptor, const char* path, uint32_t events),
       (descriptor, path, events))
DEFINE(ssize_t, getxattr, path, (const char* path, const char* name, void* value, size_t size),
       (path, name, value, size))
DEFINE(ssize_t, lgetxattr, path, (const char* path, const char* name, void* value, size_t size),
       (path, name, value, size))

// ---- the links to open descriptors in /proc, which name and describe a node as a pipe

static bool is_in_proc(const char* path) {
    static const char folder[] = "/proc/";
    return path != NULL && strncmp(path, folder, sizeof folder - 1) == 0;
}

static int status_of(const char* path, struct stat* status) {
    static void* cached[2];
    int (*function)(const char*, struct stat*);
    struct node_answer node;
    choose(path, "stat", cached, &function);
    const int result = function(path, status);
    if (result == 0 && S_ISFIFO(status->st_mode) && is_in_proc(path) &&
        describe_inode(status->st_ino, &node)) {
        describe_node(status, &node);
    }
    return result;
}

EXPORT int stat(const char* path, struct stat* status) {
    return status_of(path, status);
}
// The same record on systems with 64 bits.
EXPORT int stat64(const char* path, struct stat64* status) {
    return status_of(path, (struct stat*)status);
}

EXPORT ssize_t readlink(const char* path, char* text, size_t size) {
    static void* cached[2];
    ssize_t (*function)(const char*, char*, size_t);
    struct node_answer node;
    unsigned long long inode;
    char pipe[64];
    choose(path, "readlink", cached, &function);
    const ssize_t length = function(path, text, size);
    if (length <= 0 || (size_t)length >= sizeof pipe || !is_in_proc(path)) {
        return length;
    }
    memcpy(pipe, text, (size_t)length);
    pipe[length] = '\0';
    if (sscanf(pipe, "pipe:[%llu]", &inode) != 1 || !describe_inode(inode, &node)) {
        return length;
    }
    const int named = snprintf(pipe, sizeof pipe, "%s%03u/%03u", emulate_node_folder, node.bus, node.address);
    const size_t taken = (size_t)named < size ? (size_t)named : size;
    memcpy(text, pipe, taken);
    return (ssize_t)taken;
}

// An empty path means the descriptor itself.
static bool is_of_descriptor(const char* path, int flags) {
    return (flags & AT_EMPTY_PATH) != 0 && (path == NULL || path[0] == '\0');
}

static int status_at(int folder, const char* path, struct stat* status, int flags) {
    static void* cached[2];
    int (*function)(int, const char*, struct stat*, int);
    if (is_of_descriptor(path, flags) && folder >= 0) {
        return status_of_descriptor(folder, status);
    }
    choose(path, "fstatat", cached, &function);
    return function(folder, path, status, flags);
}

EXPORT int fstatat(int folder, const char* path, struct stat* status, int flags) {
    return status_at(folder, path, status, flags);
}
// The same record on systems with 64 bits.
EXPORT int fstatat64(int folder, const char* path, struct stat64* status, int flags) {
    return status_at(folder, path, (struct stat*)status, flags);
}

EXPORT int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) {
    static void* cached[2];
    int (*function)(int, const char*, int, unsigned, struct statx*);
    choose(path, "statx", cached, &function);
    const int result = function(folder, path, flags, mask, status);
    struct stat plain;
    if (result == 0 && S_ISFIFO(status->stx_mode) && is_of_descriptor(path, flags) && folder >= 0 &&
        status_of_descriptor(folder, &plain) == 0) {
        status->stx_mode = (uint16_t)plain.st_mode;
        status->stx_rdev_major = major(plain.st_rdev);
        status->stx_rdev_minor = minor(plain.st_rdev);
    }
    return result;
}
