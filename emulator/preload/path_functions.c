// Functions that take or return a path.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

// A function that only needs another path. `moved` are the arguments with the place's path.
// NOLINTBEGIN(bugprone-macro-parentheses): a type and lists of parameters cannot have them
#define DEFINE(result, name, folder, path, parameters, arguments, moved)                                     \
    static APART result name##_in_place parameters {                                                         \
        struct place place;                                                                                  \
        find_place(&place, folder, path);                                                                    \
        return library()->name moved;                                                                        \
    }                                                                                                        \
    EXPORT result name parameters {                                                                          \
        return may_be_emulated(path) ? name##_in_place arguments : library()->name arguments;                \
    }
// NOLINTEND(bugprone-macro-parentheses)

DEFINE(int, access, AT_FDCWD, path, (const char* path, int mode), (path, mode), (place.path, mode))
DEFINE(int, faccessat, folder, path, (int folder, const char* path, int mode, int flags),
       (folder, path, mode, flags), (folder, place.path, mode, flags))
DEFINE(int, euidaccess, AT_FDCWD, path, (const char* path, int mode), (path, mode), (place.path, mode))
DEFINE(int, chdir, AT_FDCWD, path, (const char* path), (path), (place.path))
DEFINE(int, statvfs, AT_FDCWD, path, (const char* path, struct statvfs* status), (path, status),
       (place.path, status))
DEFINE(int, inotify_add_watch, AT_FDCWD, path, (int descriptor, const char* path, uint32_t events),
       (descriptor, path, events), (descriptor, place.path, events))
DEFINE(ssize_t, getxattr, AT_FDCWD, path, (const char* path, const char* name, void* value, size_t size),
       (path, name, value, size), (place.path, name, value, size))
DEFINE(ssize_t, lgetxattr, AT_FDCWD, path, (const char* path, const char* name, void* value, size_t size),
       (path, name, value, size), (place.path, name, value, size))
DEFINE(ssize_t, listxattr, AT_FDCWD, path, (const char* path, char* names, size_t size), (path, names, size),
       (place.path, names, size))
DEFINE(ssize_t, llistxattr, AT_FDCWD, path, (const char* path, char* names, size_t size), (path, names, size),
       (place.path, names, size))
DEFINE(int, name_to_handle_at, folder, path,
       (int folder, const char* path, struct file_handle* handle, int* mount, int flags),
       (folder, path, handle, mount, flags), (folder, place.path, handle, mount, flags))
DEFINE(int, chmod, AT_FDCWD, path, (const char* path, mode_t mode), (path, mode), (place.path, mode))
DEFINE(int, fchmodat, folder, path, (int folder, const char* path, mode_t mode, int flags),
       (folder, path, mode, flags), (folder, place.path, mode, flags))
DEFINE(int, chown, AT_FDCWD, path, (const char* path, uid_t owner, gid_t group), (path, owner, group),
       (place.path, owner, group))
DEFINE(int, lchown, AT_FDCWD, path, (const char* path, uid_t owner, gid_t group), (path, owner, group),
       (place.path, owner, group))
DEFINE(int, fchownat, folder, path, (int folder, const char* path, uid_t owner, gid_t group, int flags),
       (folder, path, owner, group, flags), (folder, place.path, owner, group, flags))
DEFINE(int, mkdir, AT_FDCWD, path, (const char* path, mode_t mode), (path, mode), (place.path, mode))
DEFINE(int, mkdirat, folder, path, (int folder, const char* path, mode_t mode), (folder, path, mode),
       (folder, place.path, mode))
DEFINE(int, rmdir, AT_FDCWD, path, (const char* path), (path), (place.path))
DEFINE(int, unlink, AT_FDCWD, path, (const char* path), (path), (place.path))
DEFINE(int, unlinkat, folder, path, (int folder, const char* path, int flags), (folder, path, flags),
       (folder, place.path, flags))

EXPORT int eaccess(const char* path, int mode) {
    return may_be_emulated(path) ? euidaccess_in_place(path, mode) : library()->euidaccess(path, mode);
}
// The same record on systems with 64 bits.
EXPORT int statvfs64(const char* path, struct statvfs64* status) {
    struct statvfs* const same = (struct statvfs*)status;
    return may_be_emulated(path) ? statvfs_in_place(path, same) : library()->statvfs(path, same);
}

