// Functions that read folders. The C library's own look up files without calling the functions of the preload.

#include "preload.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <string.h>

static APART DIR* open_in_place(const char* path) {
    struct place place;
    find_place(&place, AT_FDCWD, path);
    return library()->opendir(place.path);
}

static DIR* open_folder(const char* path) {
    return may_be_emulated(path) ? open_in_place(path) : library()->opendir(path);
}

EXPORT DIR* opendir(const char* path) {
    return open_folder(path);
}

typedef int (*entry_filter)(const struct dirent* entry);
typedef int (*entry_order)(const struct dirent** first, const struct dirent** second);

static int scan(int folder, const char* path, struct dirent*** entries, entry_filter filter,
                entry_order order) {
    struct place place;
    if (!may_be_emulated(path)) {
        return library()->scandirat(folder, path, entries, filter, order);
    }
    find_place(&place, folder, path);
    return library()->scandirat(folder, place.path, entries, filter, order);
}

EXPORT int scandir(const char* path, struct dirent*** entries, entry_filter filter, entry_order order) {
    return scan(AT_FDCWD, path, entries, filter, order);
}
EXPORT int scandirat(int folder, const char* path, struct dirent*** entries, entry_filter filter,
                     entry_order order) {
    return scan(folder, path, entries, filter, order);
}

// The same records on systems with 64 bits.
typedef int (*entry_filter64)(const struct dirent64* entry);
typedef int (*entry_order64)(const struct dirent64** first, const struct dirent64** second);

EXPORT int scandir64(const char* path, struct dirent64*** entries, entry_filter64 filter,
                     entry_order64 order) {
    return scan(AT_FDCWD, path, (struct dirent***)entries, (entry_filter)filter, (entry_order)order);
}
EXPORT int scandirat64(int folder, const char* path, struct dirent64*** entries, entry_filter64 filter,
                       entry_order64 order) {
    return scan(folder, path, (struct dirent***)entries, (entry_filter)filter, (entry_order)order);
}

// ---- patterns

static void close_folder(void* folder) {
    closedir(folder);
}
static struct dirent* next_entry(void* folder) {
    return readdir(folder); // NOLINT(concurrency-mt-unsafe): the stream is glob()'s own
}
static void* open_for_pattern(const char* path) {
    return open_folder(path);
}
static int status_for_pattern(const char* path, struct stat* status) {
    return status_of_path(AT_FDCWD, path, status, 0);
}
static int link_status_for_pattern(const char* path, struct stat* status) {
    return status_of_path(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}

// The program's own functions for folders, if it has some, call the preload.
static int match(const char* pattern, int flags, int (*failed)(const char*, int), glob_t* found) {
    if ((flags & GLOB_ALTDIRFUNC) == 0) {
        found->gl_closedir = close_folder;
        found->gl_readdir = next_entry;
        found->gl_opendir = open_for_pattern;
        found->gl_stat = status_for_pattern;
        found->gl_lstat = link_status_for_pattern;
    }
    return library()->glob(pattern, flags | GLOB_ALTDIRFUNC, failed, found);
}

EXPORT int glob(const char* pattern, int flags, int (*failed)(const char*, int), glob_t* found) {
    return match(pattern, flags, failed, found);
}
// The same record on systems with 64 bits.
EXPORT int glob64(const char* pattern, int flags, int (*failed)(const char*, int), glob64_t* found) {
    return match(pattern, flags, failed, (glob_t*)found);
}

// ---- trees

typedef int (*visitor)(const char* path, const struct stat* status, int kind);
typedef int (*positioned_visitor)(const char* path, const struct stat* status, int kind,
                                  struct FTW* position);

// What the program calls for each file. The C library passes nothing on to it.
static __thread visitor visit;
static __thread positioned_visitor visit_with_position;

// The program's own path, and what the file would be.
static const char* describe_visited(const char* path, struct stat* status) {
    const char* const below = path_below_root(path);
    if (below == NULL) {
        return path;
    }
    if (S_ISREG(status->st_mode)) {
        status_of_path(AT_FDCWD, below, status, AT_SYMLINK_NOFOLLOW);
    }
    return below;
}

static int visit_in_place(const char* path, const struct stat* status, int kind) {
    struct stat described = *status;
    const char* const shown = describe_visited(path, &described);
    return visit(shown, &described, kind);
}

static int visit_position_in_place(const char* path, const struct stat* status, int kind,
                                   struct FTW* position) {
    struct stat described = *status;
    struct FTW shown_position = *position;
    const char* const shown = describe_visited(path, &described);
    shown_position.base -= (int)(shown - path);
    return visit_with_position(shown, &described, kind, &shown_position);
}

static int walk(const char* path, visitor visits, int descriptors) {
    struct place place;
    if (path[0] != '/' || !may_be_emulated(path)) {
        return library()->ftw(path, visits, descriptors);
    }
    const visitor before = visit;
    find_place(&place, AT_FDCWD, path);
    visit = visits;
    const int result = library()->ftw(place.path, visit_in_place, descriptors);
    visit = before;
    return result;
}

static int walk_with_position(const char* path, positioned_visitor visits, int descriptors, int flags) {
    struct place place;
    if (path[0] != '/' || !may_be_emulated(path)) {
        return library()->nftw(path, visits, descriptors, flags);
    }
    const positioned_visitor before = visit_with_position;
    find_place(&place, AT_FDCWD, path);
    visit_with_position = visits;
    const int result = library()->nftw(place.path, visit_position_in_place, descriptors, flags);
    visit_with_position = before;
    return result;
}

EXPORT int ftw(const char* path, visitor visits, int descriptors) {
    return walk(path, visits, descriptors);
}
EXPORT int nftw(const char* path, positioned_visitor visits, int descriptors, int flags) {
    return walk_with_position(path, visits, descriptors, flags);
}

// The same records on systems with 64 bits.
typedef int (*visitor64)(const char* path, const struct stat64* status, int kind);
typedef int (*positioned_visitor64)(const char* path, const struct stat64* status, int kind,
                                    struct FTW* position);

EXPORT int ftw64(const char* path, visitor64 visits, int descriptors) {
    return walk(path, (visitor)visits, descriptors);
}
EXPORT int nftw64(const char* path, positioned_visitor64 visits, int descriptors, int flags) {
    return walk_with_position(path, (positioned_visitor)visits, descriptors, flags);
}
