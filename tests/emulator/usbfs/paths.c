// Paths of the emulated bus: every function that takes one finds the emulated files, however it is written.
//
//   gvusb-emulate --reader id=A1 --reader id=B2 -- paths CASE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <glob.h>
#include <limits.h>
#include <linux/magic.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

// The folder of the devices of the first bus, below /sys.
#define BUS_FOLDER "/devices/platform/gvusb.1/usb1"

static int failures;

static void expect(const char* what, const char* path, long got, long wanted) {
    if (got != wanted) {
        ++failures;
        fprintf(stderr, "%s, %s: %ld instead of %ld\n", what, path, got, wanted);
    }
}

static void expect_text(const char* what, const char* got, const char* wanted) {
    if (got == NULL || strcmp(got, wanted) != 0) {
        ++failures;
        fprintf(stderr, "%s: '%s' instead of '%s'\n", what, got != NULL ? got : "nothing", wanted);
    }
}

// ---- one row for each function

static bool closes(int descriptor) {
    return descriptor >= 0 && close(descriptor) == 0;
}

static bool reads_number(FILE* file) {
    int number = 0;
    const bool got = file != NULL && fscanf(file, "%d", &number) == 1 && number == 2;
    if (file != NULL) {
        fclose(file);
    }
    return got;
}

static bool is_node(const struct stat* status) {
    return S_ISCHR(status->st_mode) && status->st_rdev == makedev(189, 1);
}

static bool by_open(int folder, const char* path) {
    (void)folder;
    return closes(open(path, O_RDONLY | O_CLOEXEC));
}
static bool by_openat(int folder, const char* path) {
    return closes(openat(folder, path, O_RDONLY | O_CLOEXEC));
}
static bool by_creat(int folder, const char* path) {
    (void)folder;
    return closes(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600)) && unlink(path) == 0;
}
static bool by_fopen(int folder, const char* path) {
    (void)folder;
    return reads_number(fopen(path, "re"));
}
static bool by_freopen(int folder, const char* path) {
    (void)folder;
    return reads_number(freopen(path, "re", fopen("/dev/null", "re")));
}
static bool by_opendir(int folder, const char* path) {
    (void)folder;
    DIR* const opened = opendir(path);
    return opened != NULL && closedir(opened) == 0;
}

static bool frees(struct dirent** entries, int count) {
    for (int i = 0; i < count; ++i) {
        free(entries[i]);
    }
    if (count >= 0) {
        free(entries);
    }
    return count > 2;
}
static bool by_scandir(int folder, const char* path) {
    struct dirent** entries = NULL;
    (void)folder;
    const int count = scandir(path, &entries, NULL, alphasort);
    return frees(entries, count);
}
static bool by_scandirat(int folder, const char* path) {
    struct dirent** entries = NULL;
    const int count = scandirat(folder, path, &entries, NULL, alphasort);
    return frees(entries, count);
}

static bool by_stat(int folder, const char* path) {
    struct stat status;
    (void)folder;
    return stat(path, &status) == 0 && is_node(&status);
}
static bool by_lstat(int folder, const char* path) {
    struct stat status;
    (void)folder;
    return lstat(path, &status) == 0 && is_node(&status);
}
static bool by_lstat_of_link(int folder, const char* path) {
    struct stat status;
    (void)folder;
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}
static bool by_fstatat(int folder, const char* path) {
    struct stat status;
    return fstatat(folder, path, &status, 0) == 0 && is_node(&status);
}
static bool by_statx(int folder, const char* path) {
    struct statx status;
    return statx(folder, path, 0, STATX_BASIC_STATS, &status) == 0 && S_ISCHR(status.stx_mode) &&
           status.stx_rdev_major == 189 && status.stx_rdev_minor == 1 && status.stx_size == 0;
}
// As node does.
static bool by_system_call(int folder, const char* path) {
    struct statx status;
    return syscall(SYS_statx, folder, path, 0, STATX_BASIC_STATS, &status) == 0 && S_ISCHR(status.stx_mode);
}

