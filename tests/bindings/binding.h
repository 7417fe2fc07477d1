/*
 * What the runner of cases.json needs of a language. All functions return 0 or a positive value, or a code.
 */
#ifndef GVUSB_TESTS_BINDING_H
#define GVUSB_TESTS_BINDING_H

#include "gvusb.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A search. At most one of the members is set; with none, every reader is found. */
struct wanted {
    const char* family;
    const char* name;
    const char* id; /* in hexadecimal */
};

struct reported {
    int kind; /* GVUSB_EVENT_CONNECT or GVUSB_EVENT_DISCONNECT */
    int handle;
    unsigned int id;
};

/* Of a call of a C function: a text, or a number. */
struct argument {
    int is_number; /* 0 for a text and for null */
    int number;
    const char* text;
};

enum { most_found = 16 };

struct binding {
    /* Store the device IDs of the readers found, and return their number. To find none is no failure. */
    int (*scan)(const struct wanted* wanted, unsigned int* ids);
    /* Return a handle. */
    int (*open)(unsigned int id);
    int (*open_first)(const struct wanted* wanted);
    /* Store the handles of the readers found, and return their number. */
    int (*open_all)(const struct wanted* wanted, int* handles);
    int (*close)(int handle);
    int (*transceive)(int handle, const unsigned char* frame, size_t length, unsigned char* buffer,
                      size_t size);
    int (*transmit)(int handle, const unsigned char* frame, size_t length);
    int (*receive)(int handle, unsigned char* buffer, size_t size);
    /* The handle GVUSB_DRIVER stands for the driver. `value` has GVUSB_PARAMETER_SIZE bytes. */
    int (*get)(int handle, const char* key, char* value);
    int (*set)(int handle, const char* key, const char* value);
    int (*present)(int handle);
    /* Record events from now on. */
    int (*watch)(void);
    int (*unwatch)(void);
    /* Get the next event. Return 1, or 0 if none has been reported within the time. */
    int (*next_event)(int longest_ms, struct reported* event);
    /* The code with this name, or 0 if the language does not have it. */
    int (*code_named)(const char* name);
    /* Store a code's text in GVUSB_TEXT_SIZE bytes. */
    void (*text_of)(int code, char* text);
    /* Call a C function by its name; null if only the language's own interface is tested. */
    int (*call)(const char* function, const struct argument* arguments, size_t count);
};

/* Plain C; C++ with exceptions and gvusb::watch; C++ with error codes and gvusb::event_source. */
extern const struct binding c_binding;
extern const struct binding cxx_binding;
extern const struct binding cxx_binding_without_exceptions;

#ifdef __cplusplus
}
#endif

#endif
