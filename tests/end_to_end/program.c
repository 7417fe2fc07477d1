#include "program.h"

#include "testing.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/*
 * The first variable tells the emulator's preload which file replaces the configuration file. Without the
 * preload, the second variable names the real file and permits overwriting it.
 */
static const char configuration_variable[] = "GVUSB_EMULATE_CONFIG";
static const char own_file_variable[] = "GVUSB_TEST_CONFIGURATION_FILE";

/* The time limit for a program; GVUSB_TEST_RUN_SECONDS in the environment overrides it. */
enum { longest_run_s = 120 };

static double longest_run_ms(void) {
    const char* const seconds = getenv("GVUSB_TEST_RUN_SECONDS");
    return (seconds != NULL ? atoi(seconds) : longest_run_s) * 1e3;
}

static void write_text(int file, const char* text) {
    assert_true(file >= 0);
    const size_t length = strlen(text);
    assert_int_equal(write(file, text, length), length);
    close(file);
}

/* Without the preload, overwrite the real file. The calling program has read it long ago. */
static void replace_configuration(const char* path, const char* text) {
    unlink(path);
    if (text != NULL) {
        write_text(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644), text);
    }
}

static pid_t start(char** arguments, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    pid_t process = 0;
    const int error = posix_spawn(&process, arguments[0], &actions, NULL, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        fail_msg("%s: %s", arguments[0], strerror(error));
    }
    return process;
}

/* Read until the program closes its output at its end; false on a time-out. */
static bool read_output(int output, struct program_run* run) {
    const double deadline = now_ms() + longest_run_ms();
    size_t length = 0;
    while (length < sizeof run->output - 1) {
        struct pollfd readable = {.fd = output, .events = POLLIN};
        const double left = deadline - now_ms();
        if (left <= 0 || poll(&readable, 1, (int)left) == 0) {
            break;
        }
        const ssize_t count = read(output, run->output + length, sizeof run->output - 1 - length);
        if (count <= 0) {
            run->output[length] = '\0';
            return true;
        }
        if (length == 0) {
            run->first_output = now_ms();
        }
        length += (size_t)count;
    }
    run->output[length] = '\0';
    return false;
}

const char* configuration_of_suite(const char* configuration, char* text, size_t size) {
    if (!in_parallel_suite()) {
        return configuration;
    }
    const int length =
        snprintf(text, size, "gvusb_parallel=1\n%s", configuration != NULL ? configuration : "");
    assert_true((size_t)length < size);
    return text;
}

/* False if the program had to be killed. */
static bool run_child(struct program_run* run, const char* name, const char* first, const char* second,
                      const char* third) {
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", GVUSB_TEST_PROGRAMS, name);
    char* arguments[] = {path, (char*)first, (char*)second, (char*)third, NULL};
    int output[2];
    assert_int_equal(pipe2(output, O_CLOEXEC), 0);
    const pid_t process = start(arguments, output[1]);
    close(output[1]);
    const bool ended = read_output(output[0], run);
    run->ended = now_ms();
    if (!ended) {
        kill(process, SIGKILL);
    }
    int status = 0;
    waitpid(process, &status, 0);
    run->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    close(output[0]);
    return ended;
}

static bool run_child_with_preload(struct program_run* run, const char* configuration, const char* name,
                                   const char* first, const char* second, const char* third) {
    char file[] = "/tmp/gvusb-test-XXXXXX";
    if (configuration != NULL) {
        write_text(mkstemp(file), configuration);
    }
    const char* const before = getenv(configuration_variable);
    char* const restored = before != NULL ? strdup(before) : NULL;
    setenv(configuration_variable, configuration != NULL ? file : "", 1);
    const bool ended = run_child(run, name, first, second, third);
    if (configuration != NULL) {
        unlink(file);
    }
    if (restored != NULL) {
        setenv(configuration_variable, restored, 1);
    } else {
        unsetenv(configuration_variable);
    }
    free(restored);
    return ended;
}

void run_program(struct program_run* run, const char* configuration, const char* name, const char* first,
                 const char* second, const char* third) {
    const char* const own_file = getenv(own_file_variable);
    char text[4096];
    configuration = configuration_of_suite(configuration, text, sizeof text);
    bool ended = false;
    if (own_file != NULL) {
        replace_configuration(own_file, configuration);
        ended = run_child(run, name, first, second, third);
    } else {
        ended = run_child_with_preload(run, configuration, name, first, second, third);
    }
    if (!ended) {
        fail_msg("%s did not end; it printed:\n%s", name, run->output);
    }
}