// What programs call that were built for versions before 2.33 of the C library.
static bool by_xstat(int folder, const char* path) {
    struct stat status;
    int (*function)(int, const char*, struct stat*) = NULL;
    *(void**)&function = dlsym(RTLD_DEFAULT, "__xstat");
    (void)folder;
    return function != NULL && function(1, path, &status) == 0 && is_node(&status);
}
static bool by_lxstat(int folder, const char* path) {
    struct stat status;
    int (*function)(int, const char*, struct stat*) = NULL;
    *(void**)&function = dlsym(RTLD_DEFAULT, "__lxstat");
    (void)folder;
    return function != NULL && function(1, path, &status) == 0 && is_node(&status);
}
static bool by_fxstatat(int folder, const char* path) {
    struct stat status;
    int (*function)(int, int, const char*, struct stat*, int) = NULL;
    *(void**)&function = dlsym(RTLD_DEFAULT, "__fxstatat");
    return function != NULL && function(1, folder, path, &status, 0) == 0 && is_node(&status);
}

static bool by_statfs(int folder, const char* path) {
    struct statfs status;
    (void)folder;
    return statfs(path, &status) == 0 && status.f_type == SYSFS_MAGIC;
}
static bool by_fstatfs(int folder, const char* path) {
    struct statfs status;
    const int file = openat(folder, path, O_RDONLY | O_CLOEXEC);
    const bool got = file >= 0 && fstatfs(file, &status) == 0 && status.f_type == SYSFS_MAGIC;
    return closes(file) && got;
}
static bool by_statvfs(int folder, const char* path) {
    struct statvfs status;
    (void)folder;
    return statvfs(path, &status) == 0;
}
static bool by_access(int folder, const char* path) {
    (void)folder;
    return access(path, R_OK) == 0;
}
static bool by_faccessat(int folder, const char* path) {
    return faccessat(folder, path, R_OK, AT_EACCESS) == 0;
}
static bool by_euidaccess(int folder, const char* path) {
    (void)folder;
    return euidaccess(path, R_OK) == 0 && eaccess(path, R_OK) == 0;
}
static bool is_text(const char* text, ssize_t length, const char* wanted) {
    return length == (ssize_t)strlen(wanted) && memcmp(text, wanted, (size_t)length) == 0;
}
static bool by_readlink(int folder, const char* path) {
    char text[PATH_MAX];
    (void)folder;
    return is_text(text, readlink(path, text, sizeof text), "../../.." BUS_FOLDER "/1-1");
}
static bool by_readlinkat(int folder, const char* path) {
    char text[PATH_MAX];
    return is_text(text, readlinkat(folder, path, text, sizeof text), "../../.." BUS_FOLDER "/1-1");
}
static bool by_realpath(int folder, const char* path) {
    char text[PATH_MAX];
    (void)folder;
    return realpath(path, text) != NULL && strcmp(text, "/sys" BUS_FOLDER "/1-1") == 0;
}
static bool by_canonicalize_file_name(int folder, const char* path) {
    (void)folder;
    char* const text = canonicalize_file_name(path);
    const bool got = text != NULL && strcmp(text, "/sys" BUS_FOLDER "/1-1") == 0;
    free(text);
    return got;
}
static bool by_chdir(int folder, const char* path) {
    char text[PATH_MAX];
    const int before = open(".", O_PATH | O_CLOEXEC);
    (void)folder;
    const bool got =
        chdir(path) == 0 && getcwd(text, sizeof text) != NULL && strcmp(text, "/sys" BUS_FOLDER "/1-1") == 0;
    return fchdir(before) == 0 && closes(before) && got;
}
static bool by_inotify(int folder, const char* path) {
    const int watches = inotify_init1(IN_CLOEXEC);
    (void)folder;
    const bool got = inotify_add_watch(watches, path, IN_CREATE) >= 0;
    return closes(watches) && got;
}
static bool by_getxattr(int folder, const char* path) {
    char value[16];
    (void)folder;
    return getxattr(path, "user.none", value, sizeof value) < 0 && errno != ENOENT &&
           lgetxattr(path, "user.none", value, sizeof value) < 0 && errno != ENOENT &&
           listxattr(path, value, 0) >= 0 && llistxattr(path, value, 0) >= 0;
}
static bool by_name_to_handle(int folder, const char* path) {
    union {
        struct file_handle handle;
        char room[sizeof(struct file_handle) + MAX_HANDLE_SZ];
    } found;
    int mount;
    memset(&found, 0, sizeof found);
    found.handle.handle_bytes = MAX_HANDLE_SZ;
    return name_to_handle_at(folder, path, &found.handle, &mount, 0) == 0 || errno == EOPNOTSUPP ||
           errno == EPERM || errno == ENOSYS;
}
static bool by_chmod(int folder, const char* path) {
    struct stat status;
    return chmod(path, 0600) == 0 && stat(path, &status) == 0 && (status.st_mode & 07777) == 0600 &&
           fchmodat(folder, path, 0664, 0) == 0;
}
static bool by_fchmodat(int folder, const char* path) {
    struct stat status;
    return fchmodat(folder, path, 0600, 0) == 0 && fstatat(folder, path, &status, 0) == 0 &&
           (status.st_mode & 07777) == 0600 && fchmodat(folder, path, 0664, 0) == 0;
}
static bool by_chown(int folder, const char* path) {
    (void)folder;
    return chown(path, getuid(), getgid()) == 0 && lchown(path, getuid(), getgid()) == 0;
}
static bool by_fchownat(int folder, const char* path) {
    return fchownat(folder, path, getuid(), getgid(), 0) == 0;
}
static bool by_mkdir(int folder, const char* path) {
    struct stat status;
    (void)folder;
    return mkdir(path, 0700) == 0 && stat(path, &status) == 0 && rmdir(path) == 0;
}
static bool by_mkdirat(int folder, const char* path) {
    return mkdirat(folder, path, 0700) == 0 && unlinkat(folder, path, AT_REMOVEDIR) == 0;
}
static bool by_glob(int folder, const char* path) {
    char pattern[PATH_MAX];
    glob_t found;
    (void)folder;
    const int length = snprintf(pattern, sizeof pattern, "%s/dev?um", path);
    const bool got = length > 0 && glob(pattern, 0, NULL, &found) == 0 && found.gl_pathc == 1 &&
                     strncmp(found.gl_pathv[0], path, strlen(path)) == 0;
    if (got) {
        globfree(&found);
    }
    return got;
}

