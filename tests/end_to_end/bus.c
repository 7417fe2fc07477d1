#include "bus.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

/* The longest command contains a reader's descriptors, the longest answer a frame, in hexadecimal. */
enum { longest_command = 4096, longest_answer = 2 * longest_frame + 64 };

/* Names the program that makes a real kernel follow the bus. */
static const char settle_variable[] = "GVUSB_TEST_SETTLE";

/*
 * Set when a recording of this program is replayed: names a file with the number of readers at the start of the
 * recorded run, then a line for each recorded reader with its number in that run and in the replay.
 */
static const char replay_variable[] = "GVUSB_TEST_REPLAY";

static pthread_mutex_t channel_lock = PTHREAD_MUTEX_INITIALIZER;
static int channel = -1;

_Noreturn static void give_up(const char* command, const char* why) {
    fflush(stdout);
    fprintf(stderr, "bus(\"%s\"): %s\n", command, why);
    abort();
}

static int connected_channel(const char* command) {
    if (channel >= 0) {
        return channel;
    }
    const char* path = getenv("GVUSB_EMULATE_SOCKET");
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (path == NULL || strlen(path) >= sizeof address.sun_path) {
        give_up(command, "this program was not started by gvusb-emulate");
    }
    strcpy(address.sun_path, path);
    channel = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (channel < 0 || connect(channel, (const struct sockaddr*)&address, sizeof address) != 0) {
        give_up(command, "the bus does not listen");
    }
    return channel;
}

static void exchange_line(const char* command, char* answer) {
    char line[longest_command + 1];
    size_t length = (size_t)snprintf(line, sizeof line, "%s\n", command);
    pthread_mutex_lock(&channel_lock);
    int descriptor = connected_channel(command);
    if (send(descriptor, line, length, MSG_NOSIGNAL) != (ssize_t)length) {
        give_up(command, "the bus has gone");
    }
    size_t received = 0;
    do {
        ssize_t count = recv(descriptor, answer + received, longest_answer - 1 - received, 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            give_up(command, "no answer");
        }
        received += (size_t)count;
    } while (received == 0 || answer[received - 1] != '\n');
    pthread_mutex_unlock(&channel_lock);
    answer[received - 1] = '\0';
}

static const char* run_command(const char* command) {
    static _Thread_local char answer[longest_answer];
    exchange_line(command, answer);
    if (strcmp(answer, "ok") == 0) {
        return "";
    }
    if (strncmp(answer, "ok ", 3) != 0) {
        give_up(command, answer);
    }
    return answer + 3;
}

