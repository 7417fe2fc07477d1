// Openings of nodes: made over the launcher's socket, and found again by the inode of their descriptor. So a descriptor
// works after dup(), fork() and exec() and when another process has passed it, and close() needs no help.
//
// Nothing is locked. A place of the table is used while its key is the inode: whoever uses one counts itself in before
// it looks at the key again, and whoever removes one takes the key away before it looks at the count.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

enum { most_nodes = 8192, most_descriptors = 3 };

// Keys that are no inodes of pipes.
enum { unused_place, changing_place, removed_place };

struct node {
    uint64_t key;
    struct opening_memory* memory;
    uint32_t users;
};

static struct node nodes[most_nodes];
static uint32_t mapped_nodes;
static uint32_t collect_at = 16; // mapped nodes
static struct opening_bell* bell;

bool uses_nodes(void) {
    return __atomic_load_n(&bell, __ATOMIC_RELAXED) != NULL;
}

struct opening_memory* memory_of(struct node* node) {
    return node->memory;
}

void leave_node(struct node* node) {
    __atomic_fetch_sub(&node->users, 1, __ATOMIC_SEQ_CST);
}

void ring_bell(const struct opening_memory* memory) {
    struct opening_bell* const rung = __atomic_load_n(&bell, __ATOMIC_ACQUIRE);
    const uint32_t index = memory->index % bell_openings;
    const uint32_t word = index / 64;
    __atomic_fetch_or(&rung->openings[word], UINT64_C(1) << index % 64, __ATOMIC_SEQ_CST);
    __atomic_fetch_or(&rung->words[word / 64], UINT64_C(1) << word % 64, __ATOMIC_SEQ_CST);
    __atomic_fetch_add(&rung->rung, 1, __ATOMIC_SEQ_CST);
    // Only the launcher clears this: if a program did, and the launcher went to sleep before it was woken, or the program
    // was killed before it woke it, nobody else would.
    if (__atomic_load_n(&rung->asleep, __ATOMIC_SEQ_CST) != 0) {
        syscall(SYS_futex, &rung->rung, FUTEX_WAKE, 1, NULL, NULL, 0);
    }
}

// ---- the table

static uint32_t first_place(uint64_t key) {
    return (uint32_t)(key * UINT64_C(0x9E3779B97F4A7C15) >> 32) % most_nodes;
}

static struct node* find_key(uint64_t key) {
    uint32_t place = first_place(key);
    for (int i = 0; i < most_nodes; ++i, place = (place + 1) % most_nodes) {
        struct node* const node = &nodes[place];
        const uint64_t present = __atomic_load_n(&node->key, __ATOMIC_SEQ_CST);
        if (present == unused_place) {
            break;
        }
        if (present != key) {
            continue;
        }
        __atomic_fetch_add(&node->users, 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&node->key, __ATOMIC_SEQ_CST) == key) {
            return node;
        }
        leave_node(node);
    }
    return NULL;
}

// Returns the node as find_key() does, or null if the table is full.
static struct node* insert_key(uint64_t key, struct opening_memory* memory) {
    uint32_t place = first_place(key);
    for (int i = 0; i < most_nodes; ++i, place = (place + 1) % most_nodes) {
        struct node* const node = &nodes[place];
        uint64_t present = __atomic_load_n(&node->key, __ATOMIC_SEQ_CST);
        if ((present != unused_place && present != removed_place) ||
            !__atomic_compare_exchange_n(&node->key, &present, changing_place, false, __ATOMIC_SEQ_CST,
                                         __ATOMIC_SEQ_CST)) {
            continue;
        }
        node->memory = memory;
        __atomic_fetch_add(&node->users, 1, __ATOMIC_SEQ_CST);
        __atomic_store_n(&node->key, key, __ATOMIC_SEQ_CST);
        __atomic_fetch_add(&mapped_nodes, 1, __ATOMIC_RELAXED);
        return node;
    }
    return NULL;
}