static const char* walked; // the path that the walk has been given
static int visits;

static int visit(const char* path, const struct stat* status, int kind) {
    (void)status;
    (void)kind;
    visits += strncmp(path, walked, strlen(walked)) == 0;
    return 0;
}
static int visit_with_position(const char* path, const struct stat* status, int kind, struct FTW* position) {
    const char* const last = strrchr(path, '/');
    visits += strncmp(path, walked, strlen(walked)) == 0 && (kind == FTW_D || S_ISCHR(status->st_mode)) &&
              position->base == (last != NULL ? last - path + 1 : 0);
    return 0;
}
static bool by_ftw(int folder, const char* path) {
    (void)folder;
    walked = path;
    visits = 0;
    return ftw(path, visit, 8) == 0 && visits == 4;
}
static bool by_nftw(int folder, const char* path) {
    (void)folder;
    walked = path;
    visits = 0;
    return nftw(path, visit_with_position, 8, FTW_PHYS) == 0 && visits == 4;
}

// What a function is tried with: the folder, the file in it and one that does not exist.
enum kind { attribute, link_to_device, node, bus_folder, missing };
static const struct {
    const char* folder;
    const char* name;
    const char* missing;
} kinds[] = {
    [attribute] = {"/sys/bus/usb/devices", "1-1/devnum", "1-9/devnum"},
    [link_to_device] = {"/sys/bus/usb/devices", "1-1", "1-9"},
    [node] = {"/dev/bus/usb", "001/002", "001/099"},
    [bus_folder] = {"/dev/bus/usb", "001", "009"},
    [missing] = {"/dev/bus/usb", "001/new", "009/new"},
};