static bool begins_with(const char* text, const char* beginning) {
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

/*
 * A real kernel takes time to notice a change. The program that the variable names forwards the change and
 * waits. Without the variable, the bus is emulated and changes take effect at once.
 */
static const char* change_kernel(const char* settle, const char* command) {
    const char* answer = run_command(command);
    if (system(settle) != 0) {
        give_up(command, "the kernel did not follow");
    }
    return answer;
}

/*
 * The replayed readers: their count at the start of the recorded run and, by their numbers in that run, their numbers
 * now (0: not recorded). A file has a byte for each reader that was added since, by this process or another.
 */
static struct {
    pthread_once_t once;
    bool active;
    int first_count;
    int added;
    int numbers[256];
} replay = {.once = PTHREAD_ONCE_INIT};

static void find_replay(void) {
    const char* path = getenv(replay_variable);
    FILE* file = path != NULL ? fopen(path, "re") : NULL;
    if (path == NULL) {
        return;
    }
    int then;
    int now;
    if (file == NULL || fscanf(file, "%d", &replay.first_count) != 1) {
        give_up(path, "no list of readers");
    }
    char added[1024];
    snprintf(added, sizeof added, "%s.added", path);
    replay.added = open(added, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (replay.added < 0) {
        give_up(added, strerror(errno));
    }
    while (fscanf(file, "%d %d", &then, &now) == 2) {
        if (then < 1 || then >= (int)(sizeof replay.numbers / sizeof *replay.numbers)) {
            give_up(path, "a bad number");
        }
        replay.numbers[then] = now;
    }
    fclose(file);
    replay.active = true;
}

static bool is_replay(void) {
    pthread_once(&replay.once, find_replay);
    return replay.active;
}

/* The number that a reader has now; 0 if nothing of it was recorded. */
static int number_now(int reader) {
    return is_replay() ? replay.numbers[reader] : reader;
}

static int count_in_replay(void) {
    struct stat status;
    return fstat(replay.added, &status) == 0 ? replay.first_count + (int)status.st_size : 0;
}

/* "plug DESCRIPTION": the readers that the recorded run added then. Returns the number of the first, as that run saw it. */
static const char* plug_recorded(const char* description) {
    static _Thread_local char answer[16];
    const char* copies = strstr(description, "copies=");
    const int count = copies != NULL ? atoi(copies + strlen("copies=")) : 1;
    const int first = count_in_replay() + 1;
    for (int reader = first; reader < first + count; ++reader) {
        if (write(replay.added, "+", 1) != 1) {
            give_up(description, strerror(errno));
        }
        if (strstr(description, "plugged=no") == NULL) {
            bus("plug %d", reader);
        }
    }
    snprintf(answer, sizeof answer, "%d", first);
    return answer;
}

/* Readers come, go and are counted as in the recorded run. What else changes them is in the recording. */
static const char* run_in_replay(const char* command) {
    static const char* const kept[] = {"plug ", "unplug ", "replug ", "frames ", "counts "};
    for (size_t i = 0; i < sizeof kept / sizeof *kept; ++i) {
        if (!begins_with(command, kept[i])) {
            continue;
        }
        const char* argument = command + strlen(kept[i]);
        char* end = NULL;
        const long reader = strtol(argument, &end, 10);
        if (end == argument) {
            return plug_recorded(argument);
        }
        char translated[64];
        snprintf(translated, sizeof translated, "%s%d", kept[i], number_now((int)reader));
        return number_now((int)reader) != 0 ? run_command(translated) : "";
    }
    return strcmp(command, "list") == 0 ? run_command(command) : "";
}

bool bus_is_emulated(void) {
    return getenv(settle_variable) == NULL;
}

const char* bus(const char* format, ...) {
    char command[longest_command];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(command, sizeof command, format, arguments);
    va_end(arguments);
    if (length < 0 || length >= longest_command) {
        give_up(format, "too long");
    }
    const char* settle = getenv(settle_variable);
    if (settle != NULL && begins_with(command, "replug ")) {
        bus("un%s", command + 2);
        return bus("%s", command + 2);
    }
    if (settle != NULL && (begins_with(command, "plug ") || begins_with(command, "unplug "))) {
        return change_kernel(settle, command);
    }
    return is_replay() ? run_in_replay(command) : run_command(command);
}

int plug_new(const char* description) {
    return atoi(bus("plug %s", description));
}

int reader_count(void) {
    if (is_replay()) {
        return count_in_replay();
    }
    const char* list = bus("list");
    int count = *list == '\0' ? 0 : 1;
    for (; *list != '\0'; ++list) {
        count += *list == ';';
    }
    return count;
}

bool is_plugged(int reader) {
    if (number_now(reader) == 0) {
        return false;
    }
    char beginning[16];
    snprintf(beginning, sizeof beginning, "%d ", number_now(reader));
    const char* entry = bus("list");
    while (strncmp(entry, beginning, strlen(beginning)) != 0) {
        const char* separator = strstr(entry, "; ");
        if (separator == NULL) {
            give_up(beginning, "no such reader");
        }
        entry = separator + 2;
    }
    const char* unplugged = strstr(entry, "unplugged");
    const char* end = strchr(entry, ';');
    return unplugged == NULL || (end != NULL && end < unplugged);
}

long host_count(int reader, const char* what) {
    const char* counts = bus("counts %d", reader);
    size_t length = strlen(what);
    for (const char* word = counts; word != NULL; word = strchr(word, ' ')) {
        word += *word == ' ';
        if (strncmp(word, what, length) == 0 && word[length] == '=') {
            return strtol(word + length + 1, NULL, 10);
        }
    }
    give_up(what, "not among the counts");
}

static unsigned char hex_byte(const char* digits) {
    const char text[3] = {digits[0], digits[1], '\0'};
    return (unsigned char)strtoul(text, NULL, 16);
}

void read_seen_frame(int reader, struct seen_frame* frame) {
    char* rest = NULL;
    frame->count = strtol(bus("frames %d", reader), &rest, 10);
    frame->endpoint = 0;
    frame->length = 0;
    if (frame->count == 0) {
        return;
    }
    frame->endpoint = (int)strtol(rest, &rest, 16);
    rest += *rest == ' ';
    for (; rest[0] != '\0' && rest[1] != '\0' && frame->length < sizeof frame->bytes; rest += 2) {
        frame->bytes[frame->length++] = hex_byte(rest);
    }
}

void calm_bus(void) {
    static const char* const readers[] = {
        "unstall all in",
        "unstall all out",
        "unstall all control",
        "unmute all in",
        "unmute all out",
        "unmute all control",
        "delay all in 0",
        "delay all out 0",
        "delay all control 0",
        "short all in off",
        "short all out off",
        "fail all in off",
        "fail all out off",
        "fail all control off",
        "chance all in off",
        "chance all out off",
        "chance all control off",
        "jitter all off",
        "on all off",
        "reply all echo",
        "flush all",
        "fail-configuration all off",
        "fail-string all 1 off",
        "fail-string all 3 off",
        "fail-string all 5 off",
        "fail-string all 6 off",
        "fail-string all 10 off",
    };
    static const char* const host[] = {
        "busy all off",
        "refuse all off",
        "fail-reset all off",
    };
    for (size_t i = 0; i < sizeof readers / sizeof *readers; ++i) {
        bus("%s", readers[i]);
    }
    for (size_t i = 0; bus_is_emulated() && i < sizeof host / sizeof *host; ++i) {
        bus("%s", host[i]);
    }
}

double now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

bool await(bool (*condition)(void* context), void* context, double longest_ms) {
    const double end = now_ms() + longest_ms;
    while (!condition(context)) {
        if (now_ms() > end) {
            return false;
        }
        usleep(500);
    }
    return true;
}
