#include "commands/libusb_events.h"

#include "failure.h"

#include <csignal>
#include <string>

#include <libusb.h>

LibusbEvents::LibusbEvents() {
    // Its own reference keeps the context when the library releases its reference on unloading.
    if (const int code = libusb_init(nullptr); code != LIBUSB_SUCCESS) {
        throw Failure(std::string("libusb: ") + libusb_strerror(static_cast<libusb_error>(code)));
    }
    // The thread inherits blocked signals, so that they go to the thread that waits for them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    m_thread = std::thread([this] {
        while (!m_ended) {
            timeval longest = {.tv_sec = 60, .tv_usec = 0};
            libusb_handle_events_timeout_completed(nullptr, &longest, nullptr);
        }
    });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

LibusbEvents::~LibusbEvents() {
    m_ended = true;
    libusb_interrupt_event_handler(nullptr);
    m_thread.join();
    libusb_exit(nullptr);
}