enum way { only_absolute = 1, with_folder };
static const struct {
    const char* name;
    enum kind kind;
    bool (*finds)(int folder, const char* path);
    int way;
} functions[] = {
    {"open", attribute, by_open, 0},
    {"open of a node", node, by_open, 0},
    {"openat", attribute, by_openat, with_folder},
    {"openat of a node", node, by_openat, with_folder},
    {"open that creates, and unlink", missing, by_creat, 0},
    {"fopen", attribute, by_fopen, 0},
    {"freopen", attribute, by_freopen, 0},
    {"opendir", bus_folder, by_opendir, 0},
    {"scandir", bus_folder, by_scandir, 0},
    {"scandirat", bus_folder, by_scandirat, with_folder},
    {"stat", node, by_stat, 0},
    {"lstat", node, by_lstat, 0},
    {"lstat of a link", link_to_device, by_lstat_of_link, 0},
    {"fstatat", node, by_fstatat, with_folder},
    {"statx", node, by_statx, with_folder},
    {"system call", node, by_system_call, with_folder},
    {"__xstat", node, by_xstat, 0},
    {"__lxstat", node, by_lxstat, 0},
    {"__fxstatat", node, by_fxstatat, with_folder},
    {"statfs", attribute, by_statfs, 0},
    {"fstatfs", attribute, by_fstatfs, with_folder},
    {"statvfs", attribute, by_statvfs, 0},
    {"access", node, by_access, 0},
    {"faccessat", node, by_faccessat, with_folder},
    {"euidaccess", node, by_euidaccess, 0},
    {"readlink", link_to_device, by_readlink, 0},
    {"readlinkat", link_to_device, by_readlinkat, with_folder},
    {"realpath", link_to_device, by_realpath, 0},
    {"canonicalize_file_name", link_to_device, by_canonicalize_file_name, 0},
    {"chdir and getcwd", link_to_device, by_chdir, 0},
    {"inotify_add_watch", bus_folder, by_inotify, 0},
    {"extended attributes", node, by_getxattr, 0},
    {"name_to_handle_at", node, by_name_to_handle, with_folder},
    {"chmod", node, by_chmod, 0},
    {"fchmodat", node, by_fchmodat, with_folder},
    {"chown", node, by_chown, 0},
    {"fchownat", node, by_fchownat, with_folder},
    {"mkdir and rmdir", missing, by_mkdir, 0},
    {"mkdirat and unlinkat", missing, by_mkdirat, with_folder},
    {"glob", link_to_device, by_glob, 0},
    {"ftw", bus_folder, by_ftw, only_absolute},
    {"nftw", bus_folder, by_nftw, only_absolute},
};

static char* joined(const char* first, const char* second) {
    static char paths[4][PATH_MAX];
    static int last;
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof path, "%s/%s", first, second);
    if (length < 0 || (size_t)length >= sizeof path) {
        abort();
    }
    last = (last + 1) % 4;
    return memcpy(paths[last], path, (size_t)length + 1);
}

static void try_absolute(size_t i, const char* folder, const char* name, bool wanted) {
    char doubled[PATH_MAX] = "/.";
    size_t length = strlen(doubled);
    const char* const path = joined(folder, name);
    expect(functions[i].name, path, functions[i].finds(AT_FDCWD, path), wanted);
    for (const char* c = path; *c != '\0'; ++c) {
        doubled[length++] = *c;
        if (*c == '/') {
            doubled[length++] = *c;
        }
    }
    if (functions[i].way != only_absolute) {
        expect(functions[i].name, doubled, functions[i].finds(AT_FDCWD, doubled), wanted);
    }
}

static void try_from(size_t i, const char* folder, const char* path, bool wanted) {
    const int opened = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
    expect("chdir", folder, chdir(folder), 0);
    expect(functions[i].name, path, functions[i].finds(AT_FDCWD, path), wanted);
    expect("chdir", "/tmp", chdir("/tmp"), 0);
    if (functions[i].way == with_folder) {
        expect(functions[i].name, path, functions[i].finds(opened, path), wanted);
        expect("outside", path, functions[i].finds(AT_FDCWD, path), false);
    }
    close(opened);
}