// ---- the kind of file system, by which libudev knows sysfs

static APART int file_system_in_place(const char* path, struct statfs* status) {
    struct place place;
    find_place(&place, AT_FDCWD, path);
    const int result = library()->statfs(place.path, status);
    if (result == 0 && place.in_sysfs) {
        status->f_type = SYSFS_MAGIC;
    }
    return result;
}

static int file_system(const char* path, struct statfs* status) {
    return may_be_emulated(path) ? file_system_in_place(path, status) : library()->statfs(path, status);
}

static APART bool is_in_sysfs(int descriptor) {
    char path[PATH_MAX];
    path_of_descriptor(path, sizeof path, descriptor);
    const char* const below = path_below_root(path);
    return below != NULL && strncmp(below, "/sys", 4) == 0 && (below[4] == '/' || below[4] == '\0');
}

static int file_system_of(int descriptor, struct statfs* status) {
    const int result = library()->fstatfs(descriptor, status);
    if (result == 0 && is_in_sysfs(descriptor)) {
        status->f_type = SYSFS_MAGIC;
    }
    return result;
}

EXPORT int statfs(const char* path, struct statfs* status) {
    return file_system(path, status);
}
EXPORT int fstatfs(int descriptor, struct statfs* status) {
    return file_system_of(descriptor, status);
}
// The same record on systems with 64 bits.
EXPORT int statfs64(const char* path, struct statfs64* status) {
    return file_system(path, (struct statfs*)status);
}
EXPORT int fstatfs64(int descriptor, struct statfs64* status) {
    return file_system_of(descriptor, (struct statfs*)status);
}

// ---- the kind of file: nodes, and descriptors of nodes in /proc, are not what they seem

static bool is_in_proc(const char* path) {
    static const char folder[] = "/proc/";
    return strncmp(path, folder, sizeof folder - 1) == 0;
}

static APART int status_in_place(int folder, const char* path, struct stat* status, int flags) {
    struct place place;
    find_place(&place, folder, path);
    const int result = library()->fstatat(folder, place.path, status, flags);
    if (result == 0 && place.bus != 0 && S_ISREG(status->st_mode)) {
        const struct node_answer node = {.bus = place.bus,
                                         .address = place.address,
                                         .mode = status->st_mode & 07777,
                                         .file_device = status->st_dev,
                                         .file_inode = status->st_ino};
        describe_node(status, &node);
    }
    return result;
}

// An empty path means the descriptor itself.
static bool is_of_descriptor(int folder, const char* path, int flags) {
    return folder >= 0 && (flags & AT_EMPTY_PATH) != 0 && (path == NULL || path[0] == '\0');
}

int status_of_path(int folder, const char* path, struct stat* status, int flags) {
    struct node_answer node;
    if (may_be_emulated(path)) {
        return status_in_place(folder, path, status, flags);
    }
    if (is_of_descriptor(folder, path, flags)) {
        return status_of_descriptor(folder, status);
    }
    const int result = library()->fstatat(folder, path, status, flags);
    if (result == 0 && S_ISFIFO(status->st_mode) && is_in_proc(path) &&
        describe_inode(status->st_ino, &node)) {
        describe_node(status, &node);
    }
    return result;
}