// Unmap the memory of openings that have been closed.
static void collect_closed(void) {
    if (__atomic_load_n(&mapped_nodes, __ATOMIC_RELAXED) < __atomic_load_n(&collect_at, __ATOMIC_RELAXED)) {
        return;
    }
    for (int i = 0; i < most_nodes; ++i) {
        struct node* const node = &nodes[i];
        uint64_t key = __atomic_load_n(&node->key, __ATOMIC_SEQ_CST);
        if (key <= removed_place || !__atomic_compare_exchange_n(&node->key, &key, changing_place, false,
                                                                 __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
            continue;
        }
        if (__atomic_load_n(&node->users, __ATOMIC_SEQ_CST) == 0 &&
            __atomic_load_n(&node->memory->closed, __ATOMIC_ACQUIRE) != 0) {
            munmap(node->memory, sizeof *node->memory);
            __atomic_fetch_sub(&mapped_nodes, 1, __ATOMIC_RELAXED);
            key = removed_place;
        }
        __atomic_store_n(&node->key, key, __ATOMIC_SEQ_CST);
    }
    const uint32_t left = __atomic_load_n(&mapped_nodes, __ATOMIC_RELAXED);
    __atomic_store_n(&collect_at, left < 8 ? 16 : 2 * left, __ATOMIC_RELAXED);
}

// ---- the launcher's socket

// Take the descriptors out of a message. Returns how many there are.
static int take_descriptors(struct msghdr* message, int* descriptors) {
    int count = 0;
    for (struct cmsghdr* part = CMSG_FIRSTHDR(message); part != NULL; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
            const size_t size = part->cmsg_len - CMSG_LEN(0);
            count = (int)(size / sizeof *descriptors);
            memcpy(descriptors, CMSG_DATA(part), (size_t)count * sizeof *descriptors);
        }
    }
    return count;
}