static void finds_files_by_every_function(void) {
    for (size_t i = 0; i < sizeof functions / sizeof functions[0]; ++i) {
        const char* const folder = kinds[functions[i].kind].folder;
        for (int exists = 0; exists < 2; ++exists) {
            const char* const name =
                exists ? kinds[functions[i].kind].name : kinds[functions[i].kind].missing;
            try_absolute(i, folder, name, exists);
            if (functions[i].way == only_absolute) {
                continue;
            }
            try_from(i, "/", joined(folder, name) + 1, exists);
            try_from(i, folder, name, exists);
            try_from(i, folder, joined(".", name), exists);
            try_from(i, folder, joined(joined("..", strrchr(folder, '/') + 1), name), exists);
        }
    }
}

// ---- answers

// As systemd's libudev does: from the root, by one component at a time, with links followed by hand.
static int walk_by_hand(int folder, const char* path) {
    char rest[PATH_MAX];
    snprintf(rest, sizeof rest, "%s", path);
    char* more = NULL;
    for (char* name = strtok_r(rest, "/", &more); name != NULL; name = strtok_r(NULL, "/", &more)) {
        char link[PATH_MAX];
        int next = openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
        const ssize_t length = next >= 0 ? readlinkat(next, "", link, sizeof link - 1) : -1;
        if (length > 0) {
            link[length] = '\0';
            close(next);
            next = walk_by_hand(dup(folder), link);
        }
        close(folder);
        folder = next;
    }
    return folder;
}

static void walks_by_components(void) {
    const int folder =
        walk_by_hand(open("/", O_PATH | O_CLOEXEC), "sys/bus/usb/devices/1-2/subsystem/devices/1-1");
    char text[PATH_MAX] = "";
    char link[64];
    struct statfs status = {0};
    const int file = openat(folder, "devnum", O_RDONLY | O_CLOEXEC);
    snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
    expect_text("devnum", read(file, text, sizeof text - 1) == 2 ? text : NULL, "2\n");
    expect("fstatfs", "/sys", fstatfs(folder, &status), 0);
    expect("kind", "/sys", status.f_type, SYSFS_MAGIC);
    const ssize_t length = readlink(link, text, sizeof text - 1);
    text[length > 0 ? length : 0] = '\0';
    expect_text("link in /proc", text, "/sys" BUS_FOLDER "/1-1");
    close(file);
    close(folder);
}

// The scratch folder is in no answer.
static void hides_the_scratch_folder(void) {
    char text[PATH_MAX];
    expect("chdir", "/sys/bus/usb/devices", chdir("/sys/bus/usb/devices/1-1"), 0);
    expect_text("getcwd", getcwd(text, sizeof text), "/sys" BUS_FOLDER "/1-1");
    expect_text("getcwd in little room", getcwd(text, sizeof "/sys" BUS_FOLDER "/1-1"),
                "/sys" BUS_FOLDER "/1-1");
    expect("getcwd in too little room", ".", getcwd(text, 16) == NULL && errno == ERANGE, true);
    char* made = getcwd(NULL, 0);
    expect_text("getcwd that allocates", made, "/sys" BUS_FOLDER "/1-1");
    free(made);
    made = get_current_dir_name();
    expect_text("get_current_dir_name", made, "/sys" BUS_FOLDER "/1-1");
    free(made);
    expect_text("realpath of the working directory", realpath(".", text), "/sys" BUS_FOLDER "/1-1");
    expect_text("realpath of a file", realpath("../1-2/devnum", text), "/sys" BUS_FOLDER "/1-2/devnum");
    memset(text, 'x', sizeof text);
    expect("readlink in little room", ".", readlink("/proc/self/cwd", text, 6), 6);
    text[7] = '\0';
    expect_text("readlink in little room", text, "/sys/dx");
}