EXPORT int stat(const char* path, struct stat* status) {
    return status_of_path(AT_FDCWD, path, status, 0);
}
EXPORT int lstat(const char* path, struct stat* status) {
    return status_of_path(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}
EXPORT int fstatat(int folder, const char* path, struct stat* status, int flags) {
    return status_of_path(folder, path, status, flags);
}
// The same record on systems with 64 bits.
EXPORT int stat64(const char* path, struct stat64* status) {
    return status_of_path(AT_FDCWD, path, (struct stat*)status, 0);
}
EXPORT int lstat64(const char* path, struct stat64* status) {
    return status_of_path(AT_FDCWD, path, (struct stat*)status, AT_SYMLINK_NOFOLLOW);
}
EXPORT int fstatat64(int folder, const char* path, struct stat64* status, int flags) {
    return status_of_path(folder, path, (struct stat*)status, flags);
}

// Of programs for older versions of the C library.
#define DEFINE_VERSIONED(name, record, flags)                                                                \
    EXPORT int name(int version, const char* path, struct record* status);                                   \
    EXPORT int name(int version, const char* path, struct record* status) {                                  \
        (void)version;                                                                                       \
        return status_of_path(AT_FDCWD, path, (struct stat*)status, flags);                                  \
    }
#define DEFINE_VERSIONED_AT(name, record)                                                                    \
    EXPORT int name(int version, int folder, const char* path, struct record* status, int flags);            \
    EXPORT int name(int version, int folder, const char* path, struct record* status, int flags) {           \
        (void)version;                                                                                       \
        return status_of_path(folder, path, (struct stat*)status, flags);                                    \
    }
DEFINE_VERSIONED(__xstat, stat, 0)
DEFINE_VERSIONED(__xstat64, stat64, 0)
DEFINE_VERSIONED(__lxstat, stat, AT_SYMLINK_NOFOLLOW)
DEFINE_VERSIONED(__lxstat64, stat64, AT_SYMLINK_NOFOLLOW)
DEFINE_VERSIONED_AT(__fxstatat, stat)
DEFINE_VERSIONED_AT(__fxstatat64, stat64)

static APART int extended_status_in_place(int folder, const char* path, int flags, unsigned mask,
                                          struct statx* status, struct stat* plain) {
    struct place place;
    find_place(&place, folder, path);
    const int result = library()->statx(folder, place.path, flags, mask, status);
    if (result == 0 && place.bus != 0 && S_ISREG(status->stx_mode)) {
        const struct node_answer node = {
            .bus = place.bus, .address = place.address, .mode = status->stx_mode & 07777};
        describe_node(plain, &node);
    }
    return result;
}

static int extended_status(int folder, const char* path, int flags, unsigned mask, struct statx* status) {
    struct stat plain;
    int result;
    plain.st_mode = 0;
    if (may_be_emulated(path)) {
        result = extended_status_in_place(folder, path, flags, mask, status, &plain);
    } else {
        result = library()->statx(folder, path, flags, mask, status);
        if (result == 0 && S_ISFIFO(status->stx_mode) && is_of_descriptor(folder, path, flags)) {
            status_of_descriptor(folder, &plain);
        }
    }
    if (result == 0 && S_ISCHR(plain.st_mode)) {
        status->stx_mode = (uint16_t)plain.st_mode;
        status->stx_size = 0;
        status->stx_blocks = 0;
        status->stx_rdev_major = major(plain.st_rdev);
        status->stx_rdev_minor = minor(plain.st_rdev);
    }
    return result;
}

EXPORT int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) {
    return extended_status(folder, path, flags, mask, status);
}