// Returns 0 or an errno. There are `wanted` descriptors if it is 0, and none otherwise.
static int receive_answer(int channel, struct node_answer* answer, int* descriptors, int wanted) {
    union {
        struct cmsghdr header;
        char bytes[CMSG_SPACE(most_descriptors * sizeof(int))];
    } control;
    struct iovec piece = {.iov_base = answer, .iov_len = sizeof *answer};
    struct msghdr message = {
        .msg_iov = &piece, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = sizeof control};
    ssize_t received;
    do {
        received = library()->recvmsg(channel, &message, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    if (received != sizeof *answer) {
        return ENODEV;
    }
    const int count = take_descriptors(&message, descriptors);
    if (answer->error == 0 && count == wanted) {
        return 0;
    }
    for (int i = 0; i < count; ++i) {
        library()->close(descriptors[i]);
    }
    return answer->error != 0 ? answer->error : EMFILE;
}

static int ask_launcher(const struct node_question* question, struct node_answer* answer, int* descriptors,
                        int wanted) {
    const char* const folder = settings()->folder;
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int length = folder != NULL ? snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", folder,
                                                 emulate_node_socket)
                                      : -1;
    if (length < 0 || (size_t)length >= sizeof address.sun_path) {
        return ENODEV;
    }
    const int channel = library()->socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (channel < 0) {
        return errno;
    }
    int result = ENODEV;
    int connected;
    do {
        connected = library()->connect(channel, (const struct sockaddr*)&address, sizeof address);
    } while (connected != 0 && errno == EINTR);
    if (connected == 0 &&
        library()->send(channel, question, sizeof *question, MSG_NOSIGNAL) == sizeof *question) {
        result = receive_answer(channel, answer, descriptors, wanted);
    }
    library()->close(channel);
    return result;
}

// ---- opening and finding

static void* map(int descriptor, size_t size) {
    void* const mapped = library()->mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    library()->close(descriptor);
    if (mapped == MAP_FAILED) {
        return NULL;
    }
    madvise(mapped, size, MADV_DONTDUMP);
    return mapped;
}

static bool map_bell(int descriptor) {
    if (__atomic_load_n(&bell, __ATOMIC_ACQUIRE) != NULL) {
        library()->close(descriptor);
        return true;
    }
    struct opening_bell* const mapped = map(descriptor, sizeof *mapped);
    struct opening_bell* nothing = NULL;
    if (mapped != NULL &&
        !__atomic_compare_exchange_n(&bell, &nothing, mapped, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
        munmap(mapped, sizeof *mapped);
    }
    return mapped != NULL;
}

// Takes the descriptors of the memory and the bell. Null if there is no room.
static struct node* map_node(uint64_t inode, const int* descriptors) {
    struct opening_memory* const memory = map(descriptors[0], sizeof *memory);
    const bool belled = map_bell(descriptors[1]);
    struct node* const node = memory != NULL && belled ? insert_key(inode, memory) : NULL;
    if (node == NULL && memory != NULL) {
        munmap(memory, sizeof *memory);
    }
    return node;
}

// As the kernel chooses it: the lowest that is free.
static int lowest(int descriptor, int flags) {
    const int moved = library()->fcntl(descriptor, (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
    if (moved < 0) {
        const int error = errno;
        library()->close(descriptor);
        errno = error;
        return -1;
    }
    library()->close(descriptor);
    return moved;
}

static int open_connected(unsigned bus, unsigned address, int flags, int reported) {
    const struct node_question question = {
        .kind = node_open, .bus = bus, .address = address, .flags = reported};
    int descriptors[most_descriptors];
    struct stat status;
    struct node_answer answer;
    errno = ask_launcher(&question, &answer, descriptors, most_descriptors);
    if (errno != 0) {
        return -1;
    }
    struct node* node = NULL;
    if (library()->fstat(descriptors[0], &status) == 0) {
        node = map_node(status.st_ino, descriptors + 1);
    }
    if (node == NULL) {
        library()->close(descriptors[0]);
        errno = ENOMEM;
        return -1;
    }
    leave_node(node);
    return lowest(descriptors[0], flags);
}

int open_node(const char* place, unsigned bus, unsigned address, int flags) {
    // The file in the node's place has its permissions.
    const int file = library()->open(place, (flags & ~(O_CREAT | O_EXCL | O_TRUNC)) | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    if ((flags & O_PATH) != 0) {
        return lowest(file, flags);
    }
    const int reported = library()->fcntl(file, F_GETFL);
    library()->close(file);
    if ((flags & O_DIRECT) != 0) {
        errno = EINVAL;
        return -1;
    }
    collect_closed();
    const int kept = errno;
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    const int opened = open_connected(bus, address, flags, reported);
    const int error = errno;
    pthread_setcancelstate(state, NULL);
    errno = opened >= 0 ? kept : error;
    return opened;
}

// A process that has got the descriptor by exec() or from another process.
static struct node* find_at_launcher(uint64_t inode) {
    const struct node_question question = {.kind = node_find, .inode = inode};
    int descriptors[most_descriptors];
    int state;
    struct node* node = NULL;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    struct node_answer answer;
    if (ask_launcher(&question, &answer, descriptors, 2) == 0) {
        node = map_node(inode, descriptors);
    }
    pthread_setcancelstate(state, NULL);
    return node;
}

struct node* find_node(int descriptor) {
    const int error = errno;
    struct node* node = NULL;
    struct stat status;
    if (library()->fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode)) {
        node = find_key(status.st_ino);
        if (node == NULL && library()->fcntl(descriptor, F_GETPIPE_SZ) == sysconf(_SC_PAGESIZE)) {
            node = find_at_launcher(status.st_ino);
        }
    }
    errno = error;
    return node;
}

bool describe_inode(uint64_t inode, struct node_answer* answer) {
    const struct node_question question = {.kind = node_describe, .inode = inode};
    const int error = errno;
    int descriptors[most_descriptors];
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    const bool found = ask_launcher(&question, answer, descriptors, 0) == 0;
    pthread_setcancelstate(state, NULL);
    errno = error;
    return found;
}