// ".." leads out of the emulated folders into the real ones, and other paths are the system's.
static void leaves_other_paths_alone(void) {
    struct stat real;
    struct stat status;
    expect("stat", "/etc", stat("/etc", &real), 0);
    expect("chdir", "/sys/bus", chdir("/sys/bus"), 0);
    expect("stat", "../../etc", stat("../../etc", &status), 0);
    expect("same", "../../etc", status.st_ino == real.st_ino && status.st_dev == real.st_dev, true);
    expect("access", "../../dev/null", access("../../dev/null", R_OK), 0);
    const int folder = open("/dev/bus", O_PATH | O_CLOEXEC);
    expect("faccessat", "../null", faccessat(folder, "../null", R_OK, 0), 0);
    expect("faccessat", "../bus/usb/001/002", faccessat(folder, "../bus/usb/001/002", R_OK, 0), 0);
    close(folder);
    expect("statfs", "/sys", access("/sys/kernel", F_OK), -1);
    expect("system", "/system", access("/system", F_OK), -1);
    expect("bad pointer", "1", open((const char*)(uintptr_t)1, O_RDONLY | O_CLOEXEC) == -1 && errno == EFAULT,
           true);
}

// A program may change its environment, which nobody may read meanwhile.
static void reads_the_environment_once(void) {
    expect("setenv", "GVUSB_EMULATE_FOLDER", setenv("GVUSB_EMULATE_FOLDER", "/nowhere", 1), 0);
    expect("open", "/sys", by_open(AT_FDCWD, "/sys/bus/usb/devices/1-1/devnum"), true);
    expect("open", "/dev/bus/usb", by_open(AT_FDCWD, "/dev/bus/usb/001/002"), true);
    expect("clearenv", "", clearenv(), 0);
    expect("stat", "/dev/bus/usb", by_stat(AT_FDCWD, "/dev/bus/usb/001/002"), true);
    expect("open", "/dev/bus/usb", by_open(AT_FDCWD, "/dev/bus/usb/001/002"), true);
}

// ---- fork

static atomic_bool ending;

static void* look_always(void* context) {
    (void)context;
    while (!ending) {
        struct stat status;
        closes(open("/sys/bus/usb/devices/1-1/devnum", O_RDONLY | O_CLOEXEC));
        stat("/sys/bus/usb/devices/1-2", &status);
        by_readlink(AT_FDCWD, "/sys/bus/usb/devices/1-1");
        by_opendir(AT_FDCWD, "/dev/bus/usb");
    }
    return NULL;
}

// A lock that another thread holds stays locked in the child.
static void forks_while_threads_look_at_paths(void) {
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i) {
        pthread_create(&threads[i], NULL, look_always, NULL);
    }
    for (int i = 0; i < 300; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(30);
            _exit(by_stat(AT_FDCWD, "/dev/bus/usb/001/002") &&
                          by_open(AT_FDCWD, "/sys/bus/usb/devices/1-1/devnum") &&
                          by_readlink(AT_FDCWD, "/sys/bus/usb/devices/1-1")
                      ? 0
                      : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        expect("child", "fork", status, 0);
    }
    ending = true;
    for (int i = 0; i < 2; ++i) {
        pthread_join(threads[i], NULL);
    }
}

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"finds_files_by_every_function", finds_files_by_every_function},
    {"walks_by_components", walks_by_components},
    {"hides_the_scratch_folder", hides_the_scratch_folder},
    {"leaves_other_paths_alone", leaves_other_paths_alone},
    {"reads_the_environment_once", reads_the_environment_once},
    {"forks_while_threads_look_at_paths", forks_while_threads_look_at_paths},
};

int main(int count, char** arguments) {
    for (size_t i = 0; count == 2 && i < sizeof cases / sizeof cases[0]; ++i) {
        if (strcmp(cases[i].name, arguments[1]) == 0) {
            cases[i].run();
            return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
        }
    }
    fprintf(stderr, "usage: paths CASE\n");
    return EXIT_FAILURE;
}
