#include "commands/libusb_events.h"

#include "failure.h"

#include <csignal>
#include <string>

#include <libusb.h>

LibusbEvents::LibusbEvents() {
    // A reference of our own: the library's ends when it is unloaded.
    if (const int code = libusb_init(nullptr); code != LIBUSB_SUCCESS)
        throw Failure(std::string("libusb: ") + libusb_strerror(static_cast<libusb_error>(code)));
    // Signals are for the thread that waits for them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] {
        while (!ended_) {
            timeval longest = {.tv_sec = 60, .tv_usec = 0};
            libusb_handle_events_timeout_completed(nullptr, &longest, nullptr);
        }
    });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

LibusbEvents::~LibusbEvents() {
    ended_ = true;
    libusb_interrupt_event_handler(nullptr);
    thread_.join();
    libusb_exit(nullptr);
}