// node looks up files with it, because older C libraries have no statx().
EXPORT long syscall(long number, ...) {
    va_list arguments;
    long values[6];
    va_start(arguments, number);
    for (size_t i = 0; i < sizeof values / sizeof values[0]; ++i) {
        values[i] = va_arg(arguments, long);
    }
    va_end(arguments);
    if (number == SYS_statx) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): system calls take numbers
        return extended_status((int)values[0], (const char*)values[1], (int)values[2], (unsigned)values[3],
                               (struct statx*)values[4]); // NOLINT(performance-no-int-to-ptr): as above
    }
    return library()->syscall(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

// ---- answers that contain a path, which must not be in the scratch folder

static void hide_root(char* path) {
    const char* const below = path_below_root(path);
    if (below != NULL) {
        memmove(path, below, strlen(below) + 1);
    }
}

// What a link in /proc to an open file says instead. `text` has a null. Returns the length, 0 if nothing is to be hidden.
static size_t name_of_link(char* text) {
    unsigned long long inode;
    struct node_answer node;
    const char* const below = path_below_root(text);
    if (below != NULL) {
        memmove(text, below, strlen(below) + 1);
        return strlen(text);
    }
    if (sscanf(text, "pipe:[%llu]", &inode) != 1 || !describe_inode(inode, &node)) {
        return 0;
    }
    return (size_t)snprintf(text, PATH_MAX, "%s%03u/%03u", emulate_node_folder, node.bus, node.address);
}

static APART ssize_t read_link_in_place(int folder, const char* path, char* text, size_t size) {
    struct place place;
    find_place(&place, folder, path);
    return library()->readlinkat(folder, place.path, text, size);
}

static APART ssize_t read_hidden_link(int folder, const char* path, char* text, size_t size, ssize_t length) {
    char whole[PATH_MAX];
    const ssize_t got = library()->readlinkat(folder, path, whole, sizeof whole - 1);
    if (got <= 0) {
        return length;
    }
    whole[got] = '\0';
    const size_t named = name_of_link(whole);
    if (named == 0) {
        return length;
    }
    const size_t taken = named < size ? named : size;
    memcpy(text, whole, taken);
    return (ssize_t)taken;
}

static bool begins_alike(const char* text, size_t length, const char* with) {
    const size_t compared = strlen(with) < length ? strlen(with) : length;
    return memcmp(text, with, compared) == 0;
}

static ssize_t read_link(int folder, const char* path, char* text, size_t size) {
    if (may_be_emulated(path)) {
        return read_link_in_place(folder, path, text, size);
    }
    const ssize_t length = library()->readlinkat(folder, path, text, size);
    const char* const root = settings()->root;
    if (length > 0 && root != NULL &&
        (begins_alike(text, (size_t)length, root) || begins_alike(text, (size_t)length, "pipe:["))) {
        return read_hidden_link(folder, path, text, size, length);
    }
    return length;
}

EXPORT ssize_t readlink(const char* path, char* text, size_t size) {
    return read_link(AT_FDCWD, path, text, size);
}
EXPORT ssize_t readlinkat(int folder, const char* path, char* text, size_t size) {
    return read_link(folder, path, text, size);
}

static APART char* real_path_in_place(const char* path, char* resolved) {
    struct place place;
    find_place(&place, AT_FDCWD, path);
    return library()->realpath(place.path, resolved);
}

static char* real_path(const char* path, char* resolved) {
    char* const result =
        may_be_emulated(path) ? real_path_in_place(path, resolved) : library()->realpath(path, resolved);
    if (result != NULL) {
        hide_root(result);
    }
    return result;
}

EXPORT char* realpath(const char* path, char* resolved) {
    return real_path(path, resolved);
}
EXPORT char* canonicalize_file_name(const char* path) {
    return real_path(path, NULL);
}

static APART char* working_directory_in_little_room(char* path, size_t size) {
    char whole[PATH_MAX];
    const char* const got = library()->getcwd(whole, sizeof whole);
    const char* const below = got != NULL ? path_below_root(whole) : NULL;
    if (below == NULL || strlen(below) >= size) {
        errno = ERANGE;
        return NULL;
    }
    return memcpy(path, below, strlen(below) + 1);
}

static char* working_directory(char* path, size_t size) {
    char* const result = library()->getcwd(path, size);
    if (result != NULL) {
        hide_root(result);
        return result;
    }
    return path != NULL && errno == ERANGE ? working_directory_in_little_room(path, size) : NULL;
}

EXPORT char* getcwd(char* path, size_t size) {
    return working_directory(path, size);
}
EXPORT char* get_current_dir_name(void) {
    char* const result = library()->get_current_dir_name();
    if (result != NULL) {
        hide_root(result);
    }
    return result;
}

// Of fortified programs.

static void check_room(size_t size, size_t room) {
    if (size > room) {
        abort();
    }
}

EXPORT ssize_t __readlink_chk(const char* path, char* text, size_t size, size_t room);
EXPORT ssize_t __readlink_chk(const char* path, char* text, size_t size, size_t room) {
    check_room(size, room);
    return read_link(AT_FDCWD, path, text, size);
}
EXPORT ssize_t __readlinkat_chk(int folder, const char* path, char* text, size_t size, size_t room);
EXPORT ssize_t __readlinkat_chk(int folder, const char* path, char* text, size_t size, size_t room) {
    check_room(size, room);
    return read_link(folder, path, text, size);
}
EXPORT char* __realpath_chk(const char* path, char* resolved, size_t room);
EXPORT char* __realpath_chk(const char* path, char* resolved, size_t room) {
    check_room(PATH_MAX, room);
    return real_path(path, resolved);
}
EXPORT char* __getcwd_chk(char* path, size_t size, size_t room);
EXPORT char* __getcwd_chk(char* path, size_t size, size_t room) {
    check_room(size, room);
    return working_directory(path, size);
}
