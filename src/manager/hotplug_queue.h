// Passes hot-plug events from libusb's callbacks to a thread of the library.
//
// Inside event handling, libusb refuses to read a reader's device ID, and a handler of the application that called the
// library would wait for a mutex whose owner waits for these very events. The thread starts with the first event. It
// reports the events one by one, in the order in which they were posted, and holds no mutex meanwhile.
#pragma once

#include "base/mutex.h"
#include "base/own_process.h"
#include "base/usb_owners.h"

#include <vector>

#include <libusb.h>
#include <pthread.h>

class HotPlugQueue {
public:
    using Reporter = void (*)(void* context, libusb_hotplug_event event, libusb_device* dev);

    HotPlugQueue(const OwnProcess& process, Reporter reporter, void* context) noexcept
        : m_process(process)
        , m_reporter(reporter)
        , m_context(context) {}
    ~HotPlugQueue() noexcept(false) { Stop(); }
    HotPlugQueue(const HotPlugQueue&) = delete;
    HotPlugQueue& operator=(const HotPlugQueue&) = delete;

    // Queue an event, with a reference to the device until it is reported. Any thread, even inside event handling.
    void Post(libusb_hotplug_event event, libusb_device* dev) GVUSB_EXCLUDES(m_mutex);

    // Drop queued and future events, and wait for a report in progress, unless the report itself stops the queue.
    void Stop() GVUSB_EXCLUDES(m_mutex);

private:
    struct Event {
        libusb_hotplug_event event;
        DeviceReference device;
    };

    static void* Run(void* queue);
    std::vector<Event> WaitForEvents() GVUSB_EXCLUDES(m_mutex);
    bool IsStopped() GVUSB_EXCLUDES(m_mutex);

    const OwnProcess& m_process;
    const Reporter m_reporter;
    void* const m_context;
    Mutex m_mutex;
    Condition m_changed;
    std::vector<Event> m_events GVUSB_GUARDED_BY(m_mutex);
    bool m_stopped GVUSB_GUARDED_BY(m_mutex) = false;
    bool m_threadStarted GVUSB_GUARDED_BY(m_mutex) = false;
    pthread_t m_thread GVUSB_GUARDED_BY(m_mutex) = {};
};
